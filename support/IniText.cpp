#include "support/IniText.h"

#include <cwctype>

namespace velmar {
namespace {

std::wstring_view Trim(std::wstring_view text) {
    const auto isSpace = [](wchar_t c) {
        return c == L' ' || c == L'\t' || c == L'\r' || c == L'\v' || c == L'\f';
    };
    while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
    return text;
}

std::wstring_view Unquote(std::wstring_view value) {
    if (value.size() >= 2 && (value.front() == L'"' || value.front() == L'\'') &&
        value.back() == value.front())
        return value.substr(1, value.size() - 2);
    return value;
}

}  // namespace

bool IniNamesEqual(std::wstring_view a, std::wstring_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (std::towlower(static_cast<wint_t>(a[i])) != std::towlower(static_cast<wint_t>(b[i])))
            return false;
    return true;
}

std::vector<CIniSection> ParseIniText(std::wstring_view text) {
    std::vector<CIniSection> sections(1);
    size_t lineStart = 0;
    while (lineStart < text.size()) {
        size_t lineEnd = text.find(L'\n', lineStart);
        if (lineEnd == std::wstring_view::npos) lineEnd = text.size();
        const std::wstring_view line = Trim(text.substr(lineStart, lineEnd - lineStart));
        lineStart = lineEnd + 1;
        if (line.empty() || line.front() == L';' || line.front() == L'#') continue;
        if (line.front() == L'[') {
            const size_t close = line.find(L']');
            sections.push_back(
                {std::wstring(Trim(line.substr(1, close == line.npos ? line.npos : close - 1))), {}});
            continue;
        }
        const size_t equals = line.find(L'=');
        if (equals == line.npos) continue;
        sections.back().entries.push_back({std::wstring(Trim(line.substr(0, equals))),
                                           std::wstring(Unquote(Trim(line.substr(equals + 1))))});
    }
    return sections;
}

}  // namespace velmar
