#include "support/LineEcho.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

#include "support/CodePage.h"
#include "support/FileBytes.h"
#include "support/HeldBytes.h"

namespace velmar {
namespace {

// How long the end of the program waits for a reader that does not read.
constexpr auto kFinalWait = std::chrono::milliseconds(500);
// How long a woken writer lets lines gather: one wake-up and one write for the lines of many requests.
constexpr auto kGatherTime = std::chrono::milliseconds(5);

// What a terminal acts on instead of showing it becomes visible text ("\x1b"): the C0 controls but tab, DEL
// and the C1 controls (some terminals start an escape sequence at U+009B). A mail's subject must not set the
// title of whoever watches or clear the screen. A line break inside a line (CR LF or LF, as in a reply's
// JSON) stays a line break, so such a line reads as the list shows it; a lone CR would write over the text
// before it and is escaped.
std::wstring TerminalSafe(const std::wstring& line) {
    static constexpr wchar_t kHex[] = L"0123456789abcdef";
    std::wstring safe;
    safe.reserve(line.size());
    for (size_t i = 0; i < line.size(); ++i) {
        const wchar_t c = line[i];
        const bool lineBreak = c == L'\n' || (c == L'\r' && i + 1 < line.size() && line[i + 1] == L'\n');
        const bool control = (c < 0x20 && c != L'\t') || (c >= 0x7F && c <= 0x9F);
        if (!control || lineBreak) {
            safe += c;
            continue;
        }
        safe += L"\\x";
        safe += kHex[(c >> 4) & 0xF];
        safe += kHex[c & 0xF];
    }
    return safe;
}

}  // namespace

struct CLineEcho::CState {
    std::mutex lock;
    std::condition_variable changed;
    std::deque<std::wstring> queue;
    size_t queuedBytes = 0;
    size_t maxQueuedBytes = 0;
    size_t dropped = 0;
    bool bStopping = false;
    bool bFinished = false;
    bool bWriterIdle = false;  // the writer waits for lines and must be woken
};

CLineEcho::CLineEcho(size_t maxQueuedBytes) : m_state(std::make_shared<CState>()) {
    m_state->maxQueuedBytes = maxQueuedBytes;
    std::thread([state = m_state] { WriterLoop(state); }).detach();
}

CLineEcho::~CLineEcho() {
    std::unique_lock lock(m_state->lock);
    m_state->bStopping = true;
    m_state->changed.notify_all();
    // A writer still blocked on the reader after the wait is left to the end of the process.
    m_state->changed.wait_for(lock, kFinalWait, [this] { return m_state->bFinished; });
}

void CLineEcho::Push(std::wstring line) {
    // A line is counted as the memory it takes while it waits.
    const size_t bytes = HeldBytes(line);
    bool wake = false;
    {
        std::lock_guard lock(m_state->lock);
        if (m_state->bStopping) return;
        if (m_state->queuedBytes + bytes > m_state->maxQueuedBytes) {
            ++m_state->dropped;
            return;
        }
        // Waking the writer costs a system call and a thread switch: only an idle writer is woken.
        wake = m_state->bWriterIdle;
        m_state->bWriterIdle = false;
        m_state->queuedBytes += bytes;
        m_state->queue.push_back(std::move(line));
    }
    if (wake) m_state->changed.notify_one();
}

void CLineEcho::WriterLoop(const std::shared_ptr<CState>& state) {
    std::unique_lock lock(state->lock);
    for (;;) {
        state->bWriterIdle = true;
        state->changed.wait(lock,
                            [&] { return state->bStopping || !state->queue.empty() || state->dropped > 0; });
        state->bWriterIdle = false;
        if (state->queue.empty() && state->dropped == 0) break;  // stopping with nothing left
        if (!state->bStopping) {
            lock.unlock();
            std::this_thread::sleep_for(kGatherTime);
            lock.lock();
        }
        // While the queue is full nothing is added to it, so every dropped line came after the lines taken
        // here: the count follows them.
        std::deque<std::wstring> lines;
        lines.swap(state->queue);
        state->queuedBytes = 0;
        const size_t dropped = std::exchange(state->dropped, 0);
        lock.unlock();
        std::string batch;
        for (const std::wstring& line : lines) {
            batch += WideToAnsi(TerminalSafe(line));
            batch += '\n';
        }
        if (dropped > 0) batch += "... " + std::to_string(dropped) + " Zeilen ausgelassen\n";
        const bool written = WriteStandardOutput(batch);
        lock.lock();
        if (!written) break;
    }
    state->bFinished = true;
    state->changed.notify_all();
}

}  // namespace velmar
