// Loopback ports for the servers the tests start.
#pragma once

#include <fcntl.h>
#include <unistd.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace velmar::test {

// A TCP port on 127.0.0.1 that nothing listens on now; 0 when none could be had.
inline int FreeLoopbackPort() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return 0;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    int port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0)
        port = ntohs(address.sin_port);
    close(fd);
    return port;
}

// Whether a TCP port on 127.0.0.1 can be had now.
inline bool IsFreeLoopbackPort(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    const bool free = fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    if (fd >= 0) close(fd);
    return free;
}

// A server on 127.0.0.1 that takes connections and never says a word: it listens but never accepts, so a
// client's connection is made and then waits. Stop (or the end of the object) resets every such connection.
// Whether any client came is seen by taking one connection from the waiting ones.
class CSilentLoopbackServer {
public:
    CSilentLoopbackServer() {
        m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        if (m_fd >= 0 && bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
            listen(m_fd, 64) == 0 && fcntl(m_fd, F_SETFL, O_NONBLOCK) == 0 &&
            getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &size) == 0)
            m_port = ntohs(address.sin_port);
    }
    ~CSilentLoopbackServer() { Stop(); }
    CSilentLoopbackServer(const CSilentLoopbackServer&) = delete;
    CSilentLoopbackServer& operator=(const CSilentLoopbackServer&) = delete;

    int Port() const { return m_port; }
    bool SomebodyConnected() {
        if (m_fd < 0) return false;
        const int client = accept4(m_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (client < 0) return false;
        close(client);
        return true;
    }
    void Stop() {
        if (m_fd >= 0) close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd = -1;
    int m_port = 0;
};

}  // namespace velmar::test
