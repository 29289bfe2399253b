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

std::wstring SystemTextOfResult(unsigned long hr) {
    wchar_t* message = nullptr;
    FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM, nullptr, hr,
                   MAKELANGID(LANG_NEUTRAL, SUBLANG_SYS_DEFAULT), reinterpret_cast<LPWSTR>(&message), 0,
                   nullptr);
    std::wstring text = message ? message : L"";
    if (message) LocalFree(message);
    return text;
}

std::wstring SystemAnsiCodePageText() {
    wchar_t codePage[12] = L"1252";
    if (GetLocaleInfoW(LOCALE_SYSTEM_DEFAULT, LOCALE_IDEFAULTANSICODEPAGE, codePage, 12) == 0) return L"1252";
    return codePage;
}

}  // namespace velmar
