#include <windows.h>

#include "support/FileBytes.h"

namespace velmar {
namespace {

class CFileHandle {
public:
    explicit CFileHandle(HANDLE handle) : m_handle(handle) {}
    ~CFileHandle() {
        if (m_handle != INVALID_HANDLE_VALUE) CloseHandle(m_handle);
    }
    CFileHandle(const CFileHandle&) = delete;
    CFileHandle& operator=(const CFileHandle&) = delete;
    HANDLE get() const { return m_handle; }

private:
    HANDLE m_handle;
};

}  // namespace

std::optional<std::string> ReadFileBytes(const std::wstring& path, std::size_t maxBytes) {
    const CFileHandle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                       nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (file.get() == INVALID_HANDLE_VALUE || GetFileType(file.get()) != FILE_TYPE_DISK) return std::nullopt;
    LARGE_INTEGER size{};
    if (!GetFileSizeEx(file.get(), &size) || static_cast<unsigned long long>(size.QuadPart) > maxBytes)
        return std::nullopt;
    std::string bytes;
    char buffer[64 * 1024];
    for (;;) {
        DWORD got = 0;
        if (!ReadFile(file.get(), buffer, sizeof buffer, &got, nullptr)) return std::nullopt;
        if (got == 0) break;
        if (bytes.size() + got > maxBytes) return std::nullopt;
        bytes.append(buffer, got);
    }
    return bytes;
}

bool WriteStandardOutput(const std::string& text) {
    const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
    if (output == nullptr || output == INVALID_HANDLE_VALUE) return false;
    size_t done = 0;
    while (done < text.size()) {
        DWORD put = 0;
        if (!WriteFile(output, text.data() + done, static_cast<DWORD>(text.size() - done), &put, nullptr) ||
            put == 0)
            return false;
        done += put;
    }
    return true;
}

}  // namespace velmar
