#include "mapi/oauth/RefreshTokens.h"

#include <fcntl.h>
#include <unistd.h>
#include <sys/stat.h>

#include <libsecret/secret.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "mapi/provider/Profiles.h"
#include "support/FileDescriptor.h"

namespace velmar::mapi {
namespace {

constexpr size_t kMaxTokenBytes = 16 * 1024;

// The refresh tokens in the Secret Service: one item per account, found by its key.
const SecretSchema* TokenSchema() {
    static const SecretSchema schema = [] {
        SecretSchema made{};
        made.name = "de.velmar.TaskScheduler.RefreshToken";
        made.flags = SECRET_SCHEMA_NONE;
        made.attributes[0] = {"account", SECRET_SCHEMA_ATTRIBUTE_STRING};
        return made;
    }();
    return &schema;
}

// Without a session bus there is no Secret Service to ask, and asking would only wait.
bool SessionBus() {
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    return address && *address;
}

std::optional<std::string> LoadFromSecretService(const std::string& key) {
    if (!SessionBus()) return std::nullopt;
    GError* error = nullptr;
    gchar* found =
        secret_password_lookup_sync(TokenSchema(), nullptr, &error, "account", key.c_str(), nullptr);
    if (error) g_error_free(error);
    if (!found) return std::nullopt;
    std::string token = found;
    secret_password_free(found);
    return token;
}

bool SaveToSecretService(const std::string& key, const std::string& token) {
    if (!SessionBus()) return false;
    GError* error = nullptr;
    const std::string label = "VelmarTaskScheduler OAuth2 " + key;
    const gboolean stored =
        secret_password_store_sync(TokenSchema(), SECRET_COLLECTION_DEFAULT, label.c_str(), token.c_str(),
                                   nullptr, &error, "account", key.c_str(), nullptr);
    if (error) g_error_free(error);
    return stored;
}

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
    if (std::optional<std::string> kept = LoadFromSecretService(key)) return kept;
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
    const std::string path = TokenFolder() + "/" + key;
    if (SaveToSecretService(key, token)) {
        // An older copy in a file would outlive the one the user can see and remove in the keyring.
        unlink(path.c_str());
        return true;
    }
    if (!PrivateFolder(error)) return false;
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
