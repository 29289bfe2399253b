// An IMAP store of a large inbox on a private Dovecot (as root), against baselines of the same run:
//  - the initial index of the inbox against one "UID FETCH 1:* (UID FLAGS BODY.PEEK[HEADER.FIELDS
//    (MESSAGE-ID SUBJECT)])" read by a plain client over the same transport (Dovecot's imap program
//    logged in, over a pipe: no network and no TLS on either side), each from its start to the end; the
//    index's second fetch, of internal dates and sizes, is timed too, beside it;
//  - a warm FindMessage through the service on the IMAP store against the same lookup on a Maildir store
//    of the same messages;
//  - a restart with the index on disk: the first lookup's answer after the logon;
//  - a message delivered while the service runs: how long until a lookup finds it;
//  - GetMessageData of two messages with a large attachment, which stays on the server (the first open
//    selects the folder, the next finds it selected), against a plain client's SELECT and fetch of the
//    whole message over the same transport (what each open took when messages came whole), in time and in
//    bytes fetched.
//   imap_bench [messages=100000] [lookups=1000]
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/BenchInbox.h"
#include "bench/BenchSockets.h"
#include "harness/DovecotServer.h"
#include "harness/ServiceProcess.h"
#include "harness/TestFiles.h"
#include "mapi/imap/ImapConnection.h"
#include "mapi/imap/ImapSync.h"
#include "support/FramedSocket.h"

extern char** environ;

namespace {

using velmar::bench::Ask;

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? -1 : values[values.size() / 2];
}

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// The plain client: the tunnel command started on a socket, two commands written, and the answer read to
// the FETCH's tagged OK. Seconds from the start of the tunnel to the FETCH's end (what our index does, too,
// from nothing); -1 on failure.
double PlainFetch(const std::string& tunnel, size_t& bytes) {
    const auto start = Clock::now();
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    const char* argv[] = {"/bin/sh", "-c", tunnel.c_str(), nullptr};
    pid_t child = -1;
    posix_spawn(&child, "/bin/sh", &actions, nullptr, const_cast<char* const*>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    const int fd = ends[0];
    std::string received;
    char buffer[1 << 16];
    const auto readUntil = [&](const std::string& end) {
        while (received.find(end) == std::string::npos) {
            const ssize_t got = read(fd, buffer, sizeof buffer);
            if (got <= 0) return false;
            received.append(buffer, static_cast<size_t>(got));
            // Only the tail matters for the end; the bytes are counted and dropped.
            if (received.size() > (1 << 20)) {
                bytes += received.size() - 4096;
                received.erase(0, received.size() - 4096);
            }
        }
        return true;
    };
    const std::string select = "a SELECT INBOX\r\n";
    double seconds = -1;
    if (write(fd, select.data(), select.size()) == static_cast<ssize_t>(select.size()) &&
        readUntil("\r\na OK")) {
        received.clear();
        const std::string fetch =
            "b UID FETCH 1:* (UID FLAGS BODY.PEEK[HEADER.FIELDS (MESSAGE-ID SUBJECT)])\r\n";
        if (write(fd, fetch.data(), fetch.size()) == static_cast<ssize_t>(fetch.size()) &&
            readUntil("\r\nb OK"))
            seconds = SecondsSince(start);
        bytes += received.size();
    }
    const std::string logout = "c LOGOUT\r\n";
    if (write(fd, logout.data(), logout.size()) < 0) {
        // The program ends anyway once its input closes.
    }
    close(fd);
    waitpid(child, nullptr, 0);
    return seconds;
}

velmar::mapi::CStoreConfig TunnelStore(const std::string& tunnel) {
    velmar::mapi::CStoreConfig store;
    store.displayName = L"Firma";
    store.id = 0xbe7c4;
    store.imap.emplace();
    store.imap->tunnel = tunnel;
    store.imap->host = "localhost";
    return store;
}

struct CIndexTimes {
    double findable = -1;  // seconds until the whole inbox is in the index, for lookups
    double detailed = -1;  // and until its internal dates and sizes are there, too
};

// A new sync over an empty cache, until its index of the inbox is complete.
CIndexTimes InitialIndex(const std::string& tunnel, const fs::path& cache, int messages) {
    fs::remove_all(cache);
    setenv("XDG_CACHE_HOME", cache.c_str(), 1);
    const auto start = Clock::now();
    const std::shared_ptr<velmar::mapi::CImapSync> sync =
        velmar::mapi::CImapSync::ForStore(TunnelStore(tunnel));
    CIndexTimes times;
    for (int i = 0; i < 120000 && times.detailed < 0; ++i) {
        const auto snapshot = sync->Snapshot(velmar::mapi::kImapInbox);
        if (snapshot && snapshot->RowCount() >= static_cast<size_t>(messages)) {
            if (times.findable < 0) times.findable = SecondsSince(start);
            if (snapshot->Message(snapshot->RowCount() - 1).size != 0) times.detailed = SecondsSince(start);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    velmar::mapi::CImapSync::StopAll();
    return times;
}

bool IsOk(const std::string& reply) {
    return reply.find("\"status\": \"OK\"") != std::string::npos;
}

std::string FindRequest(const std::string& id) {
    return R"({"command-target":"MAPI","command":"FindMessage","messageId":")" + id + R"("})";
}

// Median microseconds of FindMessage on the store of that name, random messages of the inbox.
double MedianFind(velmar::CFramedSocket& socket, const char* store, int messages, int lookups, bool& ok) {
    ok = ok &&
         IsOk(Ask(socket,
                  std::string(R"({"command-target":"MAPI","command":"SetMessageStore","data_string":")") +
                      store + "\"}"));
    std::mt19937 random(7);
    std::uniform_int_distribution<int> pick(0, messages - 1);
    std::vector<double> times;
    for (int i = 0; i < lookups; ++i) {
        const std::string request = FindRequest(velmar::bench::BenchMessageId(pick(random)));
        const auto start = Clock::now();
        ok = ok && IsOk(Ask(socket, request));
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    return Median(times);
}

constexpr size_t kAttachmentBytes = 8 * 1024 * 1024;

std::string LargeId(int n) {
    return "<gross-" + std::to_string(n) + "@bench.example.org>";
}

// A short HTML letter with an attachment of kAttachmentBytes that do not compress.
std::string LargeAttachmentMessage(int n) {
    std::string attachment(kAttachmentBytes, '\0');
    std::mt19937 random(static_cast<unsigned>(n));
    for (char& byte : attachment) byte = static_cast<char>(random());
    return "From: Sender <sender@example.org>\nTo: bench@example.com\nSubject: Bericht mit Anhang\n"
           "Message-ID: " +
           LargeId(n) +
           "\nMIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=\"grenze\"\n\n"
           "--grenze\nContent-Type: text/html; charset=utf-8\n\n<p>Der Bericht liegt bei.</p>\n"
           "--grenze\nContent-Type: application/octet-stream\n"
           "Content-Disposition: attachment; filename=\"bericht.bin\"\nContent-Transfer-Encoding: "
           "base64\n\n" +
           velmar::test::Base64(attachment) + "\n--grenze--\n";
}

// Seconds of the first GetMessageData of the message that answers OK: the attempts before, while the
// message is not yet found, open nothing.
double OpenWhenFound(velmar::CFramedSocket& socket, const std::string& id, bool& ok) {
    const std::string request =
        R"({"command-target":"MAPI","command":"GetMessageData","messageId":")" + id +
        R"(","profileName":"Bench","storeIndex":1,"setReadIfMainMessageStore":"false"})";
    for (int i = 0; i < 3000; ++i) {
        const auto start = Clock::now();
        if (IsOk(Ask(socket, request))) return SecondsSince(start);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ok = false;
    return -1;
}

// Seconds a plain client takes to open the inbox's last message as a whole (SELECT INBOX, then UID FETCH
// n BODY.PEEK[]), once logged in.
double WholeMessageFetch(const std::string& tunnel, size_t& bytes) {
    velmar::mapi::CImapConnection connection;
    std::string error;
    velmar::mapi::CImapMailboxState state;
    std::vector<std::uint32_t> uids;
    std::string message;
    if (!connection.Open(TunnelStore(tunnel).imap.value(), "", error) ||
        !connection.Select(velmar::mapi::kImapInbox, state, error) || !connection.FetchUids(uids, error) ||
        uids.empty())
        return -1;
    // The server's look at the folder that FetchUids needed is done again, as part of the figure.
    const auto start = Clock::now();
    if (!connection.Select(velmar::mapi::kImapInbox, state, error) ||
        !connection.FetchMessage(uids.back(), message, error))
        return -1;
    const double seconds = SecondsSince(start);
    bytes = message.size();
    return seconds;
}

int ConnectService(const std::string& path) {
    int fd = -1;
    for (int attempt = 0; attempt < 400 && fd < 0; ++attempt) {
        fd = velmar::bench::Connect(path);
        if (fd < 0) std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    return fd;
}

}  // namespace

int main(int argc, char** argv) {
    const int messages = argc > 1 ? std::atoi(argv[1]) : 100000;
    const int lookups = argc > 2 ? std::atoi(argv[2]) : 1000;
    if (geteuid() != 0) {
        std::puts("imap_bench: skipped, the private Dovecot runs as root");
        return 0;
    }
    const fs::path root = fs::temp_directory_path() / ("velmar-imap-bench-" + std::to_string(getpid()));
    std::printf("generating %d messages on the server and in a Maildir under %s\n", messages, root.c_str());
    velmar::test::CDovecotServer server(root / "dovecot", {"bench"});
    if (!server.Ready()) {
        std::puts("imap_bench: Dovecot did not start");
        return 1;
    }
    velmar::bench::WriteBenchInbox(server.MailboxPath("bench", "INBOX"), messages);
    velmar::test::CommandOutput("chown -R nobody:nogroup '" + (root / "dovecot/mail").string() + "'");
    velmar::bench::WriteBenchInbox(root / "maildir", messages);
    const std::string tunnel = server.Tunnel("bench");
    sync();

    // The profile of both stores, which the sync timed first runs its tunnel from, too: a tunnel counts only
    // in a profile file nobody else may change.
    std::ofstream(root / "profiles.ini") << "[Bench]\nstore1.name = Maildir\nstore1.path = maildir\n"
                                            "store1.address = me@example.com\n"
                                            "store2.name = Firma\nstore2.imaptunnel = "
                                         << tunnel << "\nstore2.address = bench@example.com\n";
    setenv("VELMAR_MAPI_PROFILES", (root / "profiles.ini").c_str(), 1);

    // The server builds its own index of the folder on the first look; that is not part of either figure.
    size_t bytes = 0;
    PlainFetch(tunnel, bytes);
    std::vector<double> plain, ours, detailed;
    for (int round = 0; round < 3; ++round) {
        bytes = 0;
        plain.push_back(PlainFetch(tunnel, bytes));
        const CIndexTimes times = InitialIndex(tunnel, root / "cache-initial", messages);
        ours.push_back(times.findable);
        detailed.push_back(times.detailed);
    }
    const double plainSeconds = Median(plain), ourSeconds = Median(ours), detailedSeconds = Median(detailed);
    std::printf(
        "initial index of %d messages: plain UID FETCH %.3f s (%zu bytes), ours %.3f s, ratio %.2f "
        "(target <= 1.5); with internal dates and sizes %.3f s, ratio %.2f\n",
        messages, plainSeconds, bytes, ourSeconds, ourSeconds / plainSeconds, detailedSeconds,
        detailedSeconds / plainSeconds);

    // The service with both stores; the IMAP store's index is built while it starts.
    setenv("XDG_CACHE_HOME", (root / "cache-service").c_str(), 1);
    setenv("XDG_DATA_HOME", (root / "data").c_str(), 1);
    setenv("TMPDIR", root.c_str(), 1);
    const std::string servicePath = (root / "service.sock").string();
    setenv("VELMAR_PIPE", servicePath.c_str(), 1);
    const std::string logon = R"({"command-target":"MAPI","command":"Logon","data_string":"Bench"})";
    const std::string storeTable = R"({"command-target":"MAPI","command":"OpenMessageStoreTable"})";
    bool ok = true;
    double maildirFind = -1, imapFind = -1, deliveredSeconds = -1, firstLargeOpen = -1, nextLargeOpen = -1;
    {
        velmar::test::CServiceProcess service(VELMAR_SERVICE_PROGRAM, {"--headless"}, "/dev/null");
        velmar::CFramedSocket socket(ConnectService(servicePath));
        ok = IsOk(Ask(socket, logon)) && IsOk(Ask(socket, storeTable));
        // Both indexes are built (and warm) before anything is timed.
        ok = ok && MedianFind(socket, "Firma", messages, 20, ok) > 0 &&
             MedianFind(socket, "Maildir", messages, 20, ok) > 0;
        maildirFind = MedianFind(socket, "Maildir", messages, lookups, ok);
        imapFind = MedianFind(socket, "Firma", messages, lookups, ok);

        // New mail on the server while the service waits in IDLE.
        server.Deliver("bench", "INBOX", velmar::bench::BenchMessageText(messages + 1));
        const auto delivered = Clock::now();
        const std::string request = FindRequest(velmar::bench::BenchMessageId(messages + 1));
        while (SecondsSince(delivered) < 30) {
            if (IsOk(Ask(socket, request))) {
                deliveredSeconds = SecondsSince(delivered);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }

        // Two messages with a large attachment: the first open selects the folder, the next finds it
        // selected.
        server.Deliver("bench", "INBOX", LargeAttachmentMessage(1));
        server.Deliver("bench", "INBOX", LargeAttachmentMessage(2));
        firstLargeOpen = OpenWhenFound(socket, LargeId(1), ok);
        nextLargeOpen = OpenWhenFound(socket, LargeId(2), ok);
        Ask(socket, R"({"command-target":"MAPI","command":"CloseVelmarTaskScheduler"})");
        service.WaitForExit(30000);
    }
    std::printf("warm FindMessage, median of %d: Maildir %.1f us, IMAP %.1f us, ratio %.2f (target <= 2)\n",
                lookups, maildirFind, imapFind, imapFind / maildirFind);
    std::printf("message delivered to the server found after %.3f s (target: within 1 s)\n",
                deliveredSeconds);
    size_t largeBytes = 0;
    const double wholeFetch = WholeMessageFetch(tunnel, largeBytes);
    // Only the large messages were opened for their content: the cache holds what was fetched of them.
    std::uintmax_t fetched = 0;
    for (const auto& entry : fs::recursive_directory_iterator(root / "cache-service"))
        if (entry.is_regular_file() && entry.path().parent_path().filename() == "messages")
            fetched += entry.file_size();
    std::printf(
        "GetMessageData of a message with an %zu MB attachment: first %.3f s, next %.3f s, %ju bytes "
        "fetched for both; a plain client's SELECT and whole FETCH %.3f s (%zu bytes); ratios %.2f "
        "and %.2f in time, %.6f in bytes\n",
        kAttachmentBytes >> 20, firstLargeOpen, nextLargeOpen, fetched, wholeFetch, largeBytes,
        firstLargeOpen / wholeFetch, nextLargeOpen / wholeFetch,
        static_cast<double>(fetched) / 2 / static_cast<double>(largeBytes));

    // A restart with the index on disk, and the server answering: the first lookup after the logon.
    double firstLookup = -1;
    {
        velmar::test::CServiceProcess service(VELMAR_SERVICE_PROGRAM, {"--headless"}, "/dev/null");
        velmar::CFramedSocket socket(ConnectService(servicePath));
        ok = ok && IsOk(Ask(socket, logon)) && IsOk(Ask(socket, storeTable)) &&
             IsOk(Ask(socket,
                      R"({"command-target":"MAPI","command":"SetMessageStore","data_string":"Firma"})"));
        const auto start = Clock::now();
        ok = ok && IsOk(Ask(socket, FindRequest(velmar::bench::BenchMessageId(messages / 2))));
        firstLookup = SecondsSince(start);
        Ask(socket, R"({"command-target":"MAPI","command":"CloseVelmarTaskScheduler"})");
        service.WaitForExit(30000);
    }
    std::printf("restart with the index on disk: first lookup answered in %.3f s (target < 1 s)\n",
                firstLookup);
    if (!ok) std::puts("imap_bench: some requests failed");
    server.Stop();
    fs::remove_all(root);
    return ok ? 0 : 1;
}
