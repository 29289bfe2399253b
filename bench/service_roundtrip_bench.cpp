// "IsMAPIDllInitialized" through the real service against a raw echo server on the same kind of socket,
// both asked by the same raw socket client, in one run:
//   - the median round trip of one client;
//   - the requests per second of 64 clients at once, each on its own connection.
// Prints both figures with their ratios (service / echo).
//   service_roundtrip_bench [requests=20000] [clients=64]
#include <unistd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "bench/BenchSockets.h"
#include "harness/ServiceProcess.h"

namespace {

using velmar::bench::CEchoServer;
using velmar::bench::Connect;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

// Sends request with its zero byte and reads up to the reply's zero byte; false on any failure.
bool RawRoundTrip(int fd, const std::string& request) {
    if (send(fd, request.c_str(), request.size() + 1, MSG_NOSIGNAL) !=
        static_cast<ssize_t>(request.size() + 1))
        return false;
    char buffer[4096];
    for (;;) {
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got <= 0) return false;
        if (std::memchr(buffer, 0, static_cast<size_t>(got))) return true;
    }
}

const std::string kRequest = R"({"command-target":"MAPI","command":"IsMAPIDllInitialized"})";

// Median microseconds of one client's round trips; negative on failure.
double MedianRoundTrip(const std::string& path, int requests) {
    const int fd = Connect(path);
    if (fd < 0) return -1;
    std::vector<double> times;
    for (int i = 0; i < requests; ++i) {
        const auto start = Clock::now();
        if (!RawRoundTrip(fd, kRequest)) break;
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    close(fd);
    if (times.size() != static_cast<size_t>(requests)) return -1;
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

// Requests per second of clients at once, each sending requestsEach on its own connection.
double Throughput(const std::string& path, int clients, int requestsEach) {
    std::vector<int> sockets;
    for (int c = 0; c < clients; ++c) sockets.push_back(Connect(path));
    if (std::count(sockets.begin(), sockets.end(), -1) > 0) return -1;
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    const auto start = Clock::now();
    for (int fd : sockets)
        threads.emplace_back([&, fd] {
            for (int i = 0; i < requestsEach; ++i)
                if (!RawRoundTrip(fd, kRequest)) {
                    ++failed;
                    return;
                }
        });
    for (std::thread& thread : threads) thread.join();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    for (int fd : sockets) close(fd);
    return failed > 0 ? -1 : clients * static_cast<double>(requestsEach) / seconds;
}

}  // namespace

int main(int argc, char** argv) {
    const int requests = argc > 1 ? std::atoi(argv[1]) : 20000;
    const int clients = argc > 2 ? std::atoi(argv[2]) : 64;
    const int requestsEach = std::max(1, requests / clients);
    const fs::path folder = fs::temp_directory_path() / ("velmar-roundtrip-" + std::to_string(getpid()));
    fs::create_directories(folder);

    double echoTime = -1;
    double echoRate = -1;
    {
        const std::string echoPath = (folder / "echo.sock").string();
        CEchoServer echo(echoPath);
        if (echo.Ready()) {
            echoTime = MedianRoundTrip(echoPath, requests);
            echoRate = Throughput(echoPath, clients, requestsEach);
        }
    }

    // The service, with its activity list going nowhere.
    const std::string servicePath = (folder / "service.sock").string();
    setenv("VELMAR_PIPE", servicePath.c_str(), 1);
    setenv("VELMAR_MAPI_PROFILES", (folder / "none.ini").c_str(), 1);
    setenv("XDG_DATA_HOME", (folder / "data").c_str(), 1);
    double serviceTime = -1;
    double serviceRate = -1;
    {
        velmar::test::CServiceProcess service(VELMAR_SERVICE_PROGRAM, {"--headless"}, "/dev/null");
        int probe = -1;
        for (int attempt = 0; attempt < 200 && probe < 0; ++attempt) {
            probe = Connect(servicePath);
            if (probe < 0) std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        if (probe >= 0) {
            for (int i = 0; i < 200; ++i)
                RawRoundTrip(probe, kRequest);  // warm up: MAPI loaded, pages touched
            serviceTime = MedianRoundTrip(servicePath, requests);
            serviceRate = Throughput(servicePath, clients, requestsEach);
            const std::string close = R"({"command-target":"MAPI","command":"CloseVelmarTaskScheduler"})";
            send(probe, close.c_str(), close.size() + 1, MSG_NOSIGNAL);
            ::close(probe);
        }
        service.WaitForExit(10000);
    }
    fs::remove_all(folder);
    if (echoTime <= 0 || serviceTime <= 0 || echoRate <= 0 || serviceRate <= 0) {
        std::fprintf(stderr, "a round trip failed\n");
        return 1;
    }
    std::printf("one client, median round trip:  echo %.1f us, IsMAPIDllInitialized %.1f us, ratio %.2f\n",
                echoTime, serviceTime, serviceTime / echoTime);
    std::printf("%d clients at once:             echo %.0f requests/s, service %.0f requests/s, ratio %.2f\n",
                clients, echoRate, serviceRate, serviceRate / echoRate);
    return 0;
}
