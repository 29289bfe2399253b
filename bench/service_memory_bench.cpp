// The service's resident memory under two loads, each printed after a warm-up and at checkpoints, with the
// growth per request:
//   - requests whose replies carry 1 MB each (GetMessageData of a message with a 1 MB body, which the
//     activity list also shows whole): it stays flat;
//   - requests of 20 KB each (IsMAPIDllInitialized with a 20 KB member; the activity list shows every
//     request whole), 30,000 of them, each on a connection of its own as the command-line client makes them:
//     the growth against the 64 MB the process may take for its activity list of 32 MB and what goes with
//     it.
//   service_memory_bench [requests=2000] [small requests=30000]
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "bench/BenchSockets.h"
#include "harness/ProcessStatus.h"
#include "harness/ServiceProcess.h"
#include "support/FramedSocket.h"

namespace {

namespace fs = std::filesystem;

bool Ask(velmar::CFramedSocket& socket, const std::string& request) {
    std::string reply;
    return socket.Send(request) &&
           socket.Receive(reply, size_t{1} << 30, 60000) == velmar::CFramedSocket::Received::Message &&
           reply.find("\"status\": \"OK\"") != std::string::npos;
}

double Megabytes(long long kilobytes) {
    return kilobytes / 1024.0;
}

// A fresh headless service asked `requests` times after 50 requests of warm-up, each on a connection of its
// own when connectionEach (as the command-line client asks), else all on one; false when a request failed.
bool MeasureLoad(const char* title, const std::string& socketPath, const std::string& request, int requests,
                 bool connectionEach, double boundMegabytes) {
    std::printf("%s\n", title);
    velmar::test::CServiceProcess service(VELMAR_SERVICE_PROGRAM, {"--headless"}, "/dev/null");
    int fd = -1;
    for (int attempt = 0; attempt < 200 && fd < 0; ++attempt) {
        fd = velmar::bench::Connect(socketPath);
        if (fd < 0) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    velmar::CFramedSocket socket(fd);
    bool ok = fd >= 0 &&
              Ask(socket, R"({"command-target":"MAPI","command":"Logon","data_string":"Bench"})") &&
              Ask(socket, R"({"command-target":"MAPI","command":"OpenMessageStoreTable"})");
    const long long start = velmar::test::ProcessStatusKilobytes(service.Id(), "VmRSS");
    const auto ask = [&] {
        if (!connectionEach) return Ask(socket, request);
        velmar::CFramedSocket own(velmar::bench::Connect(socketPath));
        return Ask(own, request);
    };
    for (int i = 0; i < 50 && ok; ++i) ok = ask();
    const long long warm = velmar::test::ProcessStatusKilobytes(service.Id(), "VmRSS");
    std::printf("  after logon:                %7.1f MB resident\n", Megabytes(start));
    std::printf("  after 50 requests (warm):   %7.1f MB resident\n", Megabytes(warm));
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 1; i <= requests && ok; ++i) {
        ok = ask();
        if (i % (requests / 4 > 0 ? requests / 4 : 1) == 0)
            std::printf("  after %6d more requests: %7.1f MB resident\n", i,
                        Megabytes(velmar::test::ProcessStatusKilobytes(service.Id(), "VmRSS")));
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    const long long last = velmar::test::ProcessStatusKilobytes(service.Id(), "VmRSS");
    std::printf("  growth over %d requests:    %+.1f MB, %+.1f bytes per request (%.2f ms a request)\n",
                requests, Megabytes(last - warm), (last - warm) * 1024.0 / requests,
                seconds * 1e3 / requests);
    if (boundMegabytes > 0)
        std::printf("  growth since logon:         %+.1f MB of the %.0f MB allowed (%.2f)\n",
                    Megabytes(last - start), boundMegabytes, Megabytes(last - start) / boundMegabytes);
    Ask(socket, R"({"command-target":"MAPI","command":"CloseVelmarTaskScheduler"})");
    service.WaitForExit(10000);
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    const int requests = argc > 1 ? std::atoi(argv[1]) : 2000;
    const int smallRequests = argc > 2 ? std::atoi(argv[2]) : 30000;
    const fs::path root = fs::temp_directory_path() / ("velmar-memory-bench-" + std::to_string(getpid()));
    for (const char* sub : {"cur", "new", "tmp"}) fs::create_directories(root / "inbox" / sub);
    std::string body;
    while (body.size() < 1024 * 1024) body += "Eine Zeile eines langen Textes, immer wieder.\n";
    std::ofstream(root / "inbox" / "cur" / "1700000000.M1P1.bench:2,S")
        << "From: a@example.org\nMessage-ID: <mega@bench>\nSubject: gross\n\n"
        << body;
    std::ofstream(root / "profiles.ini") << "[Bench]\nstore1.name = Bench\nstore1.path = inbox\n";
    setenv("VELMAR_MAPI_PROFILES", (root / "profiles.ini").c_str(), 1);
    setenv("TMPDIR", root.c_str(), 1);
    const std::string socketPath = (root / "service.sock").string();
    setenv("VELMAR_PIPE", socketPath.c_str(), 1);

    const std::string large =
        R"({"command-target":"MAPI","command":"GetMessageData","messageId":"<mega@bench>","profileName":"Bench",)"
        R"("storeIndex":0})";
    const std::string small = R"({"command-target":"MAPI","command":"IsMAPIDllInitialized","padding":")" +
                              std::string(20 * 1024, 'x') + R"("})";
    const bool ok = MeasureLoad("GetMessageData with a 1 MB reply:", socketPath, large, requests, false, 0) &&
                    MeasureLoad("Requests of 20 KB, each on a connection of its own:", socketPath, small,
                                smallRequests, true, 64);
    fs::remove_all(root);
    if (!ok) {
        std::fprintf(stderr, "a request failed\n");
        return 1;
    }
    return 0;
}
