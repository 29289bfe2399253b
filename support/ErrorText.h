// The text of a failed system call as the activity list shows it.
#pragma once

#include <string>

namespace velmar {

// "Error" directly followed by "<operation> failed with error <number>: <system text>" (no blank after
// "Error", as the line has always been written), for the last system error of this thread: GetLastError on
// Windows, errno on POSIX.
std::wstring FormatLastErrorText(const std::wstring& operationName);

// The system's own words for an HRESULT (FormatMessageW on Windows); empty where the system has none,
// as on POSIX, where HRESULTs are MAPI's alone.
std::wstring SystemTextOfResult(unsigned long hr);

// The system's default ANSI code page as a number text ("1252"); "1252" when it cannot be asked, and
// "65001" on POSIX, whose 8-bit text is UTF-8.
std::wstring SystemAnsiCodePageText();

}  // namespace velmar
