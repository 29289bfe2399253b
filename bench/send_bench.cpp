// SendEmail of a message with a 5 MB attachment through the real service to a real SMTP server on loopback
// (the tests' aiosmtpd server), against the curl program sending the same MIME bytes to the same server, in
// one run:
//   - from the request to the server's acceptance, median of the rounds, with its ratio to curl's;
//   - the SendEmail reply's round trip (the message is queued, not yet delivered) next to the round trip of
//     IsMAPIDllInitialized;
//   - SendEmail to 2,000 recipients: its reply's round trip (target: within 2 s), and the longest wait of
//     another client's GetMessageData, asked over and over meanwhile, against its wait when nothing else
//     runs.
//   send_bench [rounds=7]
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "harness/ServiceProcess.h"
#include "harness/SmtpTestServer.h"
#include "harness/TestFiles.h"
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

std::unique_ptr<velmar::tools::IClientChannel> Connect() {
    std::unique_ptr<velmar::tools::IClientChannel> channel;
    for (int attempt = 0; attempt < 200 && !channel; ++attempt) {
        std::string error;
        channel = velmar::tools::ConnectToService(error);
        if (!channel) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return channel;
}

bool Ask(velmar::tools::IClientChannel* channel, const std::string& request) {
    std::string reply;
    return channel && channel->Send(request) && channel->Receive(reply, 120000);
}

// SendEmail with this many recipients, built as the clients build it.
std::string SendToMany(int recipients) {
    std::string request =
        R"({"command-target":"MAPI","command":"SendEmail","subject":"Rundschreiben","body":"Text",)"
        R"("recipientsTo":[)";
    for (int i = 0; i < recipients; ++i)
        request += (i ? ",\"" : "\"") + std::string("empfaenger") + std::to_string(i) + "@remote.example\"";
    return request + R"(],"outlookForceSend":false})";
}

// The longest round trip of request, asked over and over on its own connection until stop is set; 0 when
// no answer came.
double LongestWhile(const std::string& request, const std::atomic<bool>& stop, int& answered) {
    const std::unique_ptr<velmar::tools::IClientChannel> channel = Connect();
    double longest = 0;
    answered = 0;
    while (!stop) {
        const auto start = Clock::now();
        if (!Ask(channel.get(), request)) return 0;
        longest = std::max(longest, MillisecondsSince(start));
        ++answered;
    }
    return longest;
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
    velmar::test::WriteFile(dir.Path() / "one" / "new" / "1700000000.M1P1.bench",
                            "From: a@example.org\nMessage-ID: <other@bench>\nSubject: Lesen\n\nText\n");
    velmar::test::SetEnvironment("VELMAR_MAPI_PROFILES", (dir.Path() / "profiles.ini").string());
    velmar::test::SetEnvironment("VELMAR_PIPE", (dir.Path() / "service.sock").string());
    velmar::test::SetEnvironment("TMPDIR", dir.Path().string());

    velmar::test::CServiceProcess service(VELMAR_SERVICE_PROGRAM, {"--headless"},
                                          (dir.Path() / "activity.log").string());
    const std::unique_ptr<velmar::tools::IClientChannel> channel = Connect();
    const auto ask = [&](const std::string& request) { return Ask(channel.get(), request); };
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

    // 2,000 recipients, with another client reading a message meanwhile.
    const std::string read =
        R"({"command-target":"MAPI","command":"GetMessageData","messageId":"<other@bench>",)"
        R"("profileName":"Velmar","storeIndex":0})";
    std::atomic<bool> stop{false};
    int answered = 0;
    std::thread quiet([&] {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        stop = true;
    });
    const double alone = LongestWhile(read, stop, answered);
    quiet.join();
    const int manyRounds = std::max(1, rounds / 3);
    std::vector<double> manyTimes;
    double longestRead = 0;
    int readsDuring = 0;
    for (int round = 0; round < manyRounds; ++round) {
        stop = false;
        double longest = 0;
        int count = 0;
        std::thread reader([&] { longest = LongestWhile(read, stop, count); });
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const auto start = Clock::now();
        if (!ask(SendToMany(2000))) return 1;
        manyTimes.push_back(MillisecondsSince(start));
        stop = true;
        reader.join();
        longestRead = std::max(longestRead, longest);
        readsDuring += count;
    }
    std::printf("SendEmail to 2,000 recipients, reply round trip:         %.1f ms (median of %d)\n",
                Median(manyTimes), manyRounds);
    std::printf("GetMessageData of another client meanwhile, longest:     %.1f ms (%d answered)\n",
                longestRead, readsDuring);
    std::printf("GetMessageData alone, longest in 1 s:                    %.1f ms (%d answered)\n", alone,
                answered);
    ask(R"({"command-target":"MAPI","command":"CloseVelmarTaskScheduler"})");
    service.WaitForExit(10000);
    return 0;
}
