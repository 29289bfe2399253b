// An open POSIX file descriptor, closed when it goes (move-only).
#pragma once

#include <unistd.h>

#include <utility>

namespace velmar {

class CFileDescriptor {
public:
    explicit CFileDescriptor(int fd = -1) : m_fd(fd) {}
    CFileDescriptor(CFileDescriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    CFileDescriptor& operator=(CFileDescriptor&& other) noexcept {
        if (this != &other) {
            Reset();
            m_fd = std::exchange(other.m_fd, -1);
        }
        return *this;
    }
    CFileDescriptor(const CFileDescriptor&) = delete;
    CFileDescriptor& operator=(const CFileDescriptor&) = delete;
    ~CFileDescriptor() { Reset(); }

    int get() const { return m_fd; }
    // Hands the descriptor over to the caller, who closes it.
    int Detach() { return std::exchange(m_fd, -1); }
    void Reset() {
        if (m_fd >= 0) close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd;
};

}  // namespace velmar
