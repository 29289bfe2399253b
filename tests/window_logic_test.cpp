// What both windows share: following the activity list in batches (lines from many threads, lines the
// trace or the bounds drop, a clear) and the command jobs with their lock.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "app/ActivityFeed.h"
#include "app/CommandJobs.h"
#include "app/WindowTexts.h"

namespace {

// A window's rows, kept up to date the way both windows do it.
struct CShownRows {
    std::vector<std::wstring> rows;
    void Apply(const CActivityFeed::CChanges& changes) {
        ASSERT_LE(changes.removeFront, rows.size());
        rows.erase(rows.begin(), rows.begin() + static_cast<ptrdiff_t>(changes.removeFront));
        rows.insert(rows.end(), changes.appended.begin(), changes.appended.end());
    }
    void CatchUp(CActivityFeed& feed) {
        CActivityFeed::CChanges changes;
        do {
            changes = feed.CatchUp(true);
            Apply(changes);
        } while (changes.more);
    }
};

TEST(ActivityFeed, FollowsLinesFromManyThreadsWithOneNoteAtATime) {
    CActivityList list;
    list.AddLine(L"before the window");
    std::atomic<int> notes{0};
    CActivityFeed feed(list, 1000, [&] { ++notes; });
    EXPECT_EQ(notes, 1) << "lines from before the window need a note too";

    CShownRows shown;
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&list, t] {
            for (int i = 0; i < 5000; ++i) list.AddLine(std::to_wstring(t) + L":" + std::to_wstring(i));
        });
    }
    // The window catches up while the lines pour in, as its event loop would.
    for (int round = 0; round < 50; ++round) shown.CatchUp(feed);
    for (auto& thread : threads) thread.join();
    shown.CatchUp(feed);

    EXPECT_EQ(shown.rows, list.Lines());
    ASSERT_EQ(shown.rows.size(), 40001u);
    // Each thread's lines in its order.
    std::vector<int> next(8, 0);
    for (size_t i = 1; i < shown.rows.size(); ++i) {
        const int thread = std::stoi(shown.rows[i]);
        EXPECT_EQ(shown.rows[i], std::to_wstring(thread) + L":" + std::to_wstring(next[thread]++));
    }
    EXPECT_LT(notes, 40001) << "one note per line would flood the window";
}

TEST(ActivityFeed, DroppedAndClearedLinesLeaveTheTopInBatches) {
    CActivityList list;
    std::atomic<int> notes{0};
    CActivityFeed feed(list, 700, [&] { ++notes; });
    CShownRows shown;
    for (int i = 0; i < 2000; ++i) list.AddLine(L"service " + std::to_wstring(i));
    shown.CatchUp(feed);
    // The trace keeps the list at 3000 lines: the oldest go as new ones come.
    for (int i = 0; i < 5000; ++i) list.AddTraceLine(L"trace " + std::to_wstring(i));
    CActivityFeed::CChanges first = feed.CatchUp(true);
    EXPECT_TRUE(first.more);
    EXPECT_EQ(first.appended.size(), 700u) << "one batch at a time";
    shown.Apply(first);
    shown.CatchUp(feed);
    EXPECT_EQ(shown.rows, list.Lines());
    EXPECT_EQ(shown.rows.back(), L"trace 4999");

    // Cleared, then more lines before the window looked: all old rows go, the new ones come.
    list.Clear();
    list.AddLine(L"after the clear");
    shown.CatchUp(feed);
    EXPECT_EQ(shown.rows, std::vector<std::wstring>{L"after the clear"});
    EXPECT_EQ(feed.ShownCount(), 1u);
    EXPECT_EQ(list.LineAt(feed.FirstShown()), L"after the clear");

    // A window that reads rows itself (no copies) gets counts only.
    list.AddLine(L"one more");
    const CActivityFeed::CChanges counts = feed.CatchUp(false);
    EXPECT_EQ(counts.appendCount, 1u);
    EXPECT_TRUE(counts.appended.empty());
    EXPECT_EQ(list.LineAt(counts.appendFirst), L"one more");
}

class CRecordingPrinter : public IPrintJobHost {
public:
    void RecreateDialog(size_t index) override { calls.push_back(L"recreate " + std::to_wstring(index)); }
    void AddPrintJob(size_t index, const std::vector<std::wstring>& group) override {
        std::wstring call = L"job " + std::to_wstring(index);
        for (const auto& text : group) call += L" " + text;
        calls.push_back(call);
    }
    void StartPrinting(size_t index) override { calls.push_back(L"start " + std::to_wstring(index)); }
    void DestroyDialog(size_t index) override { calls.push_back(L"destroy " + std::to_wstring(index)); }
    std::vector<std::wstring> calls;
};

TEST(CommandJobs, PrintJobsRunInCompleteGroupsOfFiveAndOpenMailAsksBeforeClosing) {
    CCommandJobs jobs;
    CActivityList activity;
    CRecordingPrinter printer;
    EXPECT_FALSE(jobs.HasOpenMail());
    ASSERT_EQ(jobs.Add({L"PRINTHTML", L"a.html", L"*", L"a.css", L"1", L"*", L"b.html", L"t.htm", L"b.css",
                        L"0", L"Drucker", L"c.html"}),
              0u);
    jobs.Run(0, 1, activity, &printer);
    EXPECT_EQ(printer.calls, (std::vector<std::wstring>{L"recreate 0", L"job 0 a.html * a.css 1 *",
                                                        L"job 0 b.html t.htm b.css 0 Drucker", L"start 0"}))
        << "the incomplete third group is left out";
    EXPECT_EQ(activity.Lines(),
              (std::vector<std::wstring>{L"Html Dokument ausdrucken", L"Html Dokument ausdrucken"}));

    printer.calls.clear();
    jobs.Run(0, 0, activity, &printer);  // a double click
    jobs.Run(0, 3, activity, &printer);
    jobs.Run(7, 1, activity, &printer);  // no such job
    EXPECT_TRUE(printer.calls.empty());
    jobs.Run(0, 2, activity, &printer);
    EXPECT_EQ(printer.calls, std::vector<std::wstring>{L"destroy 0"});

    // Only an "OPENMAIL" job makes closing ask; it goes when its mail is closed.
    const auto mail = jobs.Add({L"OPENMAIL"});
    ASSERT_EQ(mail, 1u);
    EXPECT_TRUE(jobs.HasOpenMail());
    printer.calls.clear();
    jobs.Run(1, 1, activity, &printer);
    EXPECT_TRUE(printer.calls.empty()) << "mail jobs print nothing";
    EXPECT_TRUE(jobs.Remove(*mail));
    EXPECT_FALSE(jobs.HasOpenMail());
}

}  // namespace
