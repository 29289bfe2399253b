// A binary semaphore with a timed wait: the service's connection lock. It offers the standard lock names,
// so std::lock_guard takes it. std::timed_mutex would do the same, but its timed wait goes through
// pthread_mutex_clocklock, which ThreadSanitizer does not see, and a lock it cannot see hides real races.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace velmar {

class CBinarySemaphore {
public:
    void lock() {
        std::unique_lock guard(m_lock);
        m_released.wait(guard, [this] { return m_bFree; });
        m_bFree = false;
    }
    template <class Rep, class Period>
    bool try_lock_for(const std::chrono::duration<Rep, Period>& wait) {
        std::unique_lock guard(m_lock);
        if (!m_released.wait_for(guard, wait, [this] { return m_bFree; })) return false;
        m_bFree = false;
        return true;
    }
    void unlock() {
        {
            std::lock_guard guard(m_lock);
            m_bFree = true;
        }
        m_released.notify_one();
    }

private:
    std::mutex m_lock;
    std::condition_variable m_released;
    bool m_bFree = true;
};

}  // namespace velmar
