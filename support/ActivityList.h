// The activity list: one line per step of the service and of the mail layer, in order. Lines may be added
// from any thread. Without a window (headless), every line is also echoed to standard output, through a
// queue, so that a slow reader of the output never holds up the service. A window shows the list by
// following it: every line has a sequence number, and a change notifier tells the window that there is
// something new, without ever waiting for it.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace velmar {
class CLineEcho;
}

class CActivityList {
public:
    // The mail layer's trace keeps the list at most this long before it adds a line.
    static constexpr size_t kMaxTraceLines = 3000;
    // A resident service runs for months: whatever kind of line is added, the list keeps only the newest
    // lines within these bounds (the newest line always stays, however long). The bytes are those the lines
    // really take (HeldBytes.h).
    static constexpr size_t kMaxLines = 100000;
    static constexpr size_t kMaxTextBytes = 32u * 1024 * 1024;

    explicit CActivityList(bool echoToStandardOutput = false);
    ~CActivityList();
    CActivityList(const CActivityList&) = delete;
    CActivityList& operator=(const CActivityList&) = delete;

    // A line of the service: appended at the end (only the bounds above limit the list).
    void AddLine(std::wstring line);
    // A line of the mail trace: first the oldest lines go while the list holds more than kMaxTraceLines.
    void AddTraceLine(std::wstring line);
    void Clear();

    std::vector<std::wstring> Lines() const;
    size_t Count() const;
    // The whole list as text, each line followed by "\r\n" (what "Copy List" puts on the clipboard).
    std::wstring Text() const;

    // The lines held, as sequence numbers [first, end): each added line takes the next number, and
    // dropped or cleared lines leave from the front, so both ends only grow.
    struct CRange {
        uint64_t first = 0;
        uint64_t end = 0;
    };
    CRange Range() const;
    // The range held now and, in lines, those of it from `from` on (at most maxCount), under one lock.
    CRange CopySince(uint64_t from, size_t maxCount, std::vector<std::wstring>& lines) const;
    // The line of a sequence number; empty once it has been dropped.
    std::wstring LineAt(uint64_t sequence) const;
    // Called after every change, on the thread that made it and outside the list's lock. It must not
    // block: a window only posts itself a note to catch up. Set and cleared while no other thread adds
    // lines (before the service starts, after it has stopped).
    void SetChangeNotifier(std::function<void()> notifier);

private:
    // The caller holds m_lock; echoed is the line's copy for the echo.
    void DropOldest();
    void Append(std::wstring line, std::wstring echoed);

    mutable std::mutex m_lock;
    std::deque<std::wstring> m_lines;  // the oldest lines leave from the front at constant cost
    size_t m_textBytes = 0;            // the lines take in memory
    uint64_t m_firstSequence = 0;      // of m_lines.front()
    std::function<void()> m_notifier;  // set before lines arrive from other threads
    std::unique_ptr<velmar::CLineEcho> m_echo;
};
