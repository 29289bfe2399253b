#include <pthread.h>
#include <signal.h>

#include <thread>

#include "app/HeadlessWindow.h"

void WatchStopSignals(CHeadlessWindow& window) {
    // A reader of standard output that goes away must not end the program: the write just fails.
    signal(SIGPIPE, SIG_IGN);
    // Blocked here, before any other thread exists, so that only the watcher receives them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::thread([signals, &window] {
        int received = 0;
        sigwait(&signals, &received);
        window.PostClose();
    }).detach();
}
