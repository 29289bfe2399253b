#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cwctype>

#include "app/IniPlatform.h"
#include "support/FileBytes.h"
#include "support/Utf8.h"

namespace velmar::ini {
namespace {

constexpr size_t kMaxIniFileBytes = 16u * 1024 * 1024;

std::wstring_view Trim(std::wstring_view text) {
    const auto isSpace = [](wchar_t c) {
        return c == L' ' || c == L'\t' || c == L'\r' || c == L'\v' || c == L'\f';
    };
    while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
    return text;
}

// Section and key names compare without regard to case, as the Win32 profile functions compare them.
bool EqualsIgnoringCase(std::wstring_view a, std::wstring_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (std::towlower(static_cast<wint_t>(a[i])) != std::towlower(static_cast<wint_t>(b[i])))
            return false;
    return true;
}

// One pair of matching quotes around a value is dropped, as GetPrivateProfileString does.
std::wstring_view Unquote(std::wstring_view value) {
    if (value.size() >= 2 && (value.front() == L'"' || value.front() == L'\'') &&
        value.back() == value.front())
        return value.substr(1, value.size() - 2);
    return value;
}

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
    const std::wstring text = Utf8ToWide(utf8);

    enum class Where { BeforeSection, InSection, AfterSection } where = Where::BeforeSection;
    size_t lineStart = 0;
    while (lineStart < text.size() && where != Where::AfterSection) {
        size_t lineEnd = text.find(L'\n', lineStart);
        if (lineEnd == std::wstring::npos) lineEnd = text.size();
        const std::wstring_view line = Trim(std::wstring_view(text).substr(lineStart, lineEnd - lineStart));
        lineStart = lineEnd + 1;
        if (line.empty() || line.front() == L';' || line.front() == L'#') continue;
        if (line.front() == L'[') {
            const size_t close = line.find(L']');
            const std::wstring_view name = Trim(line.substr(1, close == line.npos ? line.npos : close - 1));
            // Only the first section of a name counts.
            if (where == Where::InSection)
                where = Where::AfterSection;
            else if (EqualsIgnoringCase(name, section))
                where = Where::InSection;
            continue;
        }
        if (where != Where::InSection) continue;
        const size_t equals = line.find(L'=');
        if (equals == line.npos || !EqualsIgnoringCase(Trim(line.substr(0, equals)), key)) continue;
        const std::wstring_view value = Unquote(Trim(line.substr(equals + 1)));
        return std::wstring(value.substr(0, kMaxValueLength));
    }
    return std::nullopt;
}

}  // namespace velmar::ini
