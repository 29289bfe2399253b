// Echoes text lines to standard output (of a headless program) from a thread of its own, so that whoever
// adds a line never waits for the reader. Lines wait in a queue of bounded size; when the reader does not
// keep up, further lines are dropped and counted, and the count is written after the lines that came
// before them.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace velmar {

class CLineEcho {
public:
    // maxQueuedBytes bounds what waits for the reader.
    explicit CLineEcho(size_t maxQueuedBytes);
    // Lets the writer finish what is queued while the reader takes it, for a short while at most: a reader
    // that does not read never holds up the end of the program.
    ~CLineEcho();
    CLineEcho(const CLineEcho&) = delete;
    CLineEcho& operator=(const CLineEcho&) = delete;

    // Queues one line (a line break is added); never blocks on the reader.
    void Push(std::string line);

private:
    struct CState;
    static void WriterLoop(const std::shared_ptr<CState>& state);
    std::shared_ptr<CState> m_state;  // shared with the writer, which may outlive the object
};

}  // namespace velmar
