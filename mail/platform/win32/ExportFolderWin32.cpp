#include <windows.h>
#include <objbase.h>

#include <cwchar>

#include "mail/ExportFolder.h"

namespace velmar::mail {

std::wstring TemporaryFolder() {
    wchar_t folder[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, folder);
    return folder;
}

std::wstring AppendExportFolderName(const std::wstring& folder) {
    return folder + L"Velmar\\";
}

bool IsFolder(const std::wstring& path) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

bool MakeFolder(const std::wstring& path) {
    return _wmkdir(path.c_str()) == 0;
}

bool CopyStorageToFile(LPSTORAGE storage, const std::wstring& path) {
    IStorage* file = nullptr;
    if (FAILED(StgCreateDocfile(path.c_str(), STGM_TRANSACTED | STGM_CREATE | STGM_READWRITE, 0, &file)) ||
        !file)
        return false;
    storage->CopyTo(0, nullptr, nullptr, file);
    file->Commit(STGC_DEFAULT);
    file->Release();
    return true;
}

}  // namespace velmar::mail
