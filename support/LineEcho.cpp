#include "support/LineEcho.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "support/FileBytes.h"

namespace velmar {
namespace {

// How long the end of the program waits for a reader that does not read.
constexpr auto kFinalWait = std::chrono::milliseconds(500);

}  // namespace

struct CLineEcho::CState {
    std::mutex lock;
    std::condition_variable changed;
    std::deque<std::string> queue;
    size_t queuedBytes = 0;
    size_t maxQueuedBytes = 0;
    size_t dropped = 0;
    bool bStopping = false;
    bool bFinished = false;
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

void CLineEcho::Push(std::string line) {
    line += '\n';
    bool wake = false;
    {
        std::lock_guard lock(m_state->lock);
        if (m_state->bStopping) return;
        if (m_state->queuedBytes + line.size() > m_state->maxQueuedBytes) {
            ++m_state->dropped;
            return;
        }
        // Only a writer that found the queue empty waits for it: waking it per line would cost a system
        // call per line.
        wake = m_state->queue.empty();
        m_state->queuedBytes += line.size();
        m_state->queue.push_back(std::move(line));
    }
    if (wake) m_state->changed.notify_all();
}

void CLineEcho::WriterLoop(const std::shared_ptr<CState>& state) {
    std::unique_lock lock(state->lock);
    for (;;) {
        state->changed.wait(lock,
                            [&] { return state->bStopping || !state->queue.empty() || state->dropped > 0; });
        if (state->queue.empty() && state->dropped == 0) break;  // stopping with nothing left
        // While the queue is full nothing is added to it, so every dropped line came after the lines taken
        // here: the count follows them.
        std::string batch;
        for (const std::string& line : state->queue) batch += line;
        state->queue.clear();
        state->queuedBytes = 0;
        if (state->dropped > 0) {
            batch += "... " + std::to_string(state->dropped) + " Zeilen ausgelassen\n";
            state->dropped = 0;
        }
        lock.unlock();
        const bool written = WriteStandardOutput(batch);
        lock.lock();
        if (!written) break;
    }
    state->bFinished = true;
    state->changed.notify_all();
}

}  // namespace velmar
