// While it lives, a write to a pipe or socket whose reader is gone fails with EPIPE instead of ending the
// process: SIGPIPE is blocked on this thread, and one that the writes raised is taken before the mask comes
// back. For writes to other programs and servers, whatever the process does with the signal.
#pragma once

#include <pthread.h>
#include <signal.h>

#include <ctime>

namespace velmar {

class CPipeSignalGuard {
public:
    CPipeSignalGuard() {
        sigemptyset(&m_pipe);
        sigaddset(&m_pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &m_pipe, &m_previous);
        sigset_t pending;
        sigpending(&pending);
        m_pendingBefore = sigismember(&pending, SIGPIPE) == 1;
    }
    ~CPipeSignalGuard() {
        sigset_t pending;
        sigpending(&pending);
        if (!m_pendingBefore && sigismember(&pending, SIGPIPE) == 1) {
            const timespec now{};
            sigtimedwait(&m_pipe, nullptr, &now);
        }
        pthread_sigmask(SIG_SETMASK, &m_previous, nullptr);
    }
    CPipeSignalGuard(const CPipeSignalGuard&) = delete;
    CPipeSignalGuard& operator=(const CPipeSignalGuard&) = delete;

private:
    sigset_t m_pipe;
    sigset_t m_previous;
    bool m_pendingBefore = false;
};

}  // namespace velmar
