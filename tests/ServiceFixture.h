// The real program for the end-to-end tests: started in a scratch folder of the test's own, asked through
// its real channel (socket on POSIX, named pipe under Wine), its activity list read from its output, and
// ended when the test is over.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "harness/ServiceProcess.h"
#include "harness/TestFiles.h"
#include "tools/ClientChannel.h"

namespace velmar::test {

// A channel to the service once it offers one (it may still be starting); null when none came in 10 s.
inline std::unique_ptr<velmar::tools::IClientChannel> ConnectWhenReady(std::string& error) {
    std::unique_ptr<velmar::tools::IClientChannel> channel = velmar::tools::ConnectToService(error);
    for (int attempt = 0; attempt < 200 && !channel; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        channel = velmar::tools::ConnectToService(error);
    }
    return channel;
}

// Whether condition came true within 10 s.
inline bool WaitFor(const std::function<bool()>& condition) {
    for (int i = 0; i < 200; ++i) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return condition();
}

class CServiceTest : public ::testing::Test {
protected:
    void SetUp() override { SetEnvironment("VELMAR_PIPE", (m_dir / "service.sock").string()); }
    // Asks the program to close where it still runs, then ends it.
    void TearDown() override {
        if (m_service && !m_service->WaitForExit(0)) {
            std::string error;
            if (m_channel || (m_channel = velmar::tools::ConnectToService(error)))
                m_channel->Send(R"({"command-target":"MAPI","command":"CloseVelmarTaskScheduler"})");
            if (!m_service->WaitForExit(10000)) m_service->Signal(SIGTERM);
            m_service->WaitForExit(10000);
        }
    }

    // Home, configuration and data folders inside the test's folder, and no profile file of the tests'.
    void UseOwnHome() {
        SetEnvironment("HOME", (m_dir / "home").string());
        SetEnvironment("XDG_CONFIG_HOME", (m_dir / "home/config").string());
        SetEnvironment("XDG_DATA_HOME", (m_dir / "home/data").string());
#ifdef _WIN32
        _putenv_s("VELMAR_MAPI_PROFILES", "");
#else
        unsetenv("VELMAR_MAPI_PROFILES");
#endif
    }

    // Starts the program (headless unless told otherwise), its output in log, and connects to it.
    void StartService(const std::vector<std::string>& arguments = {"--headless"},
                      const std::string& log = "activity.log") {
        m_log = log;
        m_channel.reset();
        m_service.emplace(VELMAR_SERVICE_PROGRAM, arguments, (m_dir / log).string());
        ASSERT_TRUE(m_service->Started());
        std::string error;
        m_channel = ConnectWhenReady(error);
        ASSERT_TRUE(m_channel) << "the service does not answer: " << error;
    }

    // Closes the program by request, or ends it when told to, and waits for its end: its exit code.
    std::optional<int> StopService(int signal = 0) {
        if (signal)
            m_service->Signal(signal);
        else if (m_channel)
            m_channel->Send(R"({"command-target":"MAPI","command":"CloseVelmarTaskScheduler"})");
        const std::optional<int> code = m_service->WaitForExit(10000);
        m_channel.reset();
        m_service.reset();
        return code;
    }

    // The reply to request on the test's connection; nullopt when none came in time.
    std::optional<std::string> Request(const std::string& request, int timeoutMilliseconds = 60000) {
        std::string reply;
        if (!m_channel || !m_channel->Send(request) || !m_channel->Receive(reply, timeoutMilliseconds))
            return std::nullopt;
        return reply;
    }

    // The program's output so far, once it has settled.
    std::string Activity() {
        return ReadSettledFile(m_dir / m_log);
    }

    CTempDir m_dir;
    std::string m_log = "activity.log";
    std::optional<CServiceProcess> m_service;
    std::unique_ptr<velmar::tools::IClientChannel> m_channel;
};

}  // namespace velmar::test
