// A test server of ours run as a child process (the SMTP and OAuth2 servers under /usr/bin/python3) that
// says "READY <port>" on its standard output once it listens; its error output goes to a log file.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace velmar::test {

class CReadyProcess {
public:
    CReadyProcess() = default;
    ~CReadyProcess() { Stop(); }
    CReadyProcess(const CReadyProcess&) = delete;
    CReadyProcess& operator=(const CReadyProcess&) = delete;

    // Runs arguments (the first a path) and waits up to 20 s for its READY line. The port it names, or 0
    // with why set (the process is gone then).
    int Start(std::vector<std::string> arguments, const std::string& log, std::string& why) {
        int output[2];
        if (pipe2(output, O_CLOEXEC) != 0) {
            why = "cannot make a pipe";
            return 0;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, log.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                         0600);
        std::vector<char*> argv;
        for (std::string& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        pid_t pid = -1;
        const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(output[1]);
        if (spawned != 0) {
            close(output[0]);
            why = "cannot run " + arguments.front();
            return 0;
        }
        m_pid = pid;

        std::string line;
        bool ended = false;
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!ended && line.find('\n') == std::string::npos && std::chrono::steady_clock::now() < end) {
            pollfd ready{output[0], POLLIN, 0};
            if (poll(&ready, 1, 200) <= 0) continue;
            char buffer[256];
            const ssize_t n = read(output[0], buffer, sizeof buffer);
            ended = n <= 0;
            if (n > 0) line.append(buffer, static_cast<size_t>(n));
        }
        close(output[0]);
        if (line.rfind("READY ", 0) != 0 || line.find('\n') == std::string::npos) {
            Kill();
            why = ended ? "it ended before it was ready" : "it did not say READY within 20 s";
            return 0;
        }
        return std::stoi(line.substr(6));
    }

    // Stops it (SIGTERM; SIGKILL when it is still there after 10 s) and reaps it.
    void Stop() {
        if (m_pid <= 0) return;
        kill(m_pid, SIGTERM);
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (waitpid(m_pid, nullptr, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() >= end) {
                Kill();
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        m_pid = -1;
    }

    bool Running() const { return m_pid > 0; }

private:
    void Kill() {
        if (m_pid <= 0) return;
        kill(m_pid, SIGKILL);
        while (waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        m_pid = -1;
    }

    pid_t m_pid = -1;
};

}  // namespace velmar::test
