#include "mapi/provider/QueueNotice.h"

#include <atomic>

namespace velmar::mapi {
namespace {

std::atomic<QueuedListener> g_listener{nullptr};

}  // namespace

void SetQueuedListener(QueuedListener listener) {
    g_listener.store(listener);
}

void NotifyQueued() {
    if (const QueuedListener listener = g_listener.load()) listener();
}

}  // namespace velmar::mapi
