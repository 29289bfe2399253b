// UTF-8 and wide-text conversions. wchar_t holds UTF-16 on Windows and UTF-32 on POSIX; both are handled.
// Ill-formed input never fails: each ill-formed sequence becomes U+FFFD, so the result is always well formed.
#pragma once

#include <string>
#include <string_view>

namespace velmar {

inline constexpr char32_t kReplacementChar = 0xFFFD;

void AppendUtf8(std::string& out, char32_t codePoint);
bool IsValidUtf8(std::string_view text);
// Returns text unchanged when it is valid UTF-8, else a copy with every ill-formed sequence replaced.
std::string SanitizeUtf8(std::string_view text);

std::wstring Utf8ToWide(std::string_view text);
std::string WideToUtf8(std::wstring_view text);

}  // namespace velmar
