// The text of an initialisation file: [section] headers and key=value lines, in file order. Comment lines
// start with ';' or '#'; white space around names and values is dropped, and so is one pair of matching
// quotes around a value. Lines that are neither are skipped.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace velmar {

struct CIniEntry {
    std::wstring key;
    std::wstring value;
};

struct CIniSection {
    std::wstring name;
    std::vector<CIniEntry> entries;
};

// Entries before the first header go to a section with an empty name.
std::vector<CIniSection> ParseIniText(std::wstring_view text);

// Names in initialisation files compare without regard to case.
bool IniNamesEqual(std::wstring_view a, std::wstring_view b);

}  // namespace velmar
