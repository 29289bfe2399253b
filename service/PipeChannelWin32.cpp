// The Windows channel: the named pipe, in message mode with unlimited instances.
#include <windows.h>
#include <psapi.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <vector>

#include "mail/MapiLibrary.h"
#include "service/PipeChannel.h"

namespace velmar::service {
namespace {

constexpr const wchar_t* kPipeName = L"\\\\.\\pipe\\velmartaskschedulernamedpipe";

class CPipeConnection : public IPipeConnection {
public:
    explicit CPipeConnection(HANDLE pipe) : m_pipe(pipe), m_buffer(kMaxMessageBytes) {}
    ~CPipeConnection() override {
        FlushFileBuffers(m_pipe);
        DisconnectNamedPipe(m_pipe);
        CloseHandle(m_pipe);
        if (m_reader) CloseHandle(m_reader);
    }

    // One message is one request; its text ends at the first zero byte.
    bool ReadRequest(std::string& request, std::wstring& error) override {
        if (!m_reader)
            DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &m_reader, 0, FALSE,
                            DUPLICATE_SAME_ACCESS);
        // Announce the read before looking at the interrupt, so that Interrupt either sees the read and
        // cancels it or the read sees the interrupt and never starts.
        m_bReading = true;
        DWORD got = 0;
        bool read = false;
        if (m_bInterrupted)
            SetLastError(ERROR_OPERATION_ABORTED);
        else
            read = ReadFile(m_pipe, m_buffer.data(), static_cast<DWORD>(m_buffer.size()), &got, nullptr) &&
                   got > 0;
        m_bReading = false;
        if (!read) {
            error = velmar::mail::FormatLastErrorText(L"ReadFile");
            return false;
        }
        const char* begin = m_buffer.data();
        const void* zero = std::memchr(begin, 0, got);
        request.assign(begin, zero ? static_cast<const char*>(zero) : begin + got);
        return true;
    }

    // A reply is the text without a terminating zero byte, in one write.
    bool WriteReply(const std::string& reply, std::wstring& error) override {
        DWORD written = 0;
        if (!WriteFile(m_pipe, reply.data(), static_cast<DWORD>(reply.size()), &written, nullptr)) {
            error = velmar::mail::FormatLastErrorText(L"WriteFile");
            return false;
        }
        return true;
    }

    // A blocking ReadFile on a synchronous handle holds the handle: nothing but cancelling the reader's
    // I/O ends it. The reader may be between its announcement and the call itself, so keep cancelling
    // until it has returned.
    void Interrupt() override {
        m_bInterrupted = true;
        while (m_bReading) {
            CancelSynchronousIo(m_reader);
            Sleep(10);
        }
    }

private:
    HANDLE m_pipe;
    HANDLE m_reader = nullptr;  // the request thread that reads, for Interrupt
    std::vector<char> m_buffer;
    std::atomic<bool> m_bReading{false};
    std::atomic<bool> m_bInterrupted{false};
};

class CPipeListener : public IPipeListener {
public:
    // Neither a failed creation nor a failed connection is reported: creation is tried again at once, a
    // failed connection gives up the instance.
    std::unique_ptr<IPipeConnection> Accept(std::wstring& error) override {
        error.clear();
        HANDLE pipe = INVALID_HANDLE_VALUE;
        while (pipe == INVALID_HANDLE_VALUE) {
            if (m_bClosed) return nullptr;
            pipe = CreateNamedPipeW(kPipeName, PIPE_ACCESS_DUPLEX,
                                    PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT,
                                    PIPE_UNLIMITED_INSTANCES, kMaxMessageBytes, kMaxMessageBytes, 0, nullptr);
        }
        if ((!ConnectNamedPipe(pipe, nullptr) && GetLastError() != ERROR_PIPE_CONNECTED) || m_bClosed) {
            CloseHandle(pipe);
            return nullptr;
        }
        return std::make_unique<CPipeConnection>(pipe);
    }

    // A listener waiting for a client is released by connecting to it once.
    void Close() override {
        m_bClosed = true;
        HANDLE client =
            CreateFileW(kPipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        if (client != INVALID_HANDLE_VALUE) CloseHandle(client);
    }

private:
    std::atomic<bool> m_bClosed{false};
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
