#include "support/ActivityList.h"

#include "support/HeldBytes.h"
#include "support/LineEcho.h"

#include <algorithm>

namespace {

// What may wait for a slow reader of the echo before lines are dropped.
constexpr size_t kMaxEchoBytes = 4u * 1024 * 1024;

}  // namespace

CActivityList::CActivityList(bool echoToStandardOutput) {
    if (echoToStandardOutput) m_echo = std::make_unique<velmar::CLineEcho>(kMaxEchoBytes);
}

CActivityList::~CActivityList() = default;

// The copy for the echo is made before the lock is taken: many request threads add lines at once. A line
// is kept in no more memory than its characters need.
void CActivityList::AddLine(std::wstring line) {
    line.shrink_to_fit();
    std::wstring echoed = m_echo ? line : std::wstring();
    {
        std::lock_guard lock(m_lock);
        Append(std::move(line), std::move(echoed));
    }
    if (m_notifier) m_notifier();
}

void CActivityList::AddTraceLine(std::wstring line) {
    line.shrink_to_fit();
    std::wstring echoed = m_echo ? line : std::wstring();
    {
        std::lock_guard lock(m_lock);
        while (m_lines.size() > kMaxTraceLines) DropOldest();
        Append(std::move(line), std::move(echoed));
    }
    if (m_notifier) m_notifier();
}

void CActivityList::Append(std::wstring line, std::wstring echoed) {
    if (m_echo) m_echo->Push(std::move(echoed));
    m_textBytes += velmar::HeldBytes(line);
    m_lines.push_back(std::move(line));
    while (m_lines.size() > 1 && (m_lines.size() > kMaxLines || m_textBytes > kMaxTextBytes)) DropOldest();
}

void CActivityList::DropOldest() {
    m_textBytes -= velmar::HeldBytes(m_lines.front());
    m_lines.pop_front();
    ++m_firstSequence;
}

void CActivityList::Clear() {
    {
        std::lock_guard lock(m_lock);
        m_firstSequence += m_lines.size();
        m_lines.clear();
        m_textBytes = 0;
    }
    if (m_notifier) m_notifier();
}

CActivityList::CRange CActivityList::Range() const {
    std::lock_guard lock(m_lock);
    return {m_firstSequence, m_firstSequence + m_lines.size()};
}

CActivityList::CRange CActivityList::CopySince(uint64_t from, size_t maxCount,
                                               std::vector<std::wstring>& lines) const {
    std::lock_guard lock(m_lock);
    const CRange range{m_firstSequence, m_firstSequence + m_lines.size()};
    const uint64_t first = std::max(from, range.first);
    const uint64_t end = std::min(range.end, first + maxCount);
    lines.clear();
    if (first < end) {
        auto begin = m_lines.begin() + static_cast<ptrdiff_t>(first - range.first);
        lines.assign(begin, begin + static_cast<ptrdiff_t>(end - first));
    }
    return range;
}

std::wstring CActivityList::LineAt(uint64_t sequence) const {
    std::lock_guard lock(m_lock);
    if (sequence < m_firstSequence || sequence - m_firstSequence >= m_lines.size()) return {};
    return m_lines[static_cast<size_t>(sequence - m_firstSequence)];
}

void CActivityList::SetChangeNotifier(std::function<void()> notifier) {
    m_notifier = std::move(notifier);
}

std::vector<std::wstring> CActivityList::Lines() const {
    std::lock_guard lock(m_lock);
    return std::vector<std::wstring>(m_lines.begin(), m_lines.end());
}

size_t CActivityList::Count() const {
    std::lock_guard lock(m_lock);
    return m_lines.size();
}

std::wstring CActivityList::Text() const {
    std::lock_guard lock(m_lock);
    std::wstring text;
    for (const std::wstring& line : m_lines) text += line + L"\r\n";
    return text;
}
