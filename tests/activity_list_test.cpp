#include <gtest/gtest.h>

#include <thread>

#include "support/ActivityList.h"
#include "support/HeldBytes.h"

namespace {

TEST(ActivityList, TraceKeepsTheListShortServiceLinesDoNot) {
    CActivityList list;
    for (int i = 0; i < 3005; ++i) list.AddLine(L"service " + std::to_wstring(i));
    EXPECT_EQ(list.Count(), 3005u) << "service lines have no limit";
    list.AddTraceLine(L"trace");
    EXPECT_EQ(list.Count(), 3001u) << "the oldest lines go until 3000 remain, then the trace line is added";
    const std::vector<std::wstring> lines = list.Lines();
    EXPECT_EQ(lines.front(), L"service 5");
    EXPECT_EQ(lines.back(), L"trace");
    list.AddTraceLine(L"again");
    EXPECT_EQ(list.Count(), 3001u);
    EXPECT_EQ(list.Lines().front(), L"service 6");
}

TEST(ActivityList, EveryKindOfLineStaysWithinTheBounds) {
    CActivityList list;
    for (size_t i = 0; i < CActivityList::kMaxLines + 10; ++i) list.AddLine(L"service " + std::to_wstring(i));
    EXPECT_EQ(list.Count(), CActivityList::kMaxLines) << "the newest lines stay";
    EXPECT_EQ(list.Lines().front(), L"service 10");
    // Long lines (replies with whole messages) count by their size.
    const std::wstring reply(CActivityList::kMaxTextBytes / sizeof(wchar_t) / 4, L'r');
    for (int i = 0; i < 10; ++i) list.AddLine(reply);
    EXPECT_LE(list.Count(), 4u);
    EXPECT_GE(list.Count(), 3u);
    // What the lines take in memory is bounded, not their characters: a line of 20,000 characters takes
    // 80 KB and more as a wide string on POSIX, and a short one the string object and its block.
    EXPECT_GE(velmar::HeldBytes(std::wstring(20000, L'q')), 20000 * sizeof(wchar_t) + sizeof(std::wstring));
    EXPECT_GE(velmar::HeldBytes(L"service 1"), sizeof(std::wstring));
    CActivityList requests;
    for (int i = 0; i < 1000; ++i) requests.AddLine(std::wstring(20000, L'q'));
    EXPECT_LE(requests.Count() * velmar::HeldBytes(std::wstring(20000, L'q')), CActivityList::kMaxTextBytes);
    // A line longer than the whole bound is kept alone: the newest line always stays.
    list.AddTraceLine(std::wstring(CActivityList::kMaxTextBytes / sizeof(wchar_t) + 1, L'x'));
    EXPECT_EQ(list.Count(), 1u);
    list.AddLine(L"danach");
    EXPECT_EQ(list.Lines(), std::vector<std::wstring>{L"danach"});
}

}  // namespace
