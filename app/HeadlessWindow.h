// The main window's place while the program runs without one: a close request (from the service, or from
// SIGINT/SIGTERM or Ctrl+C) ends the wait of the main thread.
#pragma once

#include <condition_variable>
#include <mutex>

#include "service/RequestService.h"

class CHeadlessWindow : public velmar::service::IMainWindow {
public:
    void PostClose() override {
        std::lock_guard lock(m_lock);
        m_bClosing = true;
        m_closed.notify_all();
    }
    // Returns once a close was posted.
    void WaitForClose() {
        std::unique_lock lock(m_lock);
        m_closed.wait(lock, [this] { return m_bClosing; });
    }

private:
    std::mutex m_lock;
    std::condition_variable m_closed;
    bool m_bClosing = false;
};
