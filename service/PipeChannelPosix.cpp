// The POSIX channel: a Unix-domain stream socket at ServiceSocketPath(), framed by zero bytes.
// The socket is for its owner only (mode 0600, and peers of another user id are refused).
#include <fcntl.h>
#include <unistd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <thread>

#include "service/PipeChannel.h"
#include "support/ErrorText.h"
#include "support/FramedSocket.h"
#include "support/ServiceChannel.h"
#include "support/Utf8.h"

namespace velmar::service {
namespace {

// A client that takes no more of its reply for this long loses the connection: it holds a thread.
constexpr int kReplyWriteTimeoutMilliseconds = 30000;

std::wstring ErrnoLine(const wchar_t* operation, int error) {
    errno = error;
    return velmar::FormatLastErrorText(operation);
}

class CSocketConnection : public IPipeConnection {
public:
    CSocketConnection(int fd, int readTimeoutMilliseconds)
        : m_socket(fd), m_readTimeoutMilliseconds(readTimeoutMilliseconds) {}

    bool ReadRequest(std::string& request, std::wstring& error) override {
        switch (m_socket.Receive(request, kMaxRequestBytes, m_readTimeoutMilliseconds)) {
            case CFramedSocket::Received::Message:
                return true;
            case CFramedSocket::Received::TooLong:
                error = ErrnoLine(L"ReadFile", EMSGSIZE);
                return false;
            // A peer that closed its end reads as the broken pipe it is on Windows.
            case CFramedSocket::Received::Closed:
                error = ErrnoLine(L"ReadFile", EPIPE);
                return false;
            default:
                error = ErrnoLine(L"ReadFile", errno);
                return false;
        }
    }

    bool WriteReply(const std::string& reply, std::wstring& error) override {
        if (m_socket.Send(reply, kReplyWriteTimeoutMilliseconds)) return true;
        error = ErrnoLine(L"WriteFile", errno);
        return false;
    }

    // The kernel delivers what is still buffered after the close; the client sees the end at once.
    void End() override { shutdown(m_socket.Descriptor(), SHUT_WR); }
    void Interrupt() override { shutdown(m_socket.Descriptor(), SHUT_RDWR); }

private:
    CFramedSocket m_socket;
    const int m_readTimeoutMilliseconds;
};

// True when a running copy answers on the socket.
bool SomeoneListens(const sockaddr_un& address) {
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (probe < 0) return false;
    const bool answered = connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(probe);
    return answered;
}

class CSocketListener : public IPipeListener {
public:
    CSocketListener(int fd, std::string path, int readTimeoutMilliseconds)
        : m_fd(fd), m_path(std::move(path)), m_readTimeoutMilliseconds(readTimeoutMilliseconds) {}
    ~CSocketListener() override {
        Close();
        unlink(m_path.c_str());
    }

    std::unique_ptr<IPipeConnection> Accept(std::wstring& error) override {
        for (;;) {
            int listenFd = -1;
            {
                std::lock_guard lock(m_lock);
                listenFd = m_fd;
            }
            if (listenFd < 0) {
                error.clear();
                return nullptr;
            }
            const int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                // A failed accept is not reported, as a failed connection of the pipe is not. Out of
                // descriptors or memory it would fail again at once, so give the others time to end.
                if (errno == EINTR) continue;
                if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)
                    std::this_thread::sleep_for(std::chrono::milliseconds(100));
                error.clear();
                return nullptr;
            }
            ucred peer{};
            socklen_t size = sizeof peer;
            if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || peer.uid != getuid()) {
                close(fd);
                error =
                    L"Verbindung eines anderen Benutzers abgelehnt (uid " + std::to_wstring(peer.uid) + L")";
                return nullptr;
            }
            return std::make_unique<CSocketConnection>(fd, m_readTimeoutMilliseconds);
        }
    }

    void Close() override {
        std::lock_guard lock(m_lock);
        if (m_fd < 0) return;
        shutdown(m_fd, SHUT_RDWR);  // wakes a thread waiting in accept
        close(m_fd);
        m_fd = -1;
    }

private:
    std::mutex m_lock;
    int m_fd;
    std::string m_path;
    const int m_readTimeoutMilliseconds;
};

}  // namespace

std::unique_ptr<IPipeListener> CreatePipeListener(std::wstring& error) {
    return CreateSocketListener(ServiceSocketPath(), -1, error);
}

std::unique_ptr<IPipeListener> CreateSocketListener(const std::string& path, int readTimeoutMilliseconds,
                                                    std::wstring& error) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        error = L"Kein Ort für den Socket: " + Utf8ToWide(path);
        return nullptr;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    if (SomeoneListens(address)) {
        error = L"Ein anderer VelmarTaskScheduler bedient bereits " + Utf8ToWide(path);
        return nullptr;
    }
    // Only a socket of ours, left by a crashed run, is replaced; anything else at that place stays.
    struct stat existing {};
    if (lstat(path.c_str(), &existing) == 0) {
        if (!S_ISSOCK(existing.st_mode) || existing.st_uid != getuid()) {
            error = L"Am Ort des Sockets liegt schon etwas anderes: " + Utf8ToWide(path);
            return nullptr;
        }
        unlink(path.c_str());
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = ErrnoLine(L"CreateNamedPipe", errno);
        return nullptr;
    }
    const mode_t previous = umask(0177);  // the socket file is made with mode 0600
    const int bound = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    umask(previous);
    if (bound != 0 || listen(fd, SOMAXCONN) != 0) {
        error = ErrnoLine(L"CreateNamedPipe", errno);
        close(fd);
        return nullptr;
    }
    return std::make_unique<CSocketListener>(fd, path, readTimeoutMilliseconds);
}

bool ProcessWorkingSet(unsigned long long& bytes) {
    std::ifstream statm("/proc/self/statm");
    unsigned long long pages = 0;
    unsigned long long resident = 0;
    if (!(statm >> pages >> resident)) return false;
    bytes = resident * static_cast<unsigned long long>(sysconf(_SC_PAGESIZE));
    return true;
}

}  // namespace velmar::service
