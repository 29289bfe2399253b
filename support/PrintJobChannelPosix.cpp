#include <unistd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "support/FramedSocket.h"
#include "support/PrintJobChannel.h"
#include "support/ServiceChannel.h"
#include "support/Utf8.h"

namespace velmar {
namespace {

// A window that has the job in its list answers at once; one that does not answer in this time is stuck.
constexpr int kAnswerTimeoutMilliseconds = 10000;

}  // namespace

std::string PrintJobSocketPath() {
    const std::string requests = ServiceSocketPath();
    return requests.empty() ? std::string() : requests + ".print";
}

EHandOver HandPrintJobToWindow(const std::vector<std::wstring>& job, std::wstring& error) {
    const std::string path = PrintJobSocketPath();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) return EHandOver::NoWindow;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = L"socket: " + Utf8ToWide(std::strerror(errno));
        return EHandOver::Failed;
    }
    CFramedSocket channel(fd);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        // Nobody listens there: no window runs (a headless service has no printing of its own).
        if (errno == ENOENT || errno == ECONNREFUSED) return EHandOver::NoWindow;
        error = L"connect " + Utf8ToWide(path) + L": " + Utf8ToWide(std::strerror(errno));
        return EHandOver::Failed;
    }
    std::string answer;
    if (!channel.Send(EncodePrintJob(job), kAnswerTimeoutMilliseconds) ||
        channel.Receive(answer, 64, kAnswerTimeoutMilliseconds) != CFramedSocket::Received::Message) {
        error = L"Das Fenster von VelmarTaskScheduler antwortet nicht (" + Utf8ToWide(path) + L")";
        return EHandOver::Failed;
    }
    if (answer != kPrintJobAccepted) {
        error = L"Das Fenster von VelmarTaskScheduler hat den Druckauftrag abgelehnt";
        return EHandOver::Failed;
    }
    return EHandOver::Handed;
}

}  // namespace velmar
