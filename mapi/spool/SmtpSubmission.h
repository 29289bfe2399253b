// Submission of one message to an SMTP server through libcurl, with every recipient's own reply known:
// one refused recipient does not hide behind the others (libcurl's tolerance of failing recipients alone
// would hide a 4xx), so the server's replies are read off the protocol as they come.
#pragma once

#include <atomic>
#include <string>
#include <string_view>
#include <vector>

#include "mapi/spool/SmtpSettings.h"

namespace velmar::mapi {

struct CRecipientReply {
    std::string address;
    int code = 0;  // the reply to its RCPT TO; 0 when it was never asked
    std::string text;
};

enum class SmtpOutcome { Accepted, Temporary, Permanent };

struct CSmtpResult {
    SmtpOutcome outcome = SmtpOutcome::Temporary;  // of the message as a whole
    int code = 0;      // the reply that decided it; 0 when there was none (no connection)
    std::string text;  // the server's words for it, or curl's
    std::vector<CRecipientReply> recipients;  // one per recipient, in order
};

// Sends mime (CR LF line ends) from `from` to the recipients. Accepted: the data was taken for every
// recipient with a 2xx reply (the others are listed with theirs). Temporary: nothing was taken and a later
// try may work (no connection, TLS not to be had, 4xx, a connection lost after the data). Permanent: a 5xx to
// MAIL FROM or to the data, to every recipient, or authentication refused. A set cancel flag ends the
// transfer early (Temporary).
CSmtpResult SubmitBySmtp(const CSmtpSettings& settings, const std::string& password, const std::string& from,
                         const std::vector<std::string>& recipients, std::string_view mime,
                         const std::atomic<bool>* cancel = nullptr);

}  // namespace velmar::mapi
