#include "mapi/oauth/RefreshTokens.h"

#include <fcntl.h>
#include <unistd.h>
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <cstring>

#include "mapi/provider/Profiles.h"
#include "support/FileDescriptor.h"

namespace velmar::mapi {
namespace {

constexpr size_t kMaxTokenBytes = 16 * 1024;

// Keys are ours ("imap-…", "smtp-…"); anything else never names a file.
bool UsableKey(const std::string& key) {
    if (key.empty() || key.size() > 64) return false;
    for (const char c : key)
        if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '-')) return false;
    return true;
}

std::string TokenFolder() {
    return DataFolder() + "/oauth2";
}

// The folder, made private: a folder others can enter is no place for a token.
bool PrivateFolder(std::string& error) {
    const std::string data = DataFolder();
    mkdir(data.substr(0, data.rfind('/')).c_str(), 0700);
    mkdir(data.c_str(), 0700);
    const std::string folder = TokenFolder();
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        error = folder + ": " + std::strerror(errno);
        return false;
    }
    struct stat info {};
    if (lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != geteuid() ||
        (info.st_mode & 077) != 0) {
        error = folder + " ist kein Ordner, den nur dieser Benutzer betreten kann";
        return false;
    }
    return true;
}

}  // namespace

std::optional<std::string> LoadRefreshToken(const std::string& key) {
    if (!UsableKey(key)) return std::nullopt;
    const velmar::CFileDescriptor file(
        open((TokenFolder() + "/" + key).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    struct stat info {};
    if (file.get() < 0 || fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode) ||
        info.st_uid != geteuid() || (info.st_mode & 077) != 0)
        return std::nullopt;
    std::string token(kMaxTokenBytes, '\0');
    const ssize_t got = read(file.get(), token.data(), token.size());
    if (got <= 0) return std::nullopt;
    token.resize(static_cast<size_t>(got));
    while (!token.empty() && (token.back() == '\n' || token.back() == '\r')) token.pop_back();
    return token.empty() ? std::nullopt : std::optional(token);
}

bool SaveRefreshToken(const std::string& key, const std::string& token, std::string& error) {
    if (!UsableKey(key)) {
        error = "kein Name für das Token";
        return false;
    }
    if (!PrivateFolder(error)) return false;
    const std::string path = TokenFolder() + "/" + key;
    const std::string temporary = path + ".new";
    unlink(temporary.c_str());
    velmar::CFileDescriptor file(
        open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    const std::string text = token + "\n";
    if (file.get() < 0 || write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        fsync(file.get()) != 0) {
        error = temporary + ": " + std::strerror(errno);
        unlink(temporary.c_str());
        return false;
    }
    file.Reset();
    if (rename(temporary.c_str(), path.c_str()) != 0) {
        error = path + ": " + std::strerror(errno);
        unlink(temporary.c_str());
        return false;
    }
    return true;
}

}  // namespace velmar::mapi
