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

// The HTML with text inserted right after the ">" that closes its first "<body" tag (found ignoring
// case); in front of everything when there is no such tag, no ">" after it, or that ">" ends the HTML.
std::wstring InsertTextIntoHTMLBodyBegin(const std::wstring& html, const std::wstring& text);

// A forward's send note: every CR LF becomes "<br>", in the plain body too.
std::wstring SendNoteText(std::wstring note);

// A path split at its last separator into folder and file name; without one both are the whole path.
struct CPathParts {
    std::wstring folder;
    std::wstring fileName;
    std::wstring extension;  // with its dot, of the file name; empty when it has none
};
CPathParts SplitAttachmentPath(const std::wstring& path, wchar_t separator);

}  // namespace velmar::mail
