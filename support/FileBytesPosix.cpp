#include <fcntl.h>
#include <unistd.h>
#include <sys/stat.h>

#include <cerrno>

#include "support/FileBytes.h"
#include "support/Utf8.h"

namespace velmar {
namespace {

class CFileDescriptor {
public:
    explicit CFileDescriptor(int fd) : m_fd(fd) {}
    ~CFileDescriptor() {
        if (m_fd >= 0) close(m_fd);
    }
    CFileDescriptor(const CFileDescriptor&) = delete;
    CFileDescriptor& operator=(const CFileDescriptor&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

}  // namespace

std::optional<std::string> ReadFileBytes(const std::wstring& path, std::size_t maxBytes) {
    const CFileDescriptor file(open(WideToUtf8(path).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.get() < 0) return std::nullopt;
    struct stat info {};
    if (fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
    if (static_cast<unsigned long long>(info.st_size) > maxBytes) return std::nullopt;
    std::string bytes;
    char buffer[64 * 1024];
    for (;;) {
        const ssize_t got = read(file.get(), buffer, sizeof buffer);
        if (got == 0) break;
        if (got < 0) {
            if (errno == EINTR) continue;
            return std::nullopt;
        }
        if (bytes.size() + static_cast<size_t>(got) > maxBytes) return std::nullopt;
        bytes.append(buffer, static_cast<size_t>(got));
    }
    return bytes;
}

bool WriteStandardOutput(const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t put = write(STDOUT_FILENO, text.data() + done, text.size() - done);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return false;
        done += static_cast<size_t>(put);
    }
    return true;
}

}  // namespace velmar
