#include <windows.h>

#include "support/ErrorText.h"

namespace velmar {

std::wstring FormatLastErrorText(const std::wstring& operationName) {
    const DWORD error = GetLastError();
    wchar_t* message = nullptr;
    FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
        error, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<LPWSTR>(&message), 0, nullptr);
    // The number prints as a signed int, as "%d" does: an HRESULT-style code shows negative.
    std::wstring text = L"Error" + operationName + L" failed with error " +
                        std::to_wstring(static_cast<int>(error)) + L": " + (message ? message : L"");
    if (message) LocalFree(message);
    return text;
}

}  // namespace velmar
