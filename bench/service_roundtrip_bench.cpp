// Round trip of "IsMAPIDllInitialized" through the real service against a raw echo over the same kind of
// socket, measured in one run; prints both and their ratio.
//   service_roundtrip_bench [requests=20000]
#include <unistd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "tests/ServiceProcess.h"
#include "tools/ClientChannel.h"

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

// Echoes each zero-terminated message back, as a service that does nothing would.
void EchoServer(int listener) {
    const int fd = accept(listener, nullptr, nullptr);
    std::string pending;
    char buffer[65536];
    for (;;) {
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got <= 0) break;
        pending.append(buffer, static_cast<size_t>(got));
        for (size_t end = pending.find('\0'); end != std::string::npos; end = pending.find('\0')) {
            if (send(fd, pending.data(), end + 1, MSG_NOSIGNAL) <= 0) break;
            pending.erase(0, end + 1);
        }
    }
    close(fd);
}

double MicrosecondsPerRoundTrip(velmar::tools::IClientChannel& channel, const std::string& request,
                                int count) {
    std::string reply;
    const auto start = Clock::now();
    for (int i = 0; i < count; ++i)
        if (!channel.Send(request) || !channel.Receive(reply, 10000)) return -1;
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count() / count;
}

}  // namespace

int main(int argc, char** argv) {
    const int requests = argc > 1 ? std::atoi(argv[1]) : 20000;
    const std::string request = R"({"command-target":"MAPI","command":"IsMAPIDllInitialized"})";
    const fs::path folder = fs::temp_directory_path() / ("velmar-roundtrip-" + std::to_string(getpid()));
    fs::create_directories(folder);

    // Baseline: an echo server on a Unix-domain socket, read through the same client channel.
    const std::string echoPath = (folder / "echo.sock").string();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, echoPath.c_str(), sizeof address.sun_path - 1);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 1) != 0) {
        std::perror("echo socket");
        return 1;
    }
    std::thread echo(EchoServer, listener);
    setenv("VELMAR_PIPE", echoPath.c_str(), 1);
    std::string error;
    double echoTime = -1;
    {
        auto channel = velmar::tools::ConnectToService(error);
        if (channel) echoTime = MicrosecondsPerRoundTrip(*channel, request, requests);
    }
    echo.join();
    close(listener);

    // The service, with its activity list going nowhere.
    const std::string servicePath = (folder / "service.sock").string();
    setenv("VELMAR_PIPE", servicePath.c_str(), 1);
    setenv("VELMAR_MAPI_PROFILES", (folder / "none.ini").c_str(), 1);
    setenv("XDG_DATA_HOME", (folder / "data").c_str(), 1);
    double serviceTime = -1;
    {
        velmar::test::CServiceProcess service(VELMAR_SERVICE_PROGRAM, {}, "/dev/null");
        std::unique_ptr<velmar::tools::IClientChannel> channel;
        for (int attempt = 0; attempt < 200 && !channel; ++attempt) {
            channel = velmar::tools::ConnectToService(error);
            if (!channel) std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        if (channel) {
            MicrosecondsPerRoundTrip(*channel, request, 200);  // warm up: MAPI loaded, pages touched
            serviceTime = MicrosecondsPerRoundTrip(*channel, request, requests);
            channel->Send(R"({"command-target":"MAPI","command":"CloseVelmarTaskScheduler"})");
        }
        service.WaitForExit(10000);
    }
    fs::remove_all(folder);
    if (echoTime <= 0 || serviceTime <= 0) {
        std::fprintf(stderr, "a round trip failed\n");
        return 1;
    }
    std::printf("raw echo round trip:             %.1f us\n", echoTime);
    std::printf("IsMAPIDllInitialized round trip: %.1f us\n", serviceTime);
    std::printf("ratio service / echo:            %.2f\n", serviceTime / echoTime);
    return 0;
}
