// "GetMessageData" of a 10 MB message with five attachments, two of them inline images that are exported,
// through the real service, against copying the same bytes on the same disk. Prints both and the ratio.
// Then the round trip of "IsMAPIDllInitialized" while 8 clients ask for that message without pause, against
// the same round trip without them.
//   message_data_bench [rounds=10]
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "harness/ServiceProcess.h"
#include "tools/ClientChannel.h"

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

std::string Base64Lines(size_t bytes, char seed) {
    static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    const size_t quads = bytes / 3;
    for (size_t i = 0; i < quads; ++i) {
        for (int j = 0; j < 4; ++j)
            text += kAlphabet[(i * 7 + static_cast<size_t>(j) * 13 + static_cast<size_t>(seed)) % 64];
        if (i % 19 == 18) text += '\n';
    }
    return text + '\n';
}

std::string BigMessage() {
    std::string text =
        "From: Bench <bench@example.org>\nTo: Empfaenger <me@example.com>\nSubject: Grosse Nachricht\n"
        "Message-ID: <big-bench@example.org>\nMIME-Version: 1.0\nContent-Type: multipart/mixed; "
        "boundary=m\n\n"
        "--m\nContent-Type: multipart/related; boundary=r\n\n--r\nContent-Type: text/html; charset=utf-8\n\n"
        "<html><body><p>Bilder:</p><img src=\"cid:one@bench\"><img src=\"cid:two@bench\"></body></html>\n";
    const char* inlineIds[] = {"one@bench", "two@bench"};
    for (int i = 0; i < 2; ++i)
        text += std::string("--r\nContent-Type: image/png; name=\"bild") + std::to_string(i) +
                ".png\"\nContent-ID: <" + inlineIds[i] + ">\nContent-Transfer-Encoding: base64\n\n" +
                Base64Lines(768 * 1024, static_cast<char>(i)) + "\n";
    text += "--r--\n";
    for (int i = 0; i < 3; ++i)
        text +=
            "--m\nContent-Type: application/octet-stream\nContent-Disposition: attachment; "
            "filename=\"anhang" +
            std::to_string(i) + ".bin\"\nContent-Transfer-Encoding: base64\n\n" +
            Base64Lines(1900 * 1024, static_cast<char>(10 + i)) + "\n";
    return text + "--m--\n";
}

const std::string kAskMapi = R"({"command-target":"MAPI","command":"IsMAPIDllInitialized"})";

// Median microseconds of count round trips of request; negative when one fails.
double MedianRoundTrip(velmar::tools::IClientChannel& channel, const std::string& request, int count) {
    std::vector<double> times;
    std::string reply;
    for (int i = 0; i < count; ++i) {
        const auto start = Clock::now();
        if (!channel.Send(request) || !channel.Receive(reply, 60000)) return -1;
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 10;
    const fs::path folder = fs::temp_directory_path() / ("velmar-message-bench-" + std::to_string(getpid()));
    fs::create_directories(folder / "mail" / "cur");
    fs::create_directories(folder / "tmp");
    const fs::path messageFile = folder / "mail" / "cur" / "1700000000.M1P1.bench:2,S";
    const std::string message = BigMessage();
    std::ofstream(messageFile, std::ios::binary) << message;
    std::ofstream(folder / "profiles.ini") << "[Bench]\nstore1.name = Bench\nstore1.path = mail\n";

    // Baseline: copying the message's bytes to another file on the same disk.
    auto start = Clock::now();
    for (int i = 0; i < rounds; ++i)
        fs::copy_file(messageFile, folder / "copy.eml", fs::copy_options::overwrite_existing);
    const double copySeconds = std::chrono::duration<double>(Clock::now() - start).count() / rounds;

    setenv("VELMAR_PIPE", (folder / "service.sock").c_str(), 1);
    setenv("VELMAR_MAPI_PROFILES", (folder / "profiles.ini").c_str(), 1);
    setenv("TMPDIR", (folder / "tmp").c_str(), 1);
    double requestSeconds = -1;
    size_t replyBytes = 0;
    double idleRoundTrip = -1;
    double loadedRoundTrip = -1;
    {
        velmar::test::CServiceProcess service(VELMAR_SERVICE_PROGRAM, {"--headless"}, "/dev/null");
        std::string error;
        std::unique_ptr<velmar::tools::IClientChannel> channel;
        for (int attempt = 0; attempt < 200 && !channel; ++attempt) {
            channel = velmar::tools::ConnectToService(error);
            if (!channel) std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        std::string reply;
        const std::string request =
            R"({"command-target":"MAPI","command":"GetMessageData","messageId":"<big-bench@example.org>",)"
            R"("profileName":"Bench","storeIndex":0})";
        if (channel &&
            channel->Send(R"({"command-target":"MAPI","command":"Logon","data_string":"Bench"})") &&
            channel->Receive(reply, 10000) &&
            channel->Send(R"({"command-target":"MAPI","command":"OpenMessageStoreTable"})") &&
            channel->Receive(reply, 10000)) {
            start = Clock::now();
            bool ok = true;
            for (int i = 0; i < rounds && ok; ++i)
                ok = channel->Send(request) && channel->Receive(reply, 60000) &&
                     reply.find("\"status\": \"OK\"") != std::string::npos;
            if (ok) requestSeconds = std::chrono::duration<double>(Clock::now() - start).count() / rounds;
            replyBytes = reply.size();
            idleRoundTrip = MedianRoundTrip(*channel, kAskMapi, 300);
            std::atomic<bool> stop{false};
            std::vector<std::thread> loaders;
            for (int i = 0; i < 8; ++i)
                loaders.emplace_back([&] {
                    std::string loadError;
                    auto own = velmar::tools::ConnectToService(loadError);
                    std::string loadReply;
                    while (own && !stop && own->Send(request) && own->Receive(loadReply, 60000)) {
                    }
                });
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            loadedRoundTrip = MedianRoundTrip(*channel, kAskMapi, 300);
            stop = true;
            for (std::thread& loader : loaders) loader.join();
            channel->Send(R"({"command-target":"MAPI","command":"CloseVelmarTaskScheduler"})");
        }
        service.WaitForExit(10000);
    }
    fs::remove_all(folder);
    if (requestSeconds < 0) {
        std::fprintf(stderr, "GetMessageData failed\n");
        return 1;
    }
    std::printf("message of %.1f MB, 5 attachments (2 inline images exported), reply of %zu bytes\n",
                message.size() / 1e6, replyBytes);
    std::printf("copy of the same bytes:  %.1f ms\n", copySeconds * 1e3);
    std::printf("GetMessageData:          %.1f ms\n", requestSeconds * 1e3);
    std::printf("ratio request / copy:    %.2f\n", requestSeconds / copySeconds);
    std::printf(
        "IsMAPIDllInitialized, median round trip: %.1f us alone, %.1f us beside 8 clients of that "
        "message, ratio %.2f\n",
        idleRoundTrip, loadedRoundTrip, loadedRoundTrip / idleRoundTrip);
    return 0;
}
