// The real service, started as its own process for end-to-end tests, with its activity list captured.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace velmar::test {

class CServiceProcess {
public:
    // Starts the program with the arguments; its standard output goes to logFile.
    CServiceProcess(const std::string& program, const std::vector<std::string>& arguments,
                    const std::string& logFile);
    // POSIX: the same with standard output on a descriptor the caller owns (a pipe, say).
    CServiceProcess(const std::string& program, const std::vector<std::string>& arguments, int outputFd);
    // Ends the process if it still runs.
    ~CServiceProcess();
    CServiceProcess(const CServiceProcess&) = delete;
    CServiceProcess& operator=(const CServiceProcess&) = delete;

    bool Started() const;
    // The process id on POSIX, the process handle on Windows.
    long long Id() const { return m_process; }
    // Sends a POSIX signal (SIGTERM, SIGINT); false where there are none.
    bool Signal(int number);
    // The exit code once the process has ended, or nullopt when it still runs after timeoutMilliseconds.
    std::optional<int> WaitForExit(int timeoutMilliseconds);

private:
    long long m_process = 0;  // pid, or the process handle on Windows
    bool m_bExited = false;
    int m_exitCode = 0;  // once m_bExited
};

}  // namespace velmar::test
