#include <windows.h>
#include <objbase.h>

#include <atomic>
#include <cwchar>
#include <filesystem>
#include <mutex>

#include "mail/ExportFolder.h"
#include "support/ComPtr.h"

namespace velmar::mail {

const wchar_t kFolderSeparator = L'\\';
namespace {

// A file name takes at most this many UTF-16 units.
constexpr size_t kMaxNameUnits = 255;

bool IsRealFolder(const std::wstring& path) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) &&
           !(attributes & FILE_ATTRIBUTE_REPARSE_POINT);
}

}  // namespace

std::wstring TemporaryFolder() {
    wchar_t folder[MAX_PATH + 1] = {};
    const DWORD length = GetTempPathW(MAX_PATH + 1, folder);
    // Never a relative path: without a temporary folder the Windows folder's Temp stands in.
    if (length == 0 || length > MAX_PATH) return L"C:\\Windows\\Temp\\";
    return folder;
}

std::wstring AppendExportFolderName(const std::wstring& folder) {
    return folder + L"Velmar\\";
}

bool IsFolder(const std::wstring& path) {
    return IsRealFolder(path);
}

bool MakeFolder(const std::wstring& path) {
    return _wmkdir(path.c_str()) == 0;
}

std::wstring PrivateExportFolder() {
    static std::mutex lock;
    static std::wstring folder;
    std::lock_guard guard(lock);
    if (folder.empty() || !IsRealFolder(folder)) {
        for (unsigned attempt = 0; attempt < 100 && (folder.empty() || !IsRealFolder(folder)); ++attempt) {
            const std::wstring candidate = TemporaryFolder() + L"Velmar-" +
                                           std::to_wstring(GetCurrentProcessId()) + L"-" +
                                           std::to_wstring(attempt) + L"\\";
            if (CreateDirectoryW(candidate.c_str(), nullptr)) folder = candidate;
        }
    }
    return folder;
}

CRequestFolder::CRequestFolder() {
    static std::atomic<unsigned> counter{0};
    const std::wstring exports = AppendExportFolderName(TemporaryFolder());
    const std::wstring base = IsRealFolder(exports) || MakeFolder(exports) ? exports : PrivateExportFolder();
    if (base.empty()) return;
    for (unsigned attempt = 0; attempt < 100 && m_path.empty(); ++attempt) {
        const std::wstring candidate = base + L"request-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                                       std::to_wstring(counter++) + L"\\";
        if (CreateDirectoryW(candidate.c_str(), nullptr)) m_path = candidate;
    }
}

CRequestFolder::~CRequestFolder() {
    if (m_path.empty()) return;
    std::error_code ignored;
    std::filesystem::remove_all(std::filesystem::path(m_path), ignored);
}

std::wstring FitFileName(const std::wstring& name) {
    if (name.size() <= kMaxNameUnits) return name;
    std::wstring fitted = name.substr(0, kMaxNameUnits);
    // Never half a surrogate pair.
    if (!fitted.empty() && fitted.back() >= 0xD800 && fitted.back() <= 0xDBFF) fitted.pop_back();
    return fitted;
}

std::wstring TemporaryFilePath(const std::wstring& path) {
    static std::atomic<unsigned> counter{0};
    const std::wstring folder = path.substr(0, path.find_last_of(L"\\/") + 1);
    return folder + L".velmar-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
           std::to_wstring(GetTickCount64()) + L"-" + std::to_wstring(counter++) + L".part";
}

bool ReplaceWithFile(const std::wstring& temporaryPath, const std::wstring& path) {
    if (MoveFileExW(temporaryPath.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING)) return true;
    DeleteFileW(temporaryPath.c_str());
    return false;
}

void RemoveFile(const std::wstring& path) {
    DeleteFileW(path.c_str());
}

bool CopyStorageToFile(LPSTORAGE storage, const std::wstring& path) {
    CComPtr<IStorage> file;
    if (FAILED(
            StgCreateDocfile(path.c_str(), STGM_TRANSACTED | STGM_CREATE | STGM_READWRITE, 0, file.Put())) ||
        !file)
        return false;
    storage->CopyTo(0, nullptr, nullptr, file.get());
    file->Commit(STGC_DEFAULT);
    return true;
}

}  // namespace velmar::mail
