// Sockets of the benchmarks: a raw client connection and a raw echo server on a Unix-domain socket, the
// floor that the service's round trips are measured against.
#pragma once

#include <unistd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <string>

#include <thread>
#include <vector>
#include "support/FramedSocket.h"

namespace velmar::bench {

inline sockaddr_un AddressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

// One request to the service and its reply; the reply, or empty on failure.
inline std::string Ask(velmar::CFramedSocket& socket, const std::string& request) {
    std::string reply;
    if (!socket.Send(request) ||
        socket.Receive(reply, size_t{1} << 30, 60000) != velmar::CFramedSocket::Received::Message)
        return {};
    return reply;
}

inline int Connect(const std::string& path) {
    const sockaddr_un address = AddressOf(path);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
    close(fd);
    return -1;
}

// A raw echo: a thread per connection that sends back every byte it reads, as a service that does nothing
// would answer.
class CEchoServer {
public:
    explicit CEchoServer(const std::string& path)
        : m_listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = AddressOf(path);
        m_bReady = bind(m_listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                   listen(m_listener, SOMAXCONN) == 0;
        if (m_bReady) m_acceptor = std::thread([this] { AcceptLoop(); });
    }
    ~CEchoServer() {
        shutdown(m_listener, SHUT_RDWR);
        if (m_acceptor.joinable()) m_acceptor.join();
        close(m_listener);
        for (std::thread& connection : m_connections) connection.join();
    }
    bool Ready() const { return m_bReady; }

private:
    void AcceptLoop() {
        for (;;) {
            const int fd = accept(m_listener, nullptr, nullptr);
            if (fd < 0) return;
            m_connections.emplace_back([fd] {
                char buffer[4096];
                for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) > 0;)
                    if (send(fd, buffer, static_cast<size_t>(got), MSG_NOSIGNAL) != got) break;
                close(fd);
            });
        }
    }

    int m_listener;
    bool m_bReady = false;
    std::thread m_acceptor;
    std::vector<std::thread> m_connections;
};

}  // namespace velmar::bench
