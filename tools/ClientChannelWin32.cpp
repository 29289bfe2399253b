#include <windows.h>

#include <vector>

#include "support/ServiceChannel.h"
#include "tools/ClientChannel.h"

namespace velmar::tools {
namespace {

class CPipeChannel : public IClientChannel {
public:
    explicit CPipeChannel(HANDLE pipe) : m_pipe(pipe) {}
    ~CPipeChannel() override { CloseHandle(m_pipe); }

    // The request's zero byte travels with it, as the service expects.
    bool Send(const std::string& request) override {
        DWORD written = 0;
        return WriteFile(m_pipe, request.c_str(), static_cast<DWORD>(request.size() + 1), &written,
                         nullptr) != 0;
    }

    bool Receive(std::string& reply, int timeoutMilliseconds) override {
        const ULONGLONG deadline = GetTickCount64() + static_cast<ULONGLONG>(timeoutMilliseconds);
        for (;;) {
            DWORD available = 0;
            if (!PeekNamedPipe(m_pipe, nullptr, 0, nullptr, &available, nullptr)) return false;
            if (available > 0) break;
            if (GetTickCount64() >= deadline) return false;
            Sleep(5);
        }
        // One reply is one message, read in pieces while the pipe says there is more of it.
        reply.clear();
        std::vector<char> buffer(64 * 1024);
        for (;;) {
            DWORD got = 0;
            const bool whole =
                ReadFile(m_pipe, buffer.data(), static_cast<DWORD>(buffer.size()), &got, nullptr);
            reply.append(buffer.data(), got);
            if (whole) return true;
            if (GetLastError() != ERROR_MORE_DATA || reply.size() > kMaxReplyBytes) return false;
        }
    }

private:
    HANDLE m_pipe;
};

}  // namespace

std::unique_ptr<IClientChannel> ConnectToService(std::string& error) {
    for (int attempt = 0; attempt < 50; ++attempt) {
        HANDLE pipe = CreateFileW(kServicePipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                  0, nullptr);
        if (pipe != INVALID_HANDLE_VALUE) {
            DWORD mode = PIPE_READMODE_MESSAGE;
            SetNamedPipeHandleState(pipe, &mode, nullptr, nullptr);
            return std::make_unique<CPipeChannel>(pipe);
        }
        // Between two instances the pipe is briefly busy or not there at all.
        const DWORD error = GetLastError();
        if (error == ERROR_PIPE_BUSY)
            WaitNamedPipeW(kServicePipeName, 100);
        else if (error == ERROR_FILE_NOT_FOUND)
            Sleep(100);
        else
            break;
    }
    error = "cannot connect to the named pipe (error " + std::to_string(GetLastError()) + ")";
    return nullptr;
}

}  // namespace velmar::tools
