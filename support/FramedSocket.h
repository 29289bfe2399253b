// A connected stream socket on which every message ends with one zero byte: how requests and replies
// travel over the POSIX channel, since a stream has no message boundaries of its own.
#pragma once

#include <string>
#include <string_view>

namespace velmar {

class CFramedSocket {
public:
    enum class Received { Message, Closed, TooLong, TimedOut, Failed };

    explicit CFramedSocket(int fd) : m_fd(fd) {}  // takes over fd
    ~CFramedSocket();
    CFramedSocket(const CFramedSocket&) = delete;
    CFramedSocket& operator=(const CFramedSocket&) = delete;

    int Descriptor() const { return m_fd; }
    // Sends text and its zero byte; on false, errno says why (ETIMEDOUT when the peer took nothing for
    // timeoutMilliseconds; < 0 waits for ever).
    bool Send(std::string_view text, int timeoutMilliseconds = -1);
    // The next message without its zero byte. Messages may arrive several in one read or one over several;
    // a message that takes more than maxBytes with its zero byte is TooLong (and the connection is no use
    // after it). timeoutMilliseconds < 0 waits for ever. On Failed, errno says why.
    Received Receive(std::string& message, size_t maxBytes, int timeoutMilliseconds);

private:
    int m_fd;
    std::string m_pending;  // bytes read past the last message
    size_t m_searched = 0;  // how much of m_pending is known to hold no zero byte
};

}  // namespace velmar
