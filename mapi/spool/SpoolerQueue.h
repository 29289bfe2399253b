// What the message store tells the spooler: a message was queued in an Outbox.
#pragma once

namespace velmar::mapi {

// Makes the spooler look at its queues now (a no-op before any session logged on).
void WakeSpooler();

}  // namespace velmar::mapi
