#include <unistd.h>
#include <sys/stat.h>

#include <cstdlib>

#include "mail/ExportFolder.h"
#include "support/Utf8.h"

namespace velmar::mail {

std::wstring TemporaryFolder() {
    if (const char* named = std::getenv("TMPDIR"); named && *named == '/') {
        std::string folder = named;
        if (folder.back() != '/') folder += '/';
        return Utf8ToWide(folder);
    }
    // A private folder of our own under /tmp: another user cannot place a link in it.
    const std::string folder = "/tmp/velmar-" + std::to_string(getuid());
    mkdir(folder.c_str(), 0700);
    return IsFolder(Utf8ToWide(folder)) ? Utf8ToWide(folder + "/") : std::wstring();
}

std::wstring AppendExportFolderName(const std::wstring& folder) {
    return folder + L"Velmar/";
}

bool IsFolder(const std::wstring& path) {
    std::string narrow = WideToUtf8(path);
    while (narrow.size() > 1 && narrow.back() == '/') narrow.pop_back();
    struct stat info {};
    // A symbolic link is never taken for the folder, and neither is a folder of somebody else.
    return lstat(narrow.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && info.st_uid == getuid();
}

bool MakeFolder(const std::wstring& path) {
    return mkdir(WideToUtf8(path).c_str(), 0700) == 0;
}

bool CopyStorageToFile(LPSTORAGE, const std::wstring&) {
    return false;
}

}  // namespace velmar::mail
