#include "mapi/provider/Maildir.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

bool MakeFolder(const std::string& path) {
    if (mkdir(path.c_str(), 0700) == 0) return true;
    struct stat info {};
    return errno == EEXIST && stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

bool IsValidFolderName(std::string_view name) {
    if (name.empty()) return true;
    if (name.front() != '.' || name.size() < 2 || name == ".." || name.find('/') != name.npos ||
        name.find('\0') != name.npos)
        return false;
    return name.substr(1) != "." && name.substr(1) != "..";
}

std::string FolderPath(const std::string& storePath, std::string_view folderName) {
    return folderName.empty() ? storePath : storePath + "/" + std::string(folderName);
}

bool EnsureMaildir(const std::string& folderPath) {
    // The parents of a store folder may be missing on first use (the embedded default store).
    for (size_t slash = folderPath.find('/', 1); slash != std::string::npos;
         slash = folderPath.find('/', slash + 1))
        if (!MakeFolder(folderPath.substr(0, slash))) return false;
    return MakeFolder(folderPath) && MakeFolder(folderPath + "/cur") && MakeFolder(folderPath + "/new") &&
           MakeFolder(folderPath + "/tmp");
}

std::wstring FolderDisplayName(std::string_view folderName) {
    if (folderName.empty()) return L"Posteingang";
    return Utf8ToWide(folderName.substr(1));
}

CMaildirName SplitMaildirName(std::string_view fileName) {
    const size_t info = MaildirKey(fileName).size();
    if (info == fileName.size()) return {std::string(fileName), {}, ':'};
    std::string flags(fileName.substr(info + 3));
    std::sort(flags.begin(), flags.end());
    return {std::string(fileName.substr(0, info)), flags, fileName[info]};
}

std::string_view MaildirKey(std::string_view fileName) {
    size_t info = fileName.rfind(":2,");
    if (info == std::string_view::npos) info = fileName.rfind(";2,");
    return info == std::string_view::npos ? fileName : fileName.substr(0, info);
}

std::string JoinMaildirName(const CMaildirName& name) {
    return name.key + name.separator + "2," + name.flags;
}

}  // namespace velmar::mapi
