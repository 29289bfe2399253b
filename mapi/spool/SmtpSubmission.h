// Submission of one message to an SMTP server through libcurl, with every recipient's own reply known:
// libcurl's tolerance of failing recipients alone would hide which were refused and how, so the server's
// replies are read off the conversation as it goes.
#pragma once

#include <atomic>
#include <string>
#include <string_view>
#include <vector>

#include "mapi/spool/SmtpSettings.h"

namespace velmar::mapi {

struct CRecipientReply {
    std::string address;  // as the caller gave it
    int code = 0;  // the server's reply to its RCPT TO; 0 when it was never asked (the transfer ended before)
    std::string text;  // the reply's words after the code, the lines of a multi-line reply joined by spaces
};

enum class SmtpOutcome { Accepted, Temporary, Permanent };

struct CSmtpResult {
    SmtpOutcome outcome = SmtpOutcome::Temporary;  // of the message as a whole
    int code = 0;      // the server's reply that decided it; 0 when there was none (no connection, say)
    std::string text;  // the server's own words for it, or libcurl's error text
    std::vector<CRecipientReply> recipients;  // one per recipient, in the caller's order
};

// Sends mime (the whole message, CR LF line ends; read in place, not copied) from `from` to the recipients
// (bare addresses) through the server of settings, logging on with settings.user and password when a user
// is set. Nothing is written anywhere, the password least of all. The outcome:
//   Accepted: the server took the data for every recipient whose RCPT TO got a 2xx reply; those refused
//     are listed with their replies, for the caller to report (5xx) or try again (4xx).
//   Temporary: nothing was taken, and a later try may work: no connection, a lost or stalled one, TLS that
//     cannot be had as the settings demand, a 4xx to the log-on, to MAIL FROM, to DATA or to the data, 4xx
//     among recipients none of whom was accepted, or a connection lost after the data was sent (the server
//     may have the message then: a retry may deliver it twice, which is safer than losing it). A set cancel
//     flag ends the transfer early, also Temporary.
//   Permanent: a 5xx to the log-on (535: wrong user or password), to MAIL FROM, to DATA or to the data, or to
//     every recipient; no recipients, or an address with a line break.
CSmtpResult SubmitBySmtp(const CSmtpSettings& settings, const std::string& password, const std::string& from,
                         const std::vector<std::string>& recipients, std::string_view mime,
                         const std::atomic<bool>* cancel = nullptr);

}  // namespace velmar::mapi
