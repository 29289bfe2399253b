// Echoes lines of text to standard output (of a headless program) from a thread of its own, so that whoever
// adds a line never waits for the reader. Lines wait in a queue of bounded size; when the reader does not
// keep up, further lines are dropped and counted, and the count is written after the lines that came
// before them. Control characters that a terminal would act on are written as text ("\x1b"); the lines
// themselves (the activity list, the clipboard) keep them.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace velmar {

class CLineEcho {
public:
    // maxQueuedBytes bounds the memory of what waits for the reader (HeldBytes.h).
    explicit CLineEcho(size_t maxQueuedBytes);
    // Lets the writer finish what is queued while the reader takes it, for a short while at most: a reader
    // that does not read never holds up the end of the program.
    ~CLineEcho();
    CLineEcho(const CLineEcho&) = delete;
    CLineEcho& operator=(const CLineEcho&) = delete;

    // Queues one line, to be written in the code page of the platform with a line break; never blocks on
    // the reader (the conversion is the writer's).
    void Push(std::wstring line);

private:
    struct CState;
    static void WriterLoop(const std::shared_ptr<CState>& state);
    std::shared_ptr<CState> m_state;  // shared with the writer, which may outlive the object
};

}  // namespace velmar
