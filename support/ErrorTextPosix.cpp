#include <cerrno>
#include <cstring>

#include "support/ErrorText.h"
#include "support/Utf8.h"

namespace velmar {

std::wstring FormatLastErrorText(const std::wstring& operationName) {
    const int error = errno;
    return L"Error" + operationName + L" failed with error " + std::to_wstring(error) + L": " +
           Utf8ToWide(std::strerror(error));
}

std::wstring SystemTextOfResult(unsigned long) {
    return {};
}

std::wstring SystemAnsiCodePageText() {
    return L"65001";
}

}  // namespace velmar
