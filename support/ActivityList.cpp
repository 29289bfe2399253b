#include "support/ActivityList.h"

#include <cstdio>

#include "support/CodePage.h"

void CActivityList::Append(const std::wstring& line) {
    m_lines.push_back(line);
    if (m_bEcho) {
        std::string text = velmar::WideToAnsi(line);
        text += '\n';
        std::fwrite(text.data(), 1, text.size(), stdout);
        std::fflush(stdout);
    }
}

void CActivityList::AddLine(const std::wstring& line) {
    std::lock_guard lock(m_lock);
    Append(line);
}

void CActivityList::AddTraceLine(const std::wstring& line) {
    std::lock_guard lock(m_lock);
    if (m_lines.size() > kMaxTraceLines)
        m_lines.erase(m_lines.begin(),
                      m_lines.begin() + static_cast<std::ptrdiff_t>(m_lines.size() - kMaxTraceLines));
    Append(line);
}

void CActivityList::Clear() {
    std::lock_guard lock(m_lock);
    m_lines.clear();
}

std::vector<std::wstring> CActivityList::Lines() const {
    std::lock_guard lock(m_lock);
    return m_lines;
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
