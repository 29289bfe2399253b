#include <windows.h>

#include "harness/ServiceProcess.h"
#include "support/Utf8.h"

namespace velmar::test {

CServiceProcess::CServiceProcess(const std::string& program, const std::vector<std::string>& arguments,
                                 const std::string& logFile) {
    // The build hands its path in Unix form when the tests run under Wine, which shows / as drive Z:.
    std::wstring path = Utf8ToWide(program);
    if (!path.empty() && path.front() == L'/') {
        for (wchar_t& c : path)
            if (c == L'/') c = L'\\';
        path = L"Z:" + path;
    }
    std::wstring commandLine = L"\"" + path + L"\"";
    for (const std::string& argument : arguments) commandLine += L" " + Utf8ToWide(argument);
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    HANDLE log = CreateFileW(Utf8ToWide(logFile).c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                             &inherit, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = log;
    startup.hStdError = log;
    PROCESS_INFORMATION info{};
    if (CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                       &info)) {
        CloseHandle(info.hThread);
        m_process = reinterpret_cast<long long>(info.hProcess);
    }
    if (log != INVALID_HANDLE_VALUE) CloseHandle(log);
}

CServiceProcess::~CServiceProcess() {
    if (!m_process) return;
    HANDLE process = reinterpret_cast<HANDLE>(m_process);
    if (!m_bExited) {
        TerminateProcess(process, 1);
        WaitForSingleObject(process, 10000);
    }
    CloseHandle(process);
}

bool CServiceProcess::Started() const {
    return m_process != 0;
}

bool CServiceProcess::Signal(int) {
    return false;
}

std::optional<int> CServiceProcess::WaitForExit(int timeoutMilliseconds) {
    HANDLE process = reinterpret_cast<HANDLE>(m_process);
    if (WaitForSingleObject(process, static_cast<DWORD>(timeoutMilliseconds)) != WAIT_OBJECT_0)
        return std::nullopt;
    DWORD code = 0;
    GetExitCodeProcess(process, &code);
    m_bExited = true;
    return static_cast<int>(code);
}

}  // namespace velmar::test
