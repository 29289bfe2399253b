// Delivery through the system's mail program, the Unix convention for a desktop without an SMTP server of
// its own: "/usr/sbin/sendmail -i -f FROM -- RCPT..." with the message on its standard input, as Postfix,
// Exim and msmtp all provide it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace velmar::mapi {

inline constexpr const char* kSendmailProgram = "/usr/sbin/sendmail";

enum class DeliveryOutcome { Accepted, Temporary, Permanent };

struct CSendmailResult {
    DeliveryOutcome outcome = DeliveryOutcome::Temporary;
    std::string text;  // what the program said (its error output), or why it could not run
};

// Whether the program is there to run.
bool SendmailAvailable();

// Hands the message (LF line ends) to the program for the recipients. Its exit code decides: 0 accepted,
// the sysexits codes of a bad address or message (65, 67, 68, 77) permanent, anything else temporary.
CSendmailResult SubmitBySendmail(const std::string& from, const std::vector<std::string>& recipients,
                                 std::string_view message, const char* program = kSendmailProgram);

}  // namespace velmar::mapi
