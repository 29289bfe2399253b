// Message lookups through the real service on a large inbox, as a client of the product family makes them:
// FindMessage and GetMessageData of a 2 KB message, each a round trip on the socket, against a raw echo
// round trip over the same kind of socket (the floor of any request). Also the service's resident memory
// per indexed message.
//   service_lookup_bench [messages=100000] [requests=2000]
#include <unistd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/BenchInbox.h"
#include "bench/BenchSockets.h"
#include "harness/ProcessStatus.h"
#include "harness/ServiceProcess.h"
#include "support/FramedSocket.h"

namespace {

using velmar::bench::Ask;

using velmar::bench::Connect;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? -1 : values[values.size() / 2];
}

// Median microseconds of a round trip of make(i) for i in [0, count).
template <class MakeRequest>
double MedianRoundTrip(velmar::CFramedSocket& socket, int count, MakeRequest make, bool& allOk) {
    std::vector<double> times;
    times.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        const std::string request = make(i);
        const auto start = Clock::now();
        const std::string reply = Ask(socket, request);
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
        allOk = allOk && reply.find("\"status\": \"OK\"") != std::string::npos;
    }
    return Median(times);
}

}  // namespace

int main(int argc, char** argv) {
    const int messages = argc > 1 ? std::atoi(argv[1]) : 100000;
    const int requests = argc > 2 ? std::atoi(argv[2]) : 2000;
    const fs::path root = fs::temp_directory_path() / ("velmar-lookup-bench-" + std::to_string(getpid()));
    std::printf("generating %d messages in %s\n", messages, root.c_str());
    velmar::bench::WriteBenchInbox(root / "inbox", messages);
    // The 2 KB message of the GetMessageData figure sits among the others.
    std::string twoKb = velmar::bench::BenchMessageText(messages, 28);
    twoKb.replace(twoKb.find(velmar::bench::BenchMessageId(messages)),
                  velmar::bench::BenchMessageId(messages).size(), "<two-kb@bench.example.org>");
    std::ofstream(root / "inbox" / "cur" / "1700000000.M2kP1.bench:2,S") << twoKb;
    std::ofstream(root / "profiles.ini") << "[Bench]\nstore1.name = Bench\nstore1.path = inbox\n"
                                            "store1.address = me@example.com\n";
    setenv("VELMAR_MAPI_PROFILES", (root / "profiles.ini").c_str(), 1);
    setenv("TMPDIR", root.c_str(), 1);
    sync();    // the written files reach the disk now, not while the requests are timed
    sleep(2);  // folder times of the current second are not trusted by the index

    // The floor: a raw echo on the same kind of socket.
    bool ok = true;
    double echoTime = -1;
    {
        const std::string echoPath = (root / "echo.sock").string();
        velmar::bench::CEchoServer echo(echoPath);
        if (!echo.Ready()) {
            std::perror("echo socket");
            return 1;
        }
        velmar::CFramedSocket socket(Connect(echoPath));
        const std::string request = R"({"command-target":"MAPI","command":"FindMessage","messageId":"<x>"})";
        echoTime = MedianRoundTrip(
            socket, requests, [&](int) { return request; }, ok);
        ok = true;  // an echo carries no "status"
    }

    const std::string servicePath = (root / "service.sock").string();
    setenv("VELMAR_PIPE", servicePath.c_str(), 1);
    double findTime = -1;
    double dataTime = -1;
    double indexSeconds = -1;
    long long indexKilobytes = -1;
    {
        velmar::test::CServiceProcess service(VELMAR_SERVICE_PROGRAM, {"--headless"}, "/dev/null");
        int fd = -1;
        for (int attempt = 0; attempt < 200 && fd < 0; ++attempt) {
            fd = Connect(servicePath);
            if (fd < 0) std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        velmar::CFramedSocket socket(fd);
        ok = fd >= 0 &&
             !Ask(socket, R"({"command-target":"MAPI","command":"Logon","data_string":"Bench"})").empty() &&
             !Ask(socket, R"({"command-target":"MAPI","command":"OpenMessageStoreTable"})").empty();
        const long long before = velmar::test::ProcessStatusKilobytes(service.Id(), "VmRSS");
        // The first lookup builds the index of the inbox.
        const auto start = Clock::now();
        ok = ok &&
             Ask(socket, R"({"command-target":"MAPI","command":"GetMessageData","messageId":")" +
                             velmar::bench::BenchMessageId(0) + R"(","profileName":"Bench","storeIndex":0})")
                     .find("\"status\": \"OK\"") != std::string::npos;
        indexSeconds = std::chrono::duration<double>(Clock::now() - start).count();
        indexKilobytes = velmar::test::ProcessStatusKilobytes(service.Id(), "VmRSS") - before;
        std::mt19937 random(7);
        std::uniform_int_distribution<int> pick(0, messages - 1);
        findTime = MedianRoundTrip(
            socket, requests,
            [&](int) {
                return R"({"command-target":"MAPI","command":"FindMessage","messageId":")" +
                       velmar::bench::BenchMessageId(pick(random)) + R"("})";
            },
            ok);
        dataTime = MedianRoundTrip(
            socket, requests,
            [](int) {
                return std::string(R"({"command-target":"MAPI","command":"GetMessageData",)") +
                       R"("messageId":"<two-kb@bench.example.org>","profileName":"Bench","storeIndex":0})";
            },
            ok);
        Ask(socket, R"({"command-target":"MAPI","command":"CloseVelmarTaskScheduler"})");
        service.WaitForExit(10000);
    }
    fs::remove_all(root);
    if (!ok || findTime <= 0 || dataTime <= 0) {
        std::fprintf(stderr, "a request failed\n");
        return 1;
    }
    std::printf("raw echo round trip (baseline):   %.1f us median\n", echoTime);
    std::printf("first lookup (builds the index):  %.2f s\n", indexSeconds);
    std::printf("index memory of the service:      %.1f MB, %.0f bytes per indexed message\n",
                indexKilobytes / 1024.0, indexKilobytes * 1024.0 / messages);
    std::printf("FindMessage round trip:           %.1f us median, %.2f x the echo\n", findTime,
                findTime / echoTime);
    std::printf("GetMessageData of 2 KB:           %.1f us median, %.2f x the echo\n", dataTime,
                dataTime / echoTime);
    return 0;
}
