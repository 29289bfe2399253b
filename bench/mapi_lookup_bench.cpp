// Message-ID lookup in a large Maildir inbox through our MAPI, as the mail layer makes it.
// Prints: the time to read every file's header bytes (the baseline), the first contents table of the
// inbox (the cold index), warm lookups (GetContentsTable + Restrict + QueryRows) and the lookup after one
// delivery (a refresh), with ratios, and the memory the index holds: the growth of the resident set while
// it is built, per indexed message.
//   mapi_lookup_bench [messages=100000] [lookups=2000]
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "bench/BenchInbox.h"
#include "mapiutil.h"
#include "support/ComPtr.h"

namespace {

using Clock = std::chrono::steady_clock;
using velmar::CComPtr;
namespace fs = std::filesystem;

double Seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

// The resident set of this process in bytes, from /proc/self/statm (its second field, in pages).
long long ResidentBytes() {
    std::ifstream statm("/proc/self/statm");
    long long totalPages = 0;
    long long residentPages = 0;
    if (!(statm >> totalPages >> residentPages)) return 0;
    return residentPages * sysconf(_SC_PAGESIZE);
}

size_t ReadHeaders(const fs::path& folder) {
    size_t total = 0;
    char buffer[4096];
    for (const auto& entry : fs::directory_iterator(folder)) {
        const int fd = open(entry.path().c_str(), O_RDONLY);
        if (fd < 0) continue;
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got > 0) total += static_cast<size_t>(got);
        close(fd);
    }
    return total;
}

CComPtr<IMAPIFolder> OpenInbox(CComPtr<IMAPISession>& session, CComPtr<IMsgStore>& store) {
    if (FAILED(MAPILogonEx(0, const_cast<LPTSTR>(L"Bench"), nullptr, MAPI_UNICODE | MAPI_EXTENDED,
                           session.Put())))
        return {};
    CComPtr<IMAPITable> stores;
    LPSRowSet rows = nullptr;
    if (FAILED(session->GetMsgStoresTable(0, stores.Put())) ||
        FAILED(HrQueryAllRows(stores.get(), nullptr, nullptr, nullptr, 0, &rows)))
        return {};
    const SPropValue* id = PpropFindProp(rows->aRow[0].lpProps, rows->aRow[0].cValues, PR_ENTRYID);
    const HRESULT hr =
        session->OpenMsgStore(0, id->Value.bin.cb, reinterpret_cast<LPENTRYID>(id->Value.bin.lpb), nullptr,
                              MAPI_BEST_ACCESS, store.Put());
    FreeProws(rows);
    ULONG type = 0;
    LPUNKNOWN inbox = nullptr;
    if (FAILED(hr) || FAILED(store->OpenEntry(0, nullptr, nullptr, 0, &type, &inbox))) return {};
    return CComPtr<IMAPIFolder>(static_cast<IMAPIFolder*>(inbox));
}

// One lookup as the mail layer makes it; true when exactly the wanted message came back.
bool Lookup(IMAPIFolder* inbox, const std::string& messageId, bool freshTable, CComPtr<IMAPITable>& table) {
    if (freshTable && FAILED(inbox->GetContentsTable(0, table.Put()))) return false;
    SPropValue value{};
    value.ulPropTag = PR_INTERNET_MESSAGE_ID_A;
    value.Value.lpszA = const_cast<LPSTR>(messageId.c_str());
    SRestriction restriction{};
    restriction.rt = RES_PROPERTY;
    restriction.res.resProperty = {RELOP_EQ, PR_INTERNET_MESSAGE_ID_A, &value};
    LPSRowSet rows = nullptr;
    if (FAILED(table->Restrict(&restriction, 0)) || FAILED(table->QueryRows(1, 0, &rows))) return false;
    const bool found = rows && rows->cRows == 1;
    FreeProws(rows);
    return found;
}

}  // namespace

int main(int argc, char** argv) {
    const int messages = argc > 1 ? std::atoi(argv[1]) : 100000;
    const int lookups = argc > 2 ? std::atoi(argv[2]) : 2000;
    const fs::path root = fs::temp_directory_path() / ("velmar-bench-" + std::to_string(getpid()));
    fs::create_directories(root);
    std::ofstream(root / "profiles.ini") << "[Bench]\nstore1.name = Bench\nstore1.path = inbox\n";
    setenv("VELMAR_MAPI_PROFILES", (root / "profiles.ini").c_str(), 1);

    std::printf("generating %d messages in %s\n", messages, root.c_str());
    velmar::bench::WriteBenchInbox(root / "inbox", messages);
    sync();    // the written files reach the disk now, not while the lookups are timed
    sleep(2);  // folder times of the current second are not trusted by the index

    auto start = Clock::now();
    const size_t headerBytes = ReadHeaders(root / "inbox" / "cur");
    const double baseline = Seconds(start);

    MAPIInitialize(nullptr);
    {
        CComPtr<IMAPISession> session;
        CComPtr<IMsgStore> store;
        const long long residentBefore = ResidentBytes();
        start = Clock::now();
        CComPtr<IMAPIFolder> inbox = OpenInbox(session, store);
        CComPtr<IMAPITable> table;
        if (!inbox || FAILED(inbox->GetContentsTable(0, table.Put()))) {
            std::fprintf(stderr, "cannot open the inbox\n");
            return 1;
        }
        const double cold = Seconds(start);
        // The table holds the index's snapshot, so everything the index keeps is still resident here.
        const long long indexBytes = ResidentBytes() - residentBefore;

        std::mt19937 random(42);
        int found = 0;
        start = Clock::now();
        for (int i = 0; i < lookups; ++i)
            found += Lookup(inbox.get(), velmar::bench::BenchMessageId(static_cast<int>(random() % messages)),
                            true, table);
        const double warmWithTable = Seconds(start) / lookups;
        start = Clock::now();
        for (int i = 0; i < lookups; ++i)
            found += Lookup(inbox.get(), velmar::bench::BenchMessageId(static_cast<int>(random() % messages)),
                            false, table);
        const double warmRestrict = Seconds(start) / lookups;

        // One delivery: the next table lists the folder again, but only the new file is read.
        const std::string newId = velmar::bench::BenchMessageId(messages);
        std::ofstream(root / "inbox" / "new" / "1700000001.M0P2.bench")
            << velmar::bench::BenchMessageText(messages);
        start = Clock::now();
        const bool delivered = Lookup(inbox.get(), newId, true, table);
        const double refresh = Seconds(start);

        std::printf("header bytes read (baseline):   %.3f s for %zu bytes (%.1f MB/s)\n", baseline,
                    headerBytes, headerBytes / baseline / 1e6);
        std::printf("cold index (first table):       %.3f s, %.2f x the baseline\n", cold, cold / baseline);
        std::printf("index memory (resident growth): %.1f MB, %.0f bytes per indexed message\n",
                    static_cast<double>(indexBytes) / 1e6, static_cast<double>(indexBytes) / messages);
        std::printf("warm lookup, new table:         %.1f us\n", warmWithTable * 1e6);
        std::printf("warm lookup, Restrict+QueryRows: %.1f us (%.5f x the baseline per message read)\n",
                    warmRestrict * 1e6, warmRestrict / (baseline / messages));
        std::printf("refresh after one delivery:     %.3f s, %.3f x the cold index%s\n", refresh,
                    refresh / cold, delivered ? "" : " (the new message was NOT found)");
        std::printf("lookups that found their message: %d of %d\n", found, 2 * lookups);
    }
    MAPIUninitialize();
    fs::remove_all(root);
    return 0;
}
