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
    }

    // One message is one request; its text ends at the first zero byte.
    bool ReadRequest(std::string& request, std::wstring& error) override {
        DWORD got = 0;
        if (!ReadFile(m_pipe, m_buffer.data(), static_cast<DWORD>(m_buffer.size()), &got, nullptr) ||
            got == 0) {
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

    void Interrupt() override { DisconnectNamedPipe(m_pipe); }

private:
    HANDLE m_pipe;
    std::vector<char> m_buffer;
};

class CPipeListener : public IPipeListener {
public:
    std::unique_ptr<IPipeConnection> Accept(std::wstring& error) override {
        error.clear();
        if (m_bClosed) return nullptr;
        HANDLE pipe = CreateNamedPipeW(
            kPipeName, PIPE_ACCESS_DUPLEX, PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT,
            PIPE_UNLIMITED_INSTANCES, kMaxMessageBytes, kMaxMessageBytes, 0, nullptr);
        if (pipe == INVALID_HANDLE_VALUE) {
            error = velmar::mail::FormatLastErrorText(L"CreateNamedPipe");
            return nullptr;
        }
        if (!ConnectNamedPipe(pipe, nullptr) && GetLastError() != ERROR_PIPE_CONNECTED) {
            error = velmar::mail::FormatLastErrorText(L"ConnectNamedPipe");
            CloseHandle(pipe);
            return nullptr;
        }
        if (m_bClosed) {
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
