#include <windows.h>
#include <shlobj.h>
#include <shlwapi.h>

#include <cstdio>

#include "support/IniPlatform.h"

namespace velmar::ini {
namespace {

// Passed as the default so that a key present with an empty value is told apart from a missing one.
constexpr wchar_t kSentinel[] = L"-1XXXX+1-1+1-1+1-1DUMMYDEFAULTVALUE-1XXXX+1-1+1-1+1-1";

}  // namespace

const wchar_t kPathSeparator = L'\\';

std::wstring ExecutableDirectory() {
    wchar_t path[MAX_PATH] = {};
    if (GetModuleFileNameW(nullptr, path, MAX_PATH) == 0) return {};
    PathRemoveFileSpecW(path);
    return path;
}

std::wstring CommonConfigDirectory() {
    wchar_t path[MAX_PATH] = {};
    if (FAILED(SHGetFolderPathW(nullptr, CSIDL_COMMON_APPDATA, nullptr, 0, path))) return {};
    return path;
}

std::wstring FileNamePart(const std::wstring& path) {
    return PathFindFileNameW(path.c_str());
}

bool CanOpenForReading(const std::wstring& path) {
    FILE* file = _wfopen(path.c_str(), L"r");
    if (!file) return false;
    std::fclose(file);
    return true;
}

std::optional<std::wstring> ReadProfileValue(const std::wstring& file, const std::wstring& section,
                                             const std::wstring& key) {
    wchar_t value[kMaxValueLength + 1] = {};
    GetPrivateProfileStringW(section.c_str(), key.c_str(), kSentinel, value, kMaxValueLength + 1,
                             file.c_str());
    if (std::wcscmp(value, kSentinel) == 0) return std::nullopt;
    return std::wstring(value);
}

}  // namespace velmar::ini
