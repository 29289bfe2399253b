// The Windows channel: the named pipe, in message mode with unlimited instances.
#include <windows.h>
#include <psapi.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <vector>

#include "service/PipeChannel.h"
#include "support/ErrorText.h"
#include "support/ServiceChannel.h"

namespace velmar::service {
namespace {

// A client that takes nothing of its reply for this long loses the write.
constexpr DWORD kReplyWriteTimeoutMilliseconds = 30000;

class CPipeConnection : public IPipeConnection {
public:
    explicit CPipeConnection(HANDLE pipe) : m_pipe(pipe), m_buffer(kMaxRequestBytes) {}
    ~CPipeConnection() override {
        if (m_pipe != INVALID_HANDLE_VALUE) {
            DisconnectNamedPipe(m_pipe);
            CloseHandle(m_pipe);
        }
        if (m_ioThread) CloseHandle(m_ioThread);
    }

    // Flushing waits for the client to read what is left, which a client that never reads does not.
    void End() override {
        if (m_pipe == INVALID_HANDLE_VALUE) return;
        Cancellable([&] { return FlushFileBuffers(m_pipe) != FALSE; });
        DisconnectNamedPipe(m_pipe);
        CloseHandle(m_pipe);
        m_pipe = INVALID_HANDLE_VALUE;
    }

    // One message is one request; its text ends at the first zero byte.
    bool ReadRequest(std::string& request, std::wstring& error) override {
        DWORD got = 0;
        if (!Cancellable([&] {
                return ReadFile(m_pipe, m_buffer.data(), static_cast<DWORD>(m_buffer.size()), &got,
                                nullptr) &&
                       got > 0;
            })) {
            error = velmar::FormatLastErrorText(L"ReadFile");
            return false;
        }
        const char* begin = m_buffer.data();
        const void* zero = std::memchr(begin, 0, got);
        request.assign(begin, zero ? static_cast<const char*>(zero) : begin + got);
        return true;
    }

    // A reply is the text without a terminating zero byte, in one write. A client that takes none of it
    // for a while loses the write: it would hold this thread for ever.
    bool WriteReply(const std::string& reply, std::wstring& error) override {
        HANDLE timer = nullptr;
        if (!CreateTimerQueueTimer(&timer, nullptr, &CPipeConnection::WriteTimedOut, this,
                                   kReplyWriteTimeoutMilliseconds, 0, WT_EXECUTEONLYONCE))
            timer = nullptr;
        DWORD written = 0;
        const bool done = Cancellable([&] {
            return WriteFile(m_pipe, reply.data(), static_cast<DWORD>(reply.size()), &written, nullptr) !=
                   FALSE;
        });
        const DWORD lastError = GetLastError();
        // Waits for a time-out that is running, so it cannot cancel a later call.
        if (timer) DeleteTimerQueueTimer(nullptr, timer, INVALID_HANDLE_VALUE);
        if (!done) {
            SetLastError(lastError);
            error = velmar::FormatLastErrorText(L"WriteFile");
            return false;
        }
        return true;
    }

    // Blocking I/O on a synchronous handle holds the handle: nothing but cancelling the thread's I/O ends
    // it. The thread may be between its announcement and the call itself, so keep cancelling until it has
    // returned.
    void Interrupt() override {
        for (;;) {
            {
                std::lock_guard lock(m_ioLock);
                m_bInterrupted = true;
                if (!m_bInIo) return;
                CancelSynchronousIo(m_ioThread);
            }
            Sleep(10);
        }
    }

private:
    static void CALLBACK WriteTimedOut(PVOID context, BOOLEAN) {
        auto* self = static_cast<CPipeConnection*>(context);
        std::lock_guard lock(self->m_ioLock);
        if (self->m_bInIo) CancelSynchronousIo(self->m_ioThread);
    }

    // Runs one blocking call on the pipe so that Interrupt can cancel it. False, with the last error set,
    // when the call failed or the connection was interrupted before it began.
    template <class Call>
    bool Cancellable(Call call) {
        if (!m_ioThread && !DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(),
                                            &m_ioThread, 0, FALSE, DUPLICATE_SAME_ACCESS)) {
            m_ioThread = nullptr;
            return false;
        }
        {
            std::lock_guard lock(m_ioLock);
            if (m_bInterrupted) {
                SetLastError(ERROR_OPERATION_ABORTED);
                return false;
            }
            m_bInIo = true;
        }
        const bool done = call();
        const DWORD lastError = GetLastError();
        {
            // Cleared under the lock, so that no cancel meant for this call reaches a later one.
            std::lock_guard lock(m_ioLock);
            m_bInIo = false;
        }
        SetLastError(lastError);
        return done;
    }

    HANDLE m_pipe;
    HANDLE m_ioThread = nullptr;  // the request thread that serves the connection, for Interrupt
    std::vector<char> m_buffer;
    std::mutex m_ioLock;
    bool m_bInIo = false;
    bool m_bInterrupted = false;
};

class CPipeListener : public IPipeListener {
public:
    // Neither a failed creation nor a failed connection is reported: creation is tried again at once, a
    // failed connection gives up the instance.
    std::unique_ptr<IPipeConnection> Accept(std::wstring& error) override {
        error.clear();
        m_bAccepting = true;  // before looking at m_bClosed: see Close
        const struct CLeave {
            std::atomic<bool>& accepting;
            ~CLeave() { accepting = false; }
        } leave{m_bAccepting};
        HANDLE pipe = INVALID_HANDLE_VALUE;
        while (pipe == INVALID_HANDLE_VALUE) {
            if (m_bClosed) return nullptr;
            pipe = CreateNamedPipeW(kServicePipeName, PIPE_ACCESS_DUPLEX,
                                    PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT,
                                    PIPE_UNLIMITED_INSTANCES, kMaxRequestBytes, kMaxRequestBytes, 0, nullptr);
        }
        if ((!ConnectNamedPipe(pipe, nullptr) && GetLastError() != ERROR_PIPE_CONNECTED) || m_bClosed) {
            CloseHandle(pipe);
            return nullptr;
        }
        return std::make_unique<CPipeConnection>(pipe);
    }

    // A listener waiting for a client is released by connecting to it. Accept either sees m_bClosed or is
    // seen accepting; in the second case its instance may not exist yet, so keep trying until it returns.
    void Close() override {
        m_bClosed = true;
        while (m_bAccepting) {
            HANDLE client = CreateFileW(kServicePipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                        OPEN_EXISTING, 0, nullptr);
            if (client != INVALID_HANDLE_VALUE) CloseHandle(client);
            Sleep(10);
        }
    }

private:
    std::atomic<bool> m_bClosed{false};
    std::atomic<bool> m_bAccepting{false};
};

}  // namespace

std::unique_ptr<IPipeListener> CreatePipeListener(std::wstring&) {
    return std::make_unique<CPipeListener>();
}

bool ProcessWorkingSet(unsigned long long& bytes) {
    PROCESS_MEMORY_COUNTERS counters{};
    counters.cb = sizeof counters;
    if (!K32GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters)) return false;
    bytes = counters.WorkingSetSize;
    return true;
}

}  // namespace velmar::service
