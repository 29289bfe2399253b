// One queued message of a store's Outbox taken through delivery: local recipients into their stores'
// inboxes, the others by SMTP or sendmail, a delivery report for recipients refused for good, the sent copy
// filed, and the queue file removed last. Which recipients were served is kept beside the queue (in the
// Outbox's "spool" folder), so a message tried again goes only to those still waiting.
#pragma once

#include <string>

#include "mapi/provider/Profiles.h"

namespace velmar::mapi {

enum class QueueOutcome {
    Done,     // delivered (or reported) to every recipient, filed, out of the queue
    Waiting,  // some recipients wait for another try; problem says why
    Busy,     // another process delivers it now
};

QueueOutcome DeliverQueuedFile(const CProfile& profile, const CStoreConfig& store, const std::string& path,
                               const std::string& key, std::string& problem);

}  // namespace velmar::mapi
