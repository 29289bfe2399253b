// The service's resident memory over many requests whose replies carry 1 MB each (GetMessageData of a
// message with a 1 MB body, which the activity list also shows whole): printed after a warm-up and at
// checkpoints, with the growth per request; it stays flat.
//   service_memory_bench [requests=2000] (100000 for the long run)
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "bench/BenchSockets.h"
#include "support/FramedSocket.h"
#include "tests/ProcessStatus.h"
#include "tests/ServiceProcess.h"

namespace {

namespace fs = std::filesystem;

bool Ask(velmar::CFramedSocket& socket, const std::string& request) {
    std::string reply;
    return socket.Send(request) &&
           socket.Receive(reply, size_t{1} << 30, 60000) == velmar::CFramedSocket::Received::Message &&
           reply.find("\"status\": \"OK\"") != std::string::npos;
}

}  // namespace

int main(int argc, char** argv) {
    const int requests = argc > 1 ? std::atoi(argv[1]) : 2000;
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

    const std::string request =
        R"({"command-target":"MAPI","command":"GetMessageData","messageId":"<mega@bench>","profileName":"Bench",)"
        R"("storeIndex":0})";
    bool ok = true;
    {
        velmar::test::CServiceProcess service(VELMAR_SERVICE_PROGRAM, {"--headless"}, "/dev/null");
        int fd = -1;
        for (int attempt = 0; attempt < 200 && fd < 0; ++attempt) {
            fd = velmar::bench::Connect(socketPath);
            if (fd < 0) std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        velmar::CFramedSocket socket(fd);
        ok = fd >= 0 && Ask(socket, R"({"command-target":"MAPI","command":"Logon","data_string":"Bench"})") &&
             Ask(socket, R"({"command-target":"MAPI","command":"OpenMessageStoreTable"})");
        for (int i = 0; i < 50 && ok; ++i) ok = Ask(socket, request);
        const long long warm = velmar::test::ProcessStatusKilobytes(service.Id(), "VmRSS");
        std::printf("after 50 requests (warm):   %7.1f MB resident\n", warm / 1024.0);
        const auto start = std::chrono::steady_clock::now();
        for (int i = 1; i <= requests && ok; ++i) {
            ok = Ask(socket, request);
            if (i % (requests / 4 > 0 ? requests / 4 : 1) == 0)
                std::printf("after %6d more requests: %7.1f MB resident\n", i,
                            velmar::test::ProcessStatusKilobytes(service.Id(), "VmRSS") / 1024.0);
        }
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        const long long last = velmar::test::ProcessStatusKilobytes(service.Id(), "VmRSS");
        std::printf("growth over %d requests:    %+.1f MB, %+.1f bytes per request (%.1f ms a request)\n",
                    requests, (last - warm) / 1024.0, (last - warm) * 1024.0 / requests,
                    seconds * 1e3 / requests);
        Ask(socket, R"({"command-target":"MAPI","command":"CloseVelmarTaskScheduler"})");
        service.WaitForExit(10000);
    }
    fs::remove_all(root);
    if (!ok) {
        std::fprintf(stderr, "a request failed\n");
        return 1;
    }
    return 0;
}
