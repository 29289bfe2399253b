// One queued message of a store's Outbox taken through delivery: local recipients into their stores'
// inboxes, the others by SMTP or sendmail, a delivery report for recipients refused for good, the sent copy
// filed, and the queue file removed last. Which recipients were served is kept beside the queue (in the
// Outbox's "spool" folder), so a message tried again goes only to those still waiting.
#pragma once

#include <atomic>
#include <string>

#include "mapi/provider/Profiles.h"
#include "mapi/provider/StoreKind.h"

namespace velmar::mapi {

enum class QueueOutcome {
    Done,     // delivered (or reported) to every recipient, filed, out of the queue
    Waiting,  // some recipients wait for another try; problem says why
    Busy,     // another process delivers it now
};

// kinds files into the stores' folders. A set cancel flag ends an SMTP transfer under way (the message stays
// queued).
QueueOutcome DeliverQueuedFile(const IStoreKinds& kinds, const CProfile& profile, const CStoreConfig& store,
                               const std::string& path, const std::string& key,
                               const std::atomic<bool>& cancel, std::string& problem);

}  // namespace velmar::mapi
