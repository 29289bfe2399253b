#include "mapi/spool/SmtpSettings.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "mapi/provider/FileDescriptor.h"

extern char** environ;

namespace velmar::mapi {
namespace {

constexpr auto kLongestPasswordCommand = std::chrono::seconds(30);
constexpr size_t kMaxCommandOutput = 64 * 1024;

std::string Lower(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return lower;
}

std::string Trimmed(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
    return std::string(text);
}

// The host of "scheme://[user@]host[:port][/...]", without brackets around an IPv6 address.
std::string HostOf(const std::string& url) {
    size_t start = url.find("://");
    start = start == std::string::npos ? 0 : start + 3;
    const size_t end = std::min(url.find('/', start), url.size());
    std::string authority = url.substr(start, end - start);
    if (const size_t at = authority.rfind('@'); at != std::string::npos) authority.erase(0, at + 1);
    if (authority.starts_with("[")) return authority.substr(1, authority.find(']') - 1);
    return authority.substr(0, authority.find(':'));
}

bool IsLoopback(const std::string& host) {
    const std::string lower = Lower(host);
    return lower == "localhost" || lower == "::1" || lower.starts_with("127.");
}

// Runs command with /bin/sh; its output's first line, or nullopt with error set.
std::optional<std::string> FirstLineOf(const std::string& command, std::string& error) {
    int out[2] = {-1, -1};
    if (pipe2(out, O_CLOEXEC) != 0) {
        error = std::string("cannot make a pipe: ") + std::strerror(errno);
        return std::nullopt;
    }
    CFileDescriptor outRead(out[0]), outWrite(out[1]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, outWrite.get(), STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
    pid_t child = -1;
    const int spawned =
        posix_spawn(&child, "/bin/sh", &actions, nullptr, const_cast<char* const*>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    outWrite.Reset();
    if (spawned != 0) {
        error = std::string("cannot run the password command: ") + std::strerror(spawned);
        return std::nullopt;
    }
    std::string output;
    const auto deadline = std::chrono::steady_clock::now() + kLongestPasswordCommand;
    bool timedOut = false;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            timedOut = true;
            break;
        }
        pollfd fd{outRead.get(), POLLIN, 0};
        const int ready = poll(&fd, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) {
            timedOut = ready == 0;
            break;
        }
        char buffer[4096];
        const ssize_t n = read(outRead.get(), buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        if (output.size() < kMaxCommandOutput) output.append(buffer, static_cast<size_t>(n));
    }
    if (timedOut) kill(child, SIGKILL);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (timedOut) {
        error = "the password command took longer than 30 s";
        return std::nullopt;
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        error = "the password command failed";
        return std::nullopt;
    }
    std::string line = output.substr(0, output.find('\n'));
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

}  // namespace

bool ApplySmtpSetting(CSmtpSettings& settings, std::string_view key, std::string_view value) {
    const std::string name = Lower(Trimmed(key));
    const std::string text = Trimmed(value);
    if (name == "smtp.url") {
        settings.url = text;
    } else if (name == "smtp.starttls") {
        const std::string policy = Lower(text);
        if (policy == "required")
            settings.starttls = StartTlsPolicy::Required;
        else if (policy == "optional")
            settings.starttls = StartTlsPolicy::Optional;
        else if (policy == "no")
            settings.starttls = StartTlsPolicy::No;
        else
            return false;
    } else if (name == "smtp.user") {
        settings.user = text;
    } else if (name == "smtp.passwordeval") {
        settings.passwordEval = text;
    } else if (name == "smtp.password") {
        settings.password = std::string(value);
    } else if (name == "smtp.cafile") {
        settings.caFile = text;
    } else {
        return false;
    }
    return true;
}

StartTlsPolicy EffectiveStartTls(const CSmtpSettings& settings) {
    if (settings.starttls) return *settings.starttls;
    return IsLoopback(HostOf(settings.url)) ? StartTlsPolicy::Optional : StartTlsPolicy::Required;
}

std::optional<std::string> ResolveSmtpPassword(const CSmtpSettings& settings, const std::string& profileFile,
                                               std::string& error) {
    if (!settings.passwordEval.empty()) return FirstLineOf(settings.passwordEval, error);
    if (settings.password.empty()) return std::string();
    struct stat info {};
    if (stat(profileFile.c_str(), &info) != 0) {
        error = "smtp.password is ignored: the profile file cannot be looked at";
        return std::nullopt;
    }
    if (info.st_mode & (S_IRWXG | S_IRWXO)) {
        error = "smtp.password is ignored: the profile file may be read by others (chmod 600 " + profileFile +
                ")";
        return std::nullopt;
    }
    return settings.password;
}

}  // namespace velmar::mapi
