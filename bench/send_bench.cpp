// SendEmail of a message with a 5 MB attachment through the real service to a real SMTP server on loopback
// (the tests' aiosmtpd server), against the curl program sending the same MIME bytes to the same server, in
// one run:
//   - from the request to the server's acceptance, median of the rounds, with its ratio to curl's;
//   - the SendEmail reply's round trip (the message is queued, not yet delivered) next to the round trip of
//     IsMAPIDllInitialized.
//   send_bench [rounds=7]
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/ServiceProcess.h"
#include "tests/SmtpTestServer.h"
#include "tests/TestFiles.h"
#include "tools/ClientChannel.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

double Median(std::vector<double> values) {
    if (values.empty()) return -1;
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

double MillisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Runs the curl program to send the file; its milliseconds, negative on failure.
double CurlSend(const std::string& url, const fs::path& file) {
    std::vector<std::string> arguments{"curl",          "-s",         "--url",       url,
                                       "--mail-from",   "one@x",      "--mail-rcpt", "anna@remote.example",
                                       "--upload-file", file.string()};
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    const auto start = Clock::now();
    pid_t child = -1;
    if (posix_spawnp(&child, "curl", nullptr, nullptr, argv.data(), environ) != 0) return -1;
    int status = 0;
    waitpid(child, &status, 0);
    const double elapsed = MillisecondsSince(start);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? elapsed : -1;
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 7;
    velmar::test::CTempDir dir;
    velmar::test::CSmtpTestServer server(dir.Path() / "smtp");
    if (server.Port() == 0) {
        std::fprintf(stderr, "the SMTP test server did not start\n");
        return 1;
    }
    velmar::test::WriteFile(
        dir.Path() / "profiles.ini",
        "[Velmar]\nstore1.name = Eins\nstore1.path = one\nstore1.address = one@x\nsmtp.url = " +
            server.Url() + "\n");
    std::string attachment(5 * 1024 * 1024, '\0');
    std::mt19937 random(7);
    for (char& c : attachment) c = static_cast<char>(random());
    velmar::test::WriteFile(dir.Path() / "Anlage.bin", attachment);
    velmar::test::SetEnvironment("VELMAR_MAPI_PROFILES", (dir.Path() / "profiles.ini").string());
    velmar::test::SetEnvironment("VELMAR_PIPE", (dir.Path() / "service.sock").string());
    velmar::test::SetEnvironment("TMPDIR", dir.Path().string());

    velmar::test::CServiceProcess service(VELMAR_SERVICE_PROGRAM, {"--headless"}, (dir.Path() / "activity.log").string());
    std::unique_ptr<velmar::tools::IClientChannel> channel;
    for (int attempt = 0; attempt < 200 && !channel; ++attempt) {
        std::string error;
        channel = velmar::tools::ConnectToService(error);
        if (!channel) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    const auto ask = [&](const std::string& request) {
        std::string reply;
        return channel && channel->Send(request) && channel->Receive(reply, 120000);
    };
    if (!ask(R"({"command-target":"MAPI","command":"Logon","data_string":"Velmar"})") ||
        !ask(R"({"command-target":"MAPI","command":"OpenMessageStoreTable"})")) {
        std::fprintf(stderr, "the service does not answer\n");
        return 1;
    }

    const std::string send =
        R"({"command-target":"MAPI","command":"SendEmail","subject":"Messung","body":"Text",)"
        R"("recipientsTo":["anna@remote.example"],"attachmentFiles":[")" +
        (dir.Path() / "Anlage.bin").string() + R"("],"outlookForceSend":false})";
    std::vector<double> serviceTimes, replyTimes, curlTimes, pingTimes;
    for (int round = 0; round < rounds; ++round) {
        const size_t before = server.Count();
        const auto start = Clock::now();
        if (!ask(send)) return 1;
        replyTimes.push_back(MillisecondsSince(start));
        // Accepted when the server has written it; looked at every millisecond.
        while (server.Count() == before && MillisecondsSince(start) < 60000)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        serviceTimes.push_back(MillisecondsSince(start));

        // The same bytes the server received, sent again by curl.
        const std::vector<velmar::test::CReceivedMail> mails = server.Messages();
        velmar::test::WriteFile(dir.Path() / "same.eml", mails.back().data);
        curlTimes.push_back(CurlSend(server.Url(), dir.Path() / "same.eml"));

        const auto ping = Clock::now();
        if (!ask(R"({"command-target":"MAPI","command":"IsMAPIDllInitialized"})")) return 1;
        pingTimes.push_back(MillisecondsSince(ping));
    }
    const double serviceMs = Median(serviceTimes);
    const double curlMs = Median(curlTimes);
    std::printf("SendEmail with a 5 MB attachment, request to acceptance: %.1f ms (median of %d)\n",
                serviceMs, rounds);
    std::printf("curl, the same MIME bytes to the same server:            %.1f ms\n", curlMs);
    std::printf("ratio service / curl:                                    %.2f\n",
                curlMs > 0 ? serviceMs / curlMs : -1);
    std::printf("SendEmail reply round trip (queued, not delivered):      %.2f ms\n", Median(replyTimes));
    std::printf("IsMAPIDllInitialized round trip:                         %.3f ms\n", Median(pingTimes));
    ask(R"({"command-target":"MAPI","command":"CloseVelmarTaskScheduler"})");
    service.WaitForExit(10000);
    return 0;
}
