#include <fcntl.h>
#include <unistd.h>
#include <sys/stat.h>

#include <climits>
#include <cstdlib>

#include "support/FileBytes.h"
#include "support/IniPlatform.h"
#include "support/IniText.h"
#include "support/Utf8.h"

namespace velmar::ini {
namespace {

constexpr size_t kMaxIniFileBytes = 16u * 1024 * 1024;

}  // namespace

const wchar_t kPathSeparator = L'/';

std::wstring ExecutableDirectory() {
    char buffer[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (length <= 0) return {};
    const std::string path(buffer, static_cast<size_t>(length));
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return {};
    return Utf8ToWide(path.substr(0, slash == 0 ? 1 : slash));
}

std::wstring CommonConfigDirectory() {
    const char* dirs = std::getenv("XDG_CONFIG_DIRS");
    std::string first = dirs ? std::string(dirs).substr(0, std::string(dirs).find(':')) : std::string();
    // The XDG rules ignore relative entries.
    if (first.empty() || first.front() != '/') first = "/etc/xdg";
    return Utf8ToWide(first);
}

std::wstring FileNamePart(const std::wstring& path) {
    const size_t slash = path.rfind(L'/');
    return slash == std::wstring::npos ? path : path.substr(slash + 1);
}

bool CanOpenForReading(const std::wstring& path) {
    const int fd = open(WideToUtf8(path).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return false;
    struct stat info {};
    const bool isFile = fstat(fd, &info) == 0 && !S_ISDIR(info.st_mode);
    close(fd);
    return isFile;
}

std::optional<std::wstring> ReadProfileValue(const std::wstring& file, const std::wstring& section,
                                             const std::wstring& key) {
    const std::optional<std::string> bytes = ReadFileBytes(file, kMaxIniFileBytes);
    if (!bytes) return std::nullopt;
    std::string_view utf8 = *bytes;
    if (utf8.starts_with("\xEF\xBB\xBF")) utf8.remove_prefix(3);
    // Only the first section of a name counts, and in it the first entry of the key.
    for (const CIniSection& candidate : ParseIniText(Utf8ToWide(utf8))) {
        if (candidate.name.empty() || !IniNamesEqual(candidate.name, section)) continue;
        for (const CIniEntry& entry : candidate.entries)
            if (IniNamesEqual(entry.key, key)) return entry.value.substr(0, kMaxValueLength);
        return std::nullopt;
    }
    return std::nullopt;
}

}  // namespace velmar::ini
