#include "mapi/provider/AccountSecrets.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <strings.h>
#include <unistd.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "support/FileDescriptor.h"

extern char** environ;

namespace velmar::mapi {
namespace {

constexpr auto kLongestPasswordCommand = std::chrono::seconds(30);
constexpr size_t kMaxCommandOutput = 64 * 1024;
// How often the reader looks whether the command has ended while its output stays open: a process it
// started in the background may hold the pipe long after the command itself is done.
constexpr int kExitCheckMilliseconds = 100;

// posix_spawn's attributes, destroyed when they go.
class CSpawnAttributes {
public:
    CSpawnAttributes() { m_ok = posix_spawnattr_init(&m_attributes) == 0; }
    ~CSpawnAttributes() {
        if (m_ok) posix_spawnattr_destroy(&m_attributes);
    }
    CSpawnAttributes(const CSpawnAttributes&) = delete;
    CSpawnAttributes& operator=(const CSpawnAttributes&) = delete;
    posix_spawnattr_t* get() { return m_ok ? &m_attributes : nullptr; }

private:
    posix_spawnattr_t m_attributes;
    bool m_ok = false;
};

class CSpawnFileActions {
public:
    CSpawnFileActions() { m_ok = posix_spawn_file_actions_init(&m_actions) == 0; }
    ~CSpawnFileActions() {
        if (m_ok) posix_spawn_file_actions_destroy(&m_actions);
    }
    CSpawnFileActions(const CSpawnFileActions&) = delete;
    CSpawnFileActions& operator=(const CSpawnFileActions&) = delete;
    posix_spawn_file_actions_t* get() { return m_ok ? &m_actions : nullptr; }

private:
    posix_spawn_file_actions_t m_actions;
    bool m_ok = false;
};

// The command starts in a process group of its own, so that a command past its time is killed with
// everything it started; with no signals blocked and the usual ones at their defaults, whatever the
// service's threads have set for themselves.
bool PrepareSpawn(CSpawnAttributes& attributes, CSpawnFileActions& actions, int output) {
    if (!attributes.get() || !actions.get()) return false;
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int signal : {SIGPIPE, SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGCHLD}) sigaddset(&defaults, signal);
    return posix_spawnattr_setflags(attributes.get(), POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK |
                                                          POSIX_SPAWN_SETSIGDEF) == 0 &&
           posix_spawnattr_setpgroup(attributes.get(), 0) == 0 &&
           posix_spawnattr_setsigmask(attributes.get(), &none) == 0 &&
           posix_spawnattr_setsigdefault(attributes.get(), &defaults) == 0 &&
           posix_spawn_file_actions_addopen(actions.get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0) == 0 &&
           posix_spawn_file_actions_adddup2(actions.get(), output, STDOUT_FILENO) == 0;
}

// Appends what the command printed, up to the limit; past it the output is read and dropped, so that the
// command is never stuck on a full pipe.
void AppendBounded(std::string& output, const char* bytes, ssize_t count) {
    if (count > 0 && output.size() < kMaxCommandOutput)
        output.append(bytes, std::min(static_cast<size_t>(count), kMaxCommandOutput - output.size()));
}

}  // namespace

std::string HostOfUrl(const std::string& url) {
    size_t start = url.find("://");
    start = start == std::string::npos ? 0 : start + 3;
    const size_t end = std::min(url.find_first_of("/?#", start), url.size());
    std::string authority = url.substr(start, end - start);
    if (const size_t at = authority.rfind('@'); at != std::string::npos) authority.erase(0, at + 1);
    if (authority.starts_with("[")) return authority.substr(1, authority.find(']') - 1);
    return authority.substr(0, authority.find(':'));
}

bool IsLoopbackHost(const std::string& host) {
    if (strcasecmp(host.c_str(), "localhost") == 0) return true;
    in_addr v4{};
    if (inet_pton(AF_INET, host.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
    in6_addr v6{};
    return inet_pton(AF_INET6, host.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

std::optional<std::string> PasswordFromCommand(const std::string& command, std::string& error) {
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        error = std::string("cannot make a pipe for the password command: ") + std::strerror(errno);
        return std::nullopt;
    }
    CFileDescriptor outRead(ends[0]), outWrite(ends[1]);
    CSpawnAttributes attributes;
    CSpawnFileActions actions;
    if (!PrepareSpawn(attributes, actions, outWrite.get())) {
        error = "cannot prepare to run the password command";
        return std::nullopt;
    }
    const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
    pid_t child = -1;
    const int spawned = posix_spawn(&child, "/bin/sh", actions.get(), attributes.get(),
                                    const_cast<char* const*>(argv), environ);
    // Our copy of the writing end goes, so that the pipe ends when the command's copies do.
    outWrite.Reset();
    if (spawned != 0) {
        error = std::string("cannot run the password command: ") + std::strerror(spawned);
        return std::nullopt;
    }

    const auto deadline = std::chrono::steady_clock::now() + kLongestPasswordCommand;
    const auto millisecondsLeft = [&] {
        return std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                     std::chrono::steady_clock::now())
            .count();
    };
    std::string output;
    char buffer[4096];
    bool endOfOutput = false, reaped = false, unknownEnd = false;
    int status = 0;
    while (!endOfOutput && !reaped && millisecondsLeft() > 0) {
        pollfd fd{outRead.get(), POLLIN, 0};
        const int ready =
            poll(&fd, 1, static_cast<int>(std::min<long long>(millisecondsLeft(), kExitCheckMilliseconds)));
        if (ready < 0) {
            if (errno == EINTR) continue;
            endOfOutput = true;
        } else if (ready > 0) {
            const ssize_t n = read(outRead.get(), buffer, sizeof buffer);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) endOfOutput = true;
            AppendBounded(output, buffer, n);
        } else {
            reaped = waitpid(child, &status, WNOHANG) == child;
        }
    }
    if (reaped) {
        // Done, though something it left behind holds the pipe open: take what is there and go.
        fcntl(outRead.get(), F_SETFL, O_NONBLOCK);
        for (ssize_t n; (n = read(outRead.get(), buffer, sizeof buffer)) > 0;)
            AppendBounded(output, buffer, n);
    }
    // A command may close its output and go on; it still has until the deadline to end.
    while (!reaped && !unknownEnd && millisecondsLeft() > 0) {
        const pid_t ended = waitpid(child, &status, WNOHANG);
        if (ended == child)
            reaped = true;
        else if (ended < 0 && errno != EINTR)
            unknownEnd = true;  // SIGCHLD ignored by the program: the system reaps it for us
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (unknownEnd) {
        error = "cannot learn how the password command ended";
        return std::nullopt;
    }
    if (!reaped) {
        kill(-child, SIGKILL);  // the command and whatever it started
        kill(child, SIGKILL);
        while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        error = "the password command took longer than 30 s and was stopped";
        return std::nullopt;
    }
    if (WIFSIGNALED(status)) {
        error = "the password command was ended by signal " + std::to_string(WTERMSIG(status));
        return std::nullopt;
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        error = "the password command failed with exit status " + std::to_string(WEXITSTATUS(status));
        return std::nullopt;
    }
    std::string line = output.substr(0, output.find('\n'));
    while (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

bool ProfileFileTrusted(const std::string& profileFile, const std::string& key, EProfileTrust trust,
                        std::string& error) {
    struct stat info {};
    if (stat(profileFile.c_str(), &info) != 0) {
        error = key + " is ignored: the profile file " + profileFile +
                " cannot be looked at: " + std::strerror(errno);
        return false;
    }
    if (info.st_uid != geteuid()) {
        error = key + " is ignored: the profile file " + profileFile + " belongs to another user";
        return false;
    }
    if (info.st_mode & (S_IWGRP | S_IWOTH)) {
        error =
            key + " is ignored: the profile file " + profileFile + " may be changed by others (chmod 600 it)";
        return false;
    }
    if (trust == EProfileTrust::Secret && (info.st_mode & (S_IRGRP | S_IROTH))) {
        error = key + " is ignored: the profile file " + profileFile +
                " may be read by others (chmod 600 it, or use a passwordeval command)";
        return false;
    }
    return true;
}

std::optional<std::string> PasswordFromProfile(const std::string& password, const std::string& key,
                                               const std::string& profileFile, std::string& error) {
    if (!ProfileFileTrusted(profileFile, key, EProfileTrust::Secret, error)) return std::nullopt;
    return password;
}

std::optional<std::string> PasswordFromProfileCommand(const std::string& command, const std::string& key,
                                                      const std::string& profileFile, std::string& error) {
    if (!ProfileFileTrusted(profileFile, key, EProfileTrust::Command, error)) return std::nullopt;
    return PasswordFromCommand(command, error);
}

}  // namespace velmar::mapi
