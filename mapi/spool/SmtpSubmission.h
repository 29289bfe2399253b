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
    // The server refused our password or token: 535 to AUTH, or an XOAUTH2 error challenge libcurl ends on.
    bool signInRefused = false;
};

// A reply about our account rather than the message or a recipient: a log-on wanted (530), too weak (534)
// or refused (535), or one the server wants encrypted (538). Whatever command it answers, it is temporary:
// the message waits until the profile is right.
bool ConcernsAccount(int code);
// A refusal for good of what the reply answers (a recipient, the message): 5xx, but none about our account.
bool IsPermanentRefusal(int code);

// Sends mime (the whole message, CR LF line ends; read in place, not copied) from `from` to the recipients
// (bare addresses) through the server of settings, logging on with settings.user and password when a user
// is set; for an account that signs in with OAuth2, password is the access token, offered by SASL
// OAUTHBEARER where the server takes it, else XOAUTH2. Nothing is written anywhere, the password least of
// all. The outcome:
//   Accepted: the server took the data for every recipient whose RCPT TO got a 2xx reply; those refused
//     are listed with their replies, for the caller to report (IsPermanentRefusal) or try again.
//   Temporary: nothing was taken, and a later try may work: no connection, a lost or stalled one, TLS that
//     cannot be had as the settings demand, any refusal of the log-on (535: wrong user or password), a
//     refusal of MAIL FROM (the sender, an account's matter) but for a size the server never takes, a reply
//     about the account to any command (ConcernsAccount), a 4xx to DATA or to the data, recipients none of
//     whom was accepted and one of whom may be later, or a connection lost after the data was sent (the
//     server may have the message then: a retry may deliver it twice, which is safer than losing it). A set
//     cancel flag ends the transfer early, also Temporary.
//   Permanent: a 5xx to DATA or to the data (the message itself), 552 to MAIL FROM (its size), or every
//     recipient refused for good; no recipients, or an address with a line break.
CSmtpResult SubmitBySmtp(const CSmtpSettings& settings, const std::string& password, const std::string& from,
                         const std::vector<std::string>& recipients, std::string_view mime,
                         const std::atomic<bool>* cancel = nullptr);

}  // namespace velmar::mapi
