#include <poll.h>
#include <unistd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tools/ClientChannel.h"

namespace velmar::tools {
namespace {

// The service's socket: $VELMAR_PIPE, else in $XDG_RUNTIME_DIR, else in the user's private folder in /tmp.
std::string SocketPath() {
    if (const char* named = std::getenv("VELMAR_PIPE"); named && *named) return named;
    if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime)
        return std::string(runtime) + "/velmartaskschedulernamedpipe";
    return "/tmp/velmar-" + std::to_string(getuid()) + "/velmartaskschedulernamedpipe";
}

class CSocketChannel : public IClientChannel {
public:
    explicit CSocketChannel(int fd) : m_fd(fd) {}
    ~CSocketChannel() override { close(m_fd); }

    bool Send(const std::string& request) override {
        const std::string message = request + '\0';
        size_t done = 0;
        while (done < message.size()) {
            const ssize_t put = send(m_fd, message.data() + done, message.size() - done, MSG_NOSIGNAL);
            if (put < 0 && errno == EINTR) continue;
            if (put <= 0) return false;
            done += static_cast<size_t>(put);
        }
        return true;
    }

    bool Receive(std::string& reply, int timeoutMilliseconds) override {
        for (;;) {
            const size_t end = m_pending.find('\0');
            if (end != std::string::npos) {
                reply = m_pending.substr(0, end);
                m_pending.erase(0, end + 1);
                return true;
            }
            pollfd ready{m_fd, POLLIN, 0};
            const int polled = poll(&ready, 1, timeoutMilliseconds);
            if (polled < 0 && errno == EINTR) continue;
            if (polled <= 0) return false;
            char buffer[64 * 1024];
            const ssize_t got = read(m_fd, buffer, sizeof buffer);
            if (got <= 0) return false;
            m_pending.append(buffer, static_cast<size_t>(got));
        }
    }

private:
    int m_fd;
    std::string m_pending;
};

}  // namespace

std::unique_ptr<IClientChannel> ConnectToService(std::string& error) {
    const std::string path = SocketPath();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        error = "socket path too long: " + path;
        return nullptr;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        error = "cannot connect to " + path + ": " + std::strerror(errno);
        if (fd >= 0) close(fd);
        return nullptr;
    }
    return std::make_unique<CSocketChannel>(fd);
}

}  // namespace velmar::tools
