// The mail layer's pure text rules, apart from any MAPI object: how an address list is split, how a
// creation time is shown, how an attachment's name becomes a file name, where a text read from a stream ends.
#pragma once

#include <string>
#include <vector>

#include "mail/MapiHeaders.h"

namespace velmar::mail {

// The address string split at commas: runs of commas give no empty pieces, each piece loses the white
// space around it and counts only when something is left, a comma at the very end adds one empty token,
// and a token equal to the one before it is dropped.
std::vector<std::wstring> AddressTokens(const std::wstring& addresses);

// "dd.mm.yyyy, hh:mm" of a file time in the local time zone; empty when it cannot be converted.
std::wstring LocalDateText(const FILETIME& time);

// An attachment's name as a file name: cut to 259 characters, then each of ^&*-+=[]\|;:",<>/? becomes
// "_" (the hyphen on purpose), and so does each control character; full stops and blanks stay, so the
// extension survives.
std::wstring CleanFileName(const std::wstring& name);

// Text as a C string sees it: up to its first NUL.
std::wstring CutAtNul(std::wstring text);
std::string CutAtNul(std::string text);

// A lower-case copy.
std::wstring LowerText(std::wstring text);

}  // namespace velmar::mail
