#include <pthread.h>
#include <signal.h>

#include <thread>

#include "app/StopSignals.h"

namespace {

sigset_t StopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

}  // namespace

void BlockStopSignals() {
    // A reader of standard output that goes away must not end the program: the write just fails.
    signal(SIGPIPE, SIG_IGN);
    const sigset_t signals = StopSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void WatchStopSignals(velmar::service::IMainWindow& window) {
    std::thread([signals = StopSignals(), &window] {
        int received = 0;
        sigwait(&signals, &received);
        window.PostClose();
    }).detach();
}
