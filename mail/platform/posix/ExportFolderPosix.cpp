#include <fcntl.h>
#include <unistd.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>

#include "mail/ExportFolder.h"
#include "support/PrivateFolder.h"
#include "support/Utf8.h"

namespace velmar::mail {

const wchar_t kFolderSeparator = L'/';
namespace {

// A file name takes at most this many bytes (of UTF-8) on the file systems of Linux.
constexpr size_t kMaxNameBytes = 255;

// A folder made for this process alone under base, once; empty when that fails.
std::string MakeUniqueFolder(const std::string& base) {
    std::string pattern = base + "/velmar-export-XXXXXX";
    if (!mkdtemp(pattern.data())) return {};
    return pattern;
}

}  // namespace

std::wstring TemporaryFolder() {
    if (const char* named = std::getenv("TMPDIR"); named && *named == '/') {
        std::string folder = named;
        if (folder.back() != '/') folder += '/';
        return Utf8ToWide(folder);
    }
    std::string folder = PrivateTempFolder();
    if (folder.empty()) folder = MakeUniqueFolder("/tmp");
    return Utf8ToWide((folder.empty() ? std::string("/tmp") : folder) + "/");
}

std::wstring AppendExportFolderName(const std::wstring& folder) {
    return folder + L"Velmar/";
}

bool IsFolder(const std::wstring& path) {
    return IsPrivateFolder(WideToUtf8(path));
}

bool MakeFolder(const std::wstring& path) {
    return mkdir(WideToUtf8(path).c_str(), 0700) == 0;
}

std::wstring PrivateExportFolder() {
    static std::mutex lock;
    static std::string folder;
    std::lock_guard guard(lock);
    if (folder.empty() || !IsPrivateFolder(folder)) {
        // The runtime folder is the user's own by definition; /tmp's private folder next.
        const char* runtime = std::getenv("XDG_RUNTIME_DIR");
        if (runtime && *runtime == '/' && IsPrivateFolder(runtime)) folder = MakeUniqueFolder(runtime);
        if (folder.empty()) {
            const std::string temp = PrivateTempFolder();
            folder = MakeUniqueFolder(temp.empty() ? "/tmp" : temp);
        }
    }
    return folder.empty() ? std::wstring() : Utf8ToWide(folder + "/");
}

CRequestFolder::CRequestFolder() {
    const std::wstring exports = AppendExportFolderName(TemporaryFolder());
    const std::wstring base = IsFolder(exports) || MakeFolder(exports) ? exports : PrivateExportFolder();
    if (base.empty()) return;
    std::string pattern = WideToUtf8(base) + "request-XXXXXX";
    if (mkdtemp(pattern.data())) m_path = Utf8ToWide(pattern + "/");
}

CRequestFolder::~CRequestFolder() {
    if (m_path.empty()) return;
    std::error_code ignored;
    std::filesystem::remove_all(WideToUtf8(m_path), ignored);
}

std::wstring FitFileName(const std::wstring& name) {
    std::wstring fitted = name;
    while (WideToUtf8(fitted).size() > kMaxNameBytes) fitted.pop_back();
    return fitted;
}

std::wstring TemporaryFilePath(const std::wstring& path) {
    static std::atomic<unsigned> counter{0};
    const std::wstring folder = path.substr(0, path.rfind(L'/') + 1);
    const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
    return folder + L".velmar-" + std::to_wstring(getpid()) + L"-" + std::to_wstring(stamp) + L"-" +
           std::to_wstring(counter++) + L".part";
}

bool ReplaceWithFile(const std::wstring& temporaryPath, const std::wstring& path) {
    const std::string from = WideToUtf8(temporaryPath);
    if (std::rename(from.c_str(), WideToUtf8(path).c_str()) == 0) return true;
    unlink(from.c_str());
    return false;
}

void RemoveFile(const std::wstring& path) {
    unlink(WideToUtf8(path).c_str());
}

bool CopyStorageToFile(LPSTORAGE, const std::wstring&) {
    return false;
}

}  // namespace velmar::mail
