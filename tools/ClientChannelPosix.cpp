#include <unistd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "support/FramedSocket.h"
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
    explicit CSocketChannel(int fd) : m_socket(fd) {}

    bool Send(const std::string& request) override { return m_socket.Send(request); }
    bool Receive(std::string& reply, int timeoutMilliseconds) override {
        // A reply is never larger than a request may be; anything longer is no reply of the service.
        return m_socket.Receive(reply, 1000000, timeoutMilliseconds) ==
               velmar::CFramedSocket::Received::Message;
    }

private:
    velmar::CFramedSocket m_socket;
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
