#include "mapi/provider/Maildir.h"

#include <fcntl.h>
#include <unistd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "support/FileDescriptor.h"
#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

// Makes the store's path or one of its parents, following links as the configured path does.
bool MakeFolder(const std::string& path) {
    if (mkdir(path.c_str(), 0700) == 0) return true;
    struct stat info {};
    return errno == EEXIST && stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// Makes the folder name in the open folder parent where missing and opens it as sub, never through a
// link. A link standing there is left alone (sub stays closed); false when the folder cannot be made or
// something other than a folder or a link stands there.
bool MakeSubfolder(int parent, const char* name, CFileDescriptor& sub) {
    if (mkdirat(parent, name, 0700) != 0 && errno != EEXIST) return false;
    sub = CFileDescriptor(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (sub.get() >= 0) return true;
    struct stat info {};
    return fstatat(parent, name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(info.st_mode);
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

bool EnsureMaildir(const std::string& storePath, std::string_view folderName) {
    // The parents of a store may be missing on first use (the embedded default store).
    for (size_t slash = storePath.find('/', 1); slash != std::string::npos;
         slash = storePath.find('/', slash + 1))
        if (!MakeFolder(storePath.substr(0, slash))) return false;
    if (!MakeFolder(storePath)) return false;
    CFileDescriptor folder(open(storePath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.get() < 0) return false;
    if (!folderName.empty()) {
        CFileDescriptor store = std::move(folder);
        if (!MakeSubfolder(store.get(), std::string(folderName).c_str(), folder)) return false;
        if (folder.get() < 0) return true;
    }
    for (const char* sub : {"cur", "new", "tmp"}) {
        CFileDescriptor made;
        if (!MakeSubfolder(folder.get(), sub, made)) return false;
    }
    return true;
}

int OpenMaildirFolder(const std::string& folderPath, std::string_view folderName) {
    const int noFollow = folderName.empty() ? 0 : O_NOFOLLOW;
    return open(folderPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | noFollow);
}

int OpenMaildirSubfolder(int folderFd, const char* sub) {
    return openat(folderFd, sub, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

int RenameWithoutReplacing(const std::string& from, const std::string& to) {
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL && errno != ENOSYS) return errno;
    // A file system without RENAME_NOREPLACE (some network and FUSE ones): link() refuses a taken name too.
    // Until the old name goes the file has two names, which the index takes for one message.
    if (link(from.c_str(), to.c_str()) != 0) return errno;
    if (unlink(from.c_str()) != 0 && errno != ENOENT) {
        const int error = errno;
        unlink(to.c_str());  // the name just made, so that the file keeps the one it had
        return error;
    }
    return 0;
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
