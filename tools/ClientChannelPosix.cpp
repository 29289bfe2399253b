#include <unistd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "support/FramedSocket.h"
#include "support/ServiceChannel.h"
#include "tools/ClientChannel.h"

namespace velmar::tools {
namespace {

class CSocketChannel : public IClientChannel {
public:
    explicit CSocketChannel(int fd) : m_socket(fd) {}

    bool Send(const std::string& request) override { return m_socket.Send(request); }
    bool Receive(std::string& reply, int timeoutMilliseconds) override {
        return m_socket.Receive(reply, kMaxReplyBytes, timeoutMilliseconds) ==
               velmar::CFramedSocket::Received::Message;
    }

private:
    velmar::CFramedSocket m_socket;
};

}  // namespace

std::unique_ptr<IClientChannel> ConnectToService(std::string& error) {
    const std::string path = ServiceSocketPath();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        error = "no usable socket path: '" + path + "'";
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
