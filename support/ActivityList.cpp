#include "support/ActivityList.h"

#include "support/LineEcho.h"

namespace {

// What may wait for a slow reader of the echo before lines are dropped.
constexpr size_t kMaxEchoBytes = 4u * 1024 * 1024;

}  // namespace

CActivityList::CActivityList(bool echoToStandardOutput) {
    if (echoToStandardOutput) m_echo = std::make_unique<velmar::CLineEcho>(kMaxEchoBytes);
}

CActivityList::~CActivityList() = default;

// The copy for the echo is made before the lock is taken: many request threads add lines at once.
void CActivityList::AddLine(std::wstring line) {
    std::wstring echoed = m_echo ? line : std::wstring();
    std::lock_guard lock(m_lock);
    Append(std::move(line), std::move(echoed));
}

void CActivityList::AddTraceLine(std::wstring line) {
    std::wstring echoed = m_echo ? line : std::wstring();
    std::lock_guard lock(m_lock);
    while (m_lines.size() > kMaxTraceLines) DropOldest();
    Append(std::move(line), std::move(echoed));
}

void CActivityList::Append(std::wstring line, std::wstring echoed) {
    if (m_echo) m_echo->Push(std::move(echoed));
    m_textBytes += line.size() * sizeof(wchar_t);
    m_lines.push_back(std::move(line));
    while (m_lines.size() > 1 && (m_lines.size() > kMaxLines || m_textBytes > kMaxTextBytes)) DropOldest();
}

void CActivityList::DropOldest() {
    m_textBytes -= m_lines.front().size() * sizeof(wchar_t);
    m_lines.pop_front();
}

void CActivityList::Clear() {
    std::lock_guard lock(m_lock);
    m_lines.clear();
    m_textBytes = 0;
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
