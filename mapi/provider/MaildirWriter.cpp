#include "mapi/provider/MaildirWriter.h"

#include <fcntl.h>
#include <unistd.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <cstdio>

#include "mapi/provider/Maildir.h"
#include "support/FileDescriptor.h"

namespace velmar::mapi {
namespace {

std::atomic<unsigned> g_keyCounter{0};

std::string HostNameForKey() {
    char host[256] = {};
    if (gethostname(host, sizeof host - 1) != 0 || !host[0]) return "localhost";
    // "/" and ":" cannot stand in a Maildir name; they are written as octal escapes, as Maildir tools do.
    std::string name;
    for (const char* c = host; *c; ++c) {
        if (*c == '/')
            name += "\\057";
        else if (*c == ':')
            name += "\\072";
        else
            name += *c;
    }
    return name;
}

int SyncFolder(const std::string& folder) {
    CFileDescriptor fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.get() < 0) return errno;
    return fsync(fd.get()) == 0 ? 0 : errno;
}

int WriteAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = write(fd, bytes.data(), bytes.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        bytes.remove_prefix(static_cast<size_t>(written));
    }
    return 0;
}

std::string FolderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

}  // namespace

std::string NewMaildirKey() {
    static const std::string host = HostNameForKey();
    timeval now{};
    gettimeofday(&now, nullptr);
    return std::to_string(now.tv_sec) + ".M" + std::to_string(now.tv_usec) + "P" + std::to_string(getpid()) +
           "Q" + std::to_string(++g_keyCounter) + "." + host;
}

CWrittenFile WriteMaildirMessage(const std::string& folderPath, std::string_view bytes, bool intoNew,
                                 std::string_view flags) {
    CWrittenFile result;
    result.key = NewMaildirKey();
    const std::string temporary = folderPath + "/tmp/" + result.key;
    {
        CFileDescriptor fd(
            open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (fd.get() < 0) {
            result.error = errno;
            return result;
        }
        result.error = WriteAll(fd.get(), bytes);
        if (result.error == 0 && fsync(fd.get()) != 0) result.error = errno;
        if (result.error == 0 && close(fd.Detach()) != 0) result.error = errno;
    }
    if (result.error != 0) {
        unlink(temporary.c_str());
        return result;
    }
    const bool toNew = intoNew && flags.empty();
    const std::string name = toNew ? result.key : JoinMaildirName({result.key, std::string(flags), ':'});
    result.path = folderPath + (toNew ? "/new/" : "/cur/") + name;
    if ((result.error = RenameWithoutReplacing(temporary, result.path)) == 0)
        result.error = SyncFolder(FolderOf(result.path));
    if (result.error != 0) {
        // The rename may have happened before the sync failed: then the file is there, but not for sure.
        unlink(temporary.c_str());
        if (access(result.path.c_str(), F_OK) == 0) unlink(result.path.c_str());
        result.path.clear();
    }
    return result;
}

int MoveDurably(const std::string& from, const std::string& to) {
    if (const int error = RenameWithoutReplacing(from, to)) return error;
    // The new name first: a crash in between leaves the message in both folders, never in neither.
    SyncFolder(FolderOf(to));
    SyncFolder(FolderOf(from));
    return 0;
}

int ReplaceFile(const std::string& path, std::string_view bytes, bool durable) {
    const std::string temporary = path + ".new-" + NewMaildirKey();
    int error = 0;
    {
        CFileDescriptor fd(
            open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (fd.get() < 0) return errno;
        error = WriteAll(fd.get(), bytes);
        if (error == 0 && durable && fsync(fd.get()) != 0) error = errno;
        if (error == 0 && close(fd.Detach()) != 0) error = errno;
    }
    if (error == 0 && rename(temporary.c_str(), path.c_str()) != 0) error = errno;
    if (error != 0) {
        unlink(temporary.c_str());
        return error;
    }
    return durable ? SyncFolder(FolderOf(path)) : 0;
}

int RemoveDurably(const std::string& path) {
    if (unlink(path.c_str()) != 0) return errno;
    return SyncFolder(FolderOf(path));
}

}  // namespace velmar::mapi
