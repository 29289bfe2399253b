// The system's 8-bit text: the thread's ANSI code page on Windows, UTF-8 on POSIX (the locale's code page
// of every system we run on). Pipe text, JSON strings and console output use it.
// Characters the code page cannot hold become its default character ("?"); nothing here fails.
#pragma once

#include <string>
#include <string_view>

namespace velmar {

std::wstring AnsiToWide(std::string_view text);
std::string WideToAnsi(std::wstring_view text);
// The system's ANSI code page (code page 0) rather than the thread's: where paths go to narrow file calls.
std::string WideToSystemAnsi(std::wstring_view text);

// Always valid UTF-8 out; on POSIX this only repairs ill-formed input.
std::string AnsiToUtf8(std::string_view text);
std::string Utf8ToAnsi(std::string_view text);

}  // namespace velmar
