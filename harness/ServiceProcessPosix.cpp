#include <fcntl.h>
#include <signal.h>
#include <unistd.h>
#include <sys/wait.h>

#include <chrono>
#include <thread>

#include "harness/ServiceProcess.h"

namespace velmar::test {

namespace {

// Starts program with its standard output on output (closed in the parent by the caller).
long long Spawn(const std::string& program, const std::vector<std::string>& arguments, int output) {
    std::vector<std::string> words{program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        if (output >= 0) dup2(output, STDOUT_FILENO);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    return pid;
}

}  // namespace

CServiceProcess::CServiceProcess(const std::string& program, const std::vector<std::string>& arguments,
                                 const std::string& logFile) {
    const int log = open(logFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    m_process = Spawn(program, arguments, log);
    if (log >= 0) close(log);
}

CServiceProcess::CServiceProcess(const std::string& program, const std::vector<std::string>& arguments,
                                 int outputFd)
    : m_process(Spawn(program, arguments, outputFd)) {}

CServiceProcess::~CServiceProcess() {
    if (m_process > 0 && !m_bExited) {
        kill(static_cast<pid_t>(m_process), SIGKILL);
        waitpid(static_cast<pid_t>(m_process), nullptr, 0);
    }
}

bool CServiceProcess::Started() const {
    return m_process > 0;
}

bool CServiceProcess::Signal(int number) {
    return kill(static_cast<pid_t>(m_process), number) == 0;
}

std::optional<int> CServiceProcess::WaitForExit(int timeoutMilliseconds) {
    if (m_bExited) return m_exitCode;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMilliseconds);
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        if (waitpid(static_cast<pid_t>(m_process), &status, WNOHANG) == static_cast<pid_t>(m_process)) {
            m_bExited = true;
            m_exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return m_exitCode;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return std::nullopt;
}

}  // namespace velmar::test
