// The delivery-status report (RFC 3464) the spooler puts into the sender's inbox for recipients that a
// server refused for good: subject "Unzustellbar: " and the original subject, the server's own words
// quoted, one status block per recipient, and the original message attached.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "mapi/spool/QueuedMessage.h"

namespace velmar::mapi {

struct CFailedRecipient {
    std::string address;
    std::string reply;  // the server's reply, code and words ("550 5.1.1 No such user"), or why else
};

// The report as a message file (LF line ends); original is the message as it was sent.
std::string MakeDeliveryReport(const CQueuedMessage& message, const std::vector<CFailedRecipient>& failed,
                               std::string_view original);

}  // namespace velmar::mapi
