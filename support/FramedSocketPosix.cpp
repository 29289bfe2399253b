#include <poll.h>
#include <unistd.h>
#include <sys/socket.h>

#include <cerrno>

#include "support/FramedSocket.h"

namespace velmar {

CFramedSocket::~CFramedSocket() {
    close(m_fd);
}

bool CFramedSocket::Send(std::string_view text, int timeoutMilliseconds) {
    std::string message(text);
    message.push_back('\0');
    size_t done = 0;
    while (done < message.size()) {
        if (timeoutMilliseconds >= 0) {
            pollfd ready{m_fd, POLLOUT, 0};
            const int polled = poll(&ready, 1, timeoutMilliseconds);
            if (polled < 0 && errno == EINTR) continue;
            if (polled == 0) errno = ETIMEDOUT;
            if (polled <= 0) return false;
        }
        const int flags = MSG_NOSIGNAL | (timeoutMilliseconds >= 0 ? MSG_DONTWAIT : 0);
        const ssize_t put = send(m_fd, message.data() + done, message.size() - done, flags);
        if (put < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (put <= 0) return false;
        done += static_cast<size_t>(put);
    }
    return true;
}

CFramedSocket::Received CFramedSocket::Receive(std::string& message, size_t maxBytes,
                                               int timeoutMilliseconds) {
    for (;;) {
        const size_t end = m_pending.find('\0', m_searched);
        if (end != std::string::npos) {
            // Judged by the message's own length, also when its zero byte came in the same read.
            if (end >= maxBytes) return Received::TooLong;
            message.assign(m_pending, 0, end);
            m_pending.erase(0, end + 1);
            m_searched = 0;
            return Received::Message;
        }
        m_searched = m_pending.size();
        if (m_pending.size() >= maxBytes) return Received::TooLong;
        if (timeoutMilliseconds >= 0) {
            pollfd ready{m_fd, POLLIN, 0};
            const int polled = poll(&ready, 1, timeoutMilliseconds);
            if (polled < 0 && errno == EINTR) continue;
            if (polled == 0) return Received::TimedOut;
            if (polled < 0) return Received::Failed;
        }
        char buffer[64 * 1024];
        const ssize_t got = read(m_fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return Received::Failed;
        if (got == 0) return Received::Closed;
        m_pending.append(buffer, static_cast<size_t>(got));
    }
}

}  // namespace velmar
