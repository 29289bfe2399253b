// The activity list: one line per step of the service and of the mail layer, in order. Lines may be added
// from any thread. Without a window (headless), every line is also written to standard output as it is
// added, so the service can be followed from a terminal.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

class CActivityList {
public:
    // The mail layer's trace keeps the list at most this long before it adds a line.
    static constexpr size_t kMaxTraceLines = 3000;

    explicit CActivityList(bool echoToStandardOutput = false) : m_bEcho(echoToStandardOutput) {}

    // A line of the service: appended at the end, without limit.
    void AddLine(const std::wstring& line);
    // A line of the mail trace: first the oldest lines go while the list holds more than kMaxTraceLines.
    void AddTraceLine(const std::wstring& line);
    void Clear();

    std::vector<std::wstring> Lines() const;
    size_t Count() const;
    // The whole list as text, each line followed by "\r\n" (what "Copy List" puts on the clipboard).
    std::wstring Text() const;

private:
    void Append(const std::wstring& line);

    mutable std::mutex m_lock;
    std::vector<std::wstring> m_lines;
    bool m_bEcho;
};
