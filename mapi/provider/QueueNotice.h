// What the message store tells whoever delivers its queues: a message was queued in an Outbox. The session
// installs the listener (the spooler's wake-up), so the store points at no layer above it.
#pragma once

namespace velmar::mapi {

using QueuedListener = void (*)();

// From now on NotifyQueued calls listener (null: nobody).
void SetQueuedListener(QueuedListener listener);
// A message was queued; a no-op while nobody listens.
void NotifyQueued();

}  // namespace velmar::mapi
