#include "app/ActivityFeed.h"

#include <algorithm>

CActivityFeed::CActivityFeed(CActivityList& list, size_t batchLines, std::function<void()> postNote)
    : m_list(list), m_batchLines(batchLines), m_postNote(std::move(postNote)) {
    // Whatever the list held before the window came is shown too.
    m_first = m_end = m_list.Range().first;
    m_list.SetChangeNotifier([this] { Changed(); });
    Changed();
}

CActivityFeed::~CActivityFeed() {
    m_list.SetChangeNotifier(nullptr);
}

// One note for any number of changes: the flag is cleared by the window thread before it looks.
void CActivityFeed::Changed() {
    if (!m_bNotePending.exchange(true)) m_postNote();
}

CActivityFeed::CChanges CActivityFeed::CatchUp(bool withText) {
    m_bNotePending = false;
    CChanges changes;
    const CActivityList::CRange range =
        m_list.CopySince(m_end, withText ? m_batchLines : 0, changes.appended);
    // The list's ends only grow: what left its front leaves the window's top.
    const uint64_t keptFirst = std::min(range.first, m_end);
    changes.removeFront = static_cast<size_t>(keptFirst - m_first);
    m_first = keptFirst;
    if (range.first > m_end) m_first = m_end = range.first;
    changes.appendFirst = m_end;
    changes.appendCount = static_cast<size_t>(std::min<uint64_t>(range.end - m_end, m_batchLines));
    if (withText) changes.appendCount = changes.appended.size();
    m_end += changes.appendCount;
    changes.more = m_end < range.end;
    return changes;
}
