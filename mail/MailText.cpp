#include "mail/MailText.h"

#include <cstring>
#include <cwchar>
#include <cwctype>

#include "support/LocalTime.h"

namespace velmar::mail {
namespace {

constexpr wchar_t kReplacedCharacters[] = L"^&*-+=[]\\|;:\",<>/?";
constexpr size_t kMaxFileNameLength = 259;

}  // namespace

std::vector<std::wstring> AddressTokens(const std::wstring& addresses) {
    std::vector<std::wstring> tokens;
    size_t start = 0;
    while (start <= addresses.size()) {
        size_t end = addresses.find(L',', start);
        if (end == std::wstring::npos) end = addresses.size();
        const std::wstring piece = addresses.substr(start, end - start);
        const size_t first = piece.find_first_not_of(L" \t\r\n");
        const size_t last = piece.find_last_not_of(L" \t\r\n");
        if (first != std::wstring::npos) tokens.push_back(piece.substr(first, last - first + 1));
        start = end + 1;
    }
    // Deliberate: a trailing comma stands for one empty address.
    if (!addresses.empty() && addresses.back() == L',') tokens.emplace_back();
    std::vector<std::wstring> unique;
    for (std::wstring& token : tokens)
        if (unique.empty() || unique.back() != token) unique.push_back(std::move(token));
    return unique;
}

std::wstring LocalDateText(const FILETIME& time) {
    const unsigned long long ticks =
        (static_cast<unsigned long long>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
    const long long unixSeconds = static_cast<long long>(ticks / 10000000ULL) - 11644473600LL;
    std::tm local{};
    if (!velmar::ToLocalTime(unixSeconds, local)) return {};
    wchar_t text[32] = {};
    std::swprintf(text, 32, L"%.2d.%.2d.%.4d, %.2d:%.2d", local.tm_mday, local.tm_mon + 1,
                  local.tm_year + 1900, local.tm_hour, local.tm_min);
    return text;
}

std::wstring CleanFileName(const std::wstring& name) {
    std::wstring cleaned = name.substr(0, kMaxFileNameLength);
    for (size_t at = cleaned.find_first_of(kReplacedCharacters); at != std::wstring::npos;
         at = cleaned.find_first_of(kReplacedCharacters, at + 1))
        cleaned[at] = L'_';
    // Control characters (ESC, CR, LF, TAB, DEL, ...) have no place in a file name either.
    for (wchar_t& c : cleaned)
        if (c < 0x20 || c == 0x7F) c = L'_';
    return cleaned;
}

std::wstring CutAtNul(std::wstring text) {
    text.resize(std::wcslen(text.c_str()));
    return text;
}

std::string CutAtNul(std::string text) {
    text.resize(std::strlen(text.c_str()));
    return text;
}

std::wstring LowerText(std::wstring text) {
    for (wchar_t& c : text) c = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(c)));
    return text;
}

std::wstring InsertTextIntoHTMLBodyBegin(const std::wstring& html, const std::wstring& text) {
    const std::wstring lower = LowerText(html);
    const size_t body = lower.find(L"<body");
    const size_t close = body == std::wstring::npos ? std::wstring::npos : lower.find(L'>', body);
    // A ">" that ends the HTML counts as no tag at all: the text goes in front then too.
    if (close == std::wstring::npos || close + 1 == html.size()) return text + html;
    return html.substr(0, close + 1) + text + html.substr(close + 1);
}

std::wstring SendNoteText(std::wstring note) {
    for (size_t at = note.find(L"\r\n"); at != std::wstring::npos; at = note.find(L"\r\n", at + 4))
        note.replace(at, 2, L"<br>");
    return note;
}

CPathParts SplitAttachmentPath(const std::wstring& path, wchar_t separator) {
    CPathParts parts;
    const size_t last = path.rfind(separator);
    if (last == std::wstring::npos) {
        parts.folder = path;
        parts.fileName = path;
    } else {
        parts.folder = path.substr(0, last);
        parts.fileName = path.substr(last + 1);
    }
    const std::wstring name = last == std::wstring::npos ? path : path.substr(last + 1);
    if (const size_t dot = name.rfind(L'.'); dot != std::wstring::npos) parts.extension = name.substr(dot);
    return parts;
}

}  // namespace velmar::mail
