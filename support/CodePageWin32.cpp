#include <windows.h>

#include <limits>

#include "support/CodePage.h"
#include "support/Utf8.h"

namespace velmar {
namespace {

std::wstring MultiByteToWide(UINT codePage, std::string_view text) {
    if (text.empty() || text.size() > static_cast<size_t>(std::numeric_limits<int>::max())) return {};
    const int length = static_cast<int>(text.size());
    const int needed = MultiByteToWideChar(codePage, 0, text.data(), length, nullptr, 0);
    if (needed <= 0) return {};
    std::wstring out(static_cast<size_t>(needed), L'\0');
    MultiByteToWideChar(codePage, 0, text.data(), length, out.data(), needed);
    return out;
}

std::string WideToMultiByte(UINT codePage, std::wstring_view text) {
    if (text.empty() || text.size() > static_cast<size_t>(std::numeric_limits<int>::max())) return {};
    const int length = static_cast<int>(text.size());
    const int needed = WideCharToMultiByte(codePage, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
    if (needed <= 0) return {};
    std::string out(static_cast<size_t>(needed), '\0');
    WideCharToMultiByte(codePage, 0, text.data(), length, out.data(), needed, nullptr, nullptr);
    return out;
}

}  // namespace

std::wstring AnsiToWide(std::string_view text) {
    return MultiByteToWide(CP_THREAD_ACP, text);
}
std::string WideToAnsi(std::wstring_view text) {
    return WideToMultiByte(CP_THREAD_ACP, text);
}
std::string WideToSystemAnsi(std::wstring_view text) {
    return WideToMultiByte(CP_ACP, text);
}
std::string AnsiToUtf8(std::string_view text) {
    return WideToUtf8(AnsiToWide(text));
}
std::string Utf8ToAnsi(std::string_view text) {
    return WideToAnsi(Utf8ToWide(text));
}

}  // namespace velmar
