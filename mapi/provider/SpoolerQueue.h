// What the message store tells whoever delivers its queue (the spooler, mapi/spool/): a message was queued
// in an Outbox. Declared here, so the store points at no layer above it.
#pragma once

namespace velmar::mapi {

// Makes the spooler look at its queues now (a no-op before any session logged on).
void WakeSpooler();

}  // namespace velmar::mapi
