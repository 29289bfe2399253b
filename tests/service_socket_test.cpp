// The POSIX channel at the byte level: framing, oversized and broken requests, clients that vanish, a
// second copy of the service, and a socket file left by a crashed run.
#include <gtest/gtest.h>

#include <poll.h>
#include <unistd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <thread>

#include "harness/ProcessStatus.h"
#include "harness/ServiceProcess.h"
#include "harness/TestFiles.h"

namespace {

namespace fs = std::filesystem;

const std::string kAsk = std::string(R"({"command-target":"MAPI","command":"IsMAPIDllInitialized"})") + '\0';
const std::string kOk = std::string("{\r\n  \"status\": \"OK\"\r\n}") + '\0';

sockaddr_un Address(const fs::path& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

class CRawSocket {
public:
    explicit CRawSocket(const fs::path& path) {
        const sockaddr_un address = Address(path);
        m_fd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            close(m_fd);
            m_fd = -1;
        }
    }
    ~CRawSocket() {
        if (m_fd >= 0) close(m_fd);
    }
    bool Connected() const { return m_fd >= 0; }
    bool Send(const std::string& bytes) {
        size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t put = send(m_fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (put <= 0) return false;
            done += static_cast<size_t>(put);
        }
        return true;
    }
    // Everything that arrives until count bytes are there, the peer closes, or the time is up.
    std::string Receive(size_t count, int timeoutMilliseconds) {
        std::string bytes;
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMilliseconds);
        while (bytes.size() < count && std::chrono::steady_clock::now() < deadline) {
            pollfd ready{m_fd, POLLIN, 0};
            if (poll(&ready, 1, 50) <= 0) continue;
            char buffer[4096];
            const ssize_t got = read(m_fd, buffer, sizeof buffer);
            if (got <= 0) break;
            bytes.append(buffer, static_cast<size_t>(got));
        }
        return bytes;
    }
    // True when the service has ended the connection.
    bool Closed(int timeoutMilliseconds) {
        pollfd ready{m_fd, POLLIN, 0};
        if (poll(&ready, 1, timeoutMilliseconds) <= 0) return false;
        char byte = 0;
        return read(m_fd, &byte, 1) == 0;
    }
    // Asks whether the service is initialized and expects its OK.
    void ExpectServed(int timeoutMilliseconds = 5000, const char* why = "") {
        ASSERT_TRUE(Send(kAsk));
        EXPECT_EQ(Receive(kOk.size(), timeoutMilliseconds), kOk) << why;
    }

private:
    int m_fd = -1;
};

class ServiceSocket : public ::testing::Test {
protected:
    void SetUp() override {
        velmar::test::SetEnvironment("VELMAR_MAPI_PROFILES", (m_dir / "none.ini").string());
        velmar::test::SetEnvironment("XDG_DATA_HOME", (m_dir / "data").string());
        velmar::test::SetEnvironment("VELMAR_PIPE", Socket().string());
    }
    fs::path Socket() const { return m_dir / "service.sock"; }

    void Start() {
        m_service.emplace(VELMAR_SERVICE_PROGRAM, std::vector<std::string>{"--headless"},
                          (m_dir / "activity.log").string());
        ASSERT_TRUE(WaitForSocket([&] { return CRawSocket(Socket()).Connected(); }))
            << "the service does not answer";
    }
    static bool WaitForSocket(const std::function<bool()>& ready) {
        for (int attempt = 0; attempt < 200; ++attempt) {
            if (ready()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }
    void Close() {
        CRawSocket closer(Socket());
        closer.Send(std::string(R"({"command-target":"MAPI","command":"CloseVelmarTaskScheduler"})") + '\0');
        EXPECT_EQ(m_service->WaitForExit(10000), 0);
    }

    velmar::test::CTempDir m_dir;
    std::optional<velmar::test::CServiceProcess> m_service;
};

TEST_F(ServiceSocket, FramingAndBrokenRequests) {
    Start();
    struct stat info {};
    ASSERT_EQ(stat(Socket().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u) << "the socket is its owner's only";

    // Two requests in one write, and one split over several writes, are each answered.
    CRawSocket pipelined(Socket());
    ASSERT_TRUE(pipelined.Send(kAsk + kAsk));
    EXPECT_EQ(pipelined.Receive(2 * kOk.size(), 5000), kOk + kOk);
    for (size_t cut = 1; cut < kAsk.size(); cut += 17) {
        ASSERT_TRUE(pipelined.Send(kAsk.substr(0, cut)));
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        ASSERT_TRUE(pipelined.Send(kAsk.substr(cut)));
        EXPECT_EQ(pipelined.Receive(kOk.size(), 5000), kOk);
    }

    // Requests that never end, or end too late, cost their connection and nothing else.
    CRawSocket endless(Socket());
    ASSERT_TRUE(endless.Send(std::string(1000100, '{')));
    EXPECT_TRUE(endless.Closed(10000)) << "past 1,000,000 bytes without a zero byte the connection ends";
    {
        CRawSocket vanishing(Socket());
        ASSERT_TRUE(vanishing.Send(R"({"command-target":"MAPI","comm)"));
    }
    CRawSocket garbage(Socket());
    ASSERT_TRUE(garbage.Send(std::string("\xFF\xFE\x01garbage\x7F{{{[[[", 15) + '\0' + "\x80\x81" + '\0'));
    EXPECT_EQ(garbage.Receive(1, 300), "") << "garbage gets no reply";
    garbage.ExpectServed(5000, "and the connection goes on");
    CRawSocket(Socket()).ExpectServed();
    Close();
    EXPECT_FALSE(fs::exists(Socket()));
}

TEST_F(ServiceSocket, TheLimitCountsTheRequestAndItsZeroByte) {
    Start();
    // 999,999 bytes of text and the zero byte fill the buffer exactly: served.
    const std::string head = R"({"command-target":"MAPI","command":"IsMAPIDllInitialized")";
    const std::string fits = head + std::string(999999 - head.size() - 1, ' ') + "}" + '\0';
    ASSERT_EQ(fits.size(), 1000000u);
    CRawSocket largest(Socket());
    ASSERT_TRUE(largest.Send(fits));
    EXPECT_EQ(largest.Receive(kOk.size(), 10000), kOk);
    // One byte more ends the connection unanswered, also when the zero byte comes in the same write.
    const std::string tooLong = head + std::string(999999 - head.size(), ' ') + "}" + '\0';
    CRawSocket oversized(Socket());
    ASSERT_TRUE(oversized.Send(tooLong));
    EXPECT_EQ(oversized.Receive(1, 2000), "");
    EXPECT_TRUE(oversized.Closed(10000));
    Close();
}

TEST_F(ServiceSocket, ARequestIsNeverReadFromAFile) {
    Start();
    // A short text without "{" that names a file holding a request: it is no request itself.
    velmar::test::WriteFile(m_dir / "r.json",
                            R"({"command-target":"MAPI","command":"IsMAPIDllInitialized"})");
    CRawSocket client(Socket());
    ASSERT_TRUE(client.Send((m_dir / "r.json").string() + '\0'));
    EXPECT_EQ(client.Receive(1, 500), "") << "the file's request must not be answered";
    client.ExpectServed();
    Close();
}

TEST_F(ServiceSocket, AnOutputNobodyReadsHoldsUpNothing) {
    int output[2];
    ASSERT_EQ(pipe(output), 0);
    m_service.emplace(VELMAR_SERVICE_PROGRAM, std::vector<std::string>{"--headless"}, output[1]);
    close(output[1]);
    WaitForSocket([&] { return CRawSocket(Socket()).Connected(); });
    // Each request writes six lines: the pipe is full after a few hundred requests, and what waits for
    // the reader is bounded too, so lines are dropped in the end.
    CRawSocket client(Socket());
    for (int i = 0; i < 30000; ++i) {
        ASSERT_TRUE(client.Send(kAsk));
        ASSERT_EQ(client.Receive(kOk.size(), 5000), kOk) << "request " << i;
    }
    // A reader that comes at last gets what was kept, then the count of what was left out, then the rest.
    std::string echoed;
    std::thread reader([&] {
        char buffer[65536];
        for (ssize_t got; (got = read(output[0], buffer, sizeof buffer)) > 0;)
            echoed.append(buffer, static_cast<size_t>(got));
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    client.ExpectServed();
    Close();
    reader.join();
    close(output[0]);
    const size_t notice = echoed.find(" Zeilen ausgelassen\n");
    ASSERT_NE(notice, std::string::npos);
    EXPECT_NE(echoed.find("-> CloseVelmarTaskScheduler", notice), std::string::npos)
        << "lines after the gap are echoed again";
}

TEST_F(ServiceSocket, OnlyASocketOfOursIsReplacedAtStart) {
    velmar::test::WriteFile(Socket(), "a file of the user's own, not a socket");
    velmar::test::CServiceProcess refused(VELMAR_SERVICE_PROGRAM, {"--headless"},
                                          (m_dir / "refused.log").string());
    EXPECT_EQ(refused.WaitForExit(10000), 1);
    EXPECT_EQ(velmar::test::ReadFile(Socket()), "a file of the user's own, not a socket") << "the file stays";
    EXPECT_NE(velmar::test::ReadSettledFile(m_dir / "refused.log")
                  .find("Am Ort des Sockets liegt schon etwas anderes: " + Socket().string()),
              std::string::npos);
}

TEST_F(ServiceSocket, ConnectionsPastTheLimitAreRefusedWithALine) {
    Start();
    // Clients that hold their connections open without a word, each holding a thread of the service.
    std::vector<std::unique_ptr<CRawSocket>> idle;
    for (int i = 0; i < 256; ++i) {
        idle.push_back(std::make_unique<CRawSocket>(Socket()));
        ASSERT_TRUE(idle.back()->Connected());
    }
    CRawSocket probe(Socket());
    ASSERT_TRUE(probe.Send(kAsk));
    // Served when a thread was still free (the listener may not have seen all idle ones yet), else refused.
    const std::string answer = probe.Receive(kOk.size(), 10000);
    if (answer.empty()) {
        EXPECT_NE(
            velmar::test::ReadSettledFile(m_dir / "activity.log").find("Zu viele gleichzeitige Verbindungen"),
            std::string::npos);
    }
    CRawSocket refused(Socket());
    EXPECT_TRUE(refused.Closed(10000)) << "past the limit a connection is closed at once";
    EXPECT_NE(velmar::test::ReadSettledFile(m_dir / "activity.log")
                  .find("Zu viele gleichzeitige Verbindungen (256)"),
              std::string::npos);
    // Once some go, new clients are served again.
    idle.resize(200);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    CRawSocket(Socket()).ExpectServed(10000);
    idle.clear();
    Close();
}

TEST_F(ServiceSocket, SecondCopyIsRefusedAndStaleSocketsReplaced) {
    Start();
    velmar::test::CServiceProcess second(VELMAR_SERVICE_PROGRAM, {"--headless"},
                                         (m_dir / "second.log").string());
    EXPECT_EQ(second.WaitForExit(10000), 1) << "a running copy keeps its socket";
    CRawSocket(Socket()).ExpectServed();
    Close();

    // A socket file nobody answers on, as a crashed run leaves it, is replaced.
    {
        const sockaddr_un address = Address(Socket());
        const int stale = socket(AF_UNIX, SOCK_STREAM, 0);
        ASSERT_EQ(bind(stale, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        close(stale);
    }
    ASSERT_TRUE(fs::exists(Socket()));
    Start();
    CRawSocket(Socket()).ExpectServed();
    Close();
}

TEST_F(ServiceSocket, MemoryGuardStopsTheServiceAfterItsConnections) {
    m_service.emplace(VELMAR_SERVICE_PROGRAM, std::vector<std::string>{"--headless", "MEM_LIMIT=1"},
                      (m_dir / "activity.log").string());
    WaitForSocket([&] { return fs::exists(Socket()); });
    CRawSocket(Socket()).ExpectServed(5000, "the connection that trips the guard is still served");
    EXPECT_EQ(m_service->WaitForExit(20000), 0) << "more than 1 MB in use: the service stops";
    EXPECT_FALSE(fs::exists(Socket()));
}

TEST_F(ServiceSocket, EndedConnectionsLeaveNothingBehind) {
    // The allocator's per-thread arenas (64 MB of address space each) are made as connections overlap, a
    // few more under a busy machine than under an idle one: two of them leave the thread stacks to measure.
    velmar::test::SetEnvironment("MALLOC_ARENA_MAX", "2");
    Start();
    unsetenv("MALLOC_ARENA_MAX");
    const auto oneConnection = [&] { CRawSocket(Socket()).ExpectServed(); };
    for (int i = 0; i < 20; ++i) oneConnection();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const long long before = velmar::test::ProcessStatusKilobytes(m_service->Id(), "VmSize");
    ASSERT_GT(before, 0);
    for (int i = 0; i < 200; ++i) oneConnection();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    oneConnection();  // the next accepted connection clears away the threads that have ended
    // Each request thread has a stack of 8 MB; 200 of them kept would show as 1.6 GB.
    EXPECT_LT(velmar::test::ProcessStatusKilobytes(m_service->Id(), "VmSize") - before, 400 * 1024);
    Close();
}

// Even where the file mode lets another user reach the socket, the service refuses to serve that user.
TEST_F(ServiceSocket, PeersOfAnotherUserAreRefused) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can connect as another user";
    Start();
    ASSERT_EQ(chmod(m_dir.Path().c_str(), 0711), 0);
    ASSERT_EQ(chmod(Socket().c_str(), 0666), 0);
    const pid_t child = fork();
    if (child == 0) {
        // Exit codes: 0 refused without a reply, 1 could not connect, 2 got a reply.
        if (setuid(65534) != 0) _exit(1);
        CRawSocket stranger(Socket());
        if (!stranger.Connected()) _exit(1);
        // The service may close the connection before the request is out.
        _exit(!stranger.Send(kAsk) || stranger.Receive(1, 3000).empty() ? 0 : 2);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "exit status " << status;
    CRawSocket(Socket()).ExpectServed(5000, "the owner is still served");
    const std::string activity = velmar::test::ReadSettledFile(m_dir / "activity.log");
    EXPECT_NE(activity.find("Verbindung eines anderen Benutzers abgelehnt (uid 65534)"), std::string::npos);
    Close();
}

TEST_F(ServiceSocket, StopSignalEndsTheServiceCleanly) {
    Start();
    CRawSocket idle(Socket());  // a connection waiting for its next request must not hold the service
    ASSERT_TRUE(idle.Connected());
    ASSERT_EQ(m_service->Signal(SIGTERM), true);
    EXPECT_EQ(m_service->WaitForExit(10000), 0);
    EXPECT_FALSE(fs::exists(Socket()));
}

}  // namespace
