// The text of a failed system call as the activity list shows it.
#pragma once

#include <string>

namespace velmar {

// "Error" directly followed by "<operation> failed with error <number>: <system text>" (no blank after
// "Error", as the line has always been written), for the last system error of this thread: GetLastError on
// Windows, errno on POSIX.
std::wstring FormatLastErrorText(const std::wstring& operationName);

}  // namespace velmar
