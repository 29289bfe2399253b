// A message in the Outbox queue as the spooler reads it: the envelope out of its header fields, and the
// bytes that leave (without Bcc and the spooler's own field) in the line ends of SMTP.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace velmar::mapi {

struct CQueuedMessage {
    std::string from;                     // the envelope sender: the From address (or Sender's)
    std::vector<std::string> recipients;  // every To, Cc and Bcc address, each once, in that order
    std::string subject;                  // decoded, UTF-8
    std::string messageId;                // as the field stands, angle brackets and all
    std::string sentFolder;               // the folder the sent message is filed in; empty: the store's own
};

CQueuedMessage ReadQueuedMessage(std::string_view bytes);

// The message without the header fields of those names (any letter case), continuation lines and all.
std::string WithoutFields(std::string_view bytes, std::initializer_list<std::string_view> names);

// Every line end as CR LF.
std::string ToCrlf(std::string_view bytes);

// Whether two addresses are the same mailbox: the domain compared without letter case, the local part
// exactly, as RFC 5321 says.
bool SameAddress(std::string_view a, std::string_view b);

}  // namespace velmar::mapi
