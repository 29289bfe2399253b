// How a window follows the activity list. Lines arrive from any thread; the list tells the feed, the feed
// posts the window one note (however many lines come meanwhile), and the window thread catches up in
// batches: rows to delete at the top (lines the list dropped or cleared), then lines to append. No thread
// ever waits for the window, and the window never holds the list's lock while it draws.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "support/ActivityList.h"

class CActivityFeed {
public:
    struct CChanges {
        size_t removeFront = 0;    // rows to delete from the top, first
        uint64_t appendFirst = 0;  // then rows to append: lines [appendFirst, +appendCount)
        size_t appendCount = 0;
        std::vector<std::wstring> appended;  // their text, when asked for
        bool more = false;                   // more lines wait than one batch holds: catch up again
    };

    // postNote asks the window thread to call CatchUp; it is called from any thread and must not block.
    CActivityFeed(CActivityList& list, size_t batchLines, std::function<void()> postNote);
    ~CActivityFeed();
    CActivityFeed(const CActivityFeed&) = delete;
    CActivityFeed& operator=(const CActivityFeed&) = delete;

    // On the window thread: what changed since the last call, taken as shown. withText copies the
    // appended lines (a control that keeps its own text); without, the window reads them with LineAt.
    CChanges CatchUp(bool withText);
    // The sequence number of the first row shown, and how many rows there are.
    uint64_t FirstShown() const { return m_first; }
    size_t ShownCount() const { return static_cast<size_t>(m_end - m_first); }
    CActivityList& List() { return m_list; }

private:
    void Changed();

    CActivityList& m_list;
    size_t m_batchLines;
    std::function<void()> m_postNote;
    std::atomic<bool> m_bNotePending{false};
    uint64_t m_first = 0;  // shown rows, as sequence numbers [m_first, m_end)
    uint64_t m_end = 0;
};
