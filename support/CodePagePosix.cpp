#include "support/CodePage.h"

#include "support/Utf8.h"

namespace velmar {

std::wstring AnsiToWide(std::string_view text) {
    return Utf8ToWide(text);
}
std::string WideToAnsi(std::wstring_view text) {
    return WideToUtf8(text);
}
std::string WideToSystemAnsi(std::wstring_view text) {
    return WideToUtf8(text);
}
std::string AnsiToUtf8(std::string_view text) {
    return SanitizeUtf8(text);
}
std::string Utf8ToAnsi(std::string_view text) {
    return SanitizeUtf8(text);
}

}  // namespace velmar
