#include "mapi/imap/ImapMailboxName.h"

#include <cstdint>
#include <optional>

#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

int Base64Value(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == ',') return 63;
    return -1;
}

// The characters of one shifted run (between "&" and "-") as UTF-8; nullopt when it is not base64 of whole
// UTF-16 code units, or pairs its surrogates wrongly.
std::optional<std::string> DecodeRun(std::string_view run) {
    std::string text;
    std::uint32_t bits = 0;
    int count = 0;
    char32_t high = 0;  // a high surrogate waiting for its low one
    for (const char c : run) {
        const int value = Base64Value(c);
        if (value < 0) return std::nullopt;
        bits = ((bits << 6) | static_cast<std::uint32_t>(value)) & 0x3FFFFF;
        count += 6;
        if (count < 16) continue;
        count -= 16;
        const char32_t unit = (bits >> count) & 0xFFFF;
        // ASCII is never shifted: printable characters stand as themselves, control characters not at all.
        if (unit < 0x80) return std::nullopt;
        if (unit >= 0xD800 && unit <= 0xDBFF) {
            if (high) return std::nullopt;
            high = unit;
        } else if (unit >= 0xDC00 && unit <= 0xDFFF) {
            if (!high) return std::nullopt;
            AppendUtf8(text, 0x10000 + ((high - 0xD800) << 10) + (unit - 0xDC00));
            high = 0;
        } else {
            if (high) return std::nullopt;
            AppendUtf8(text, unit);
        }
    }
    // What is left over is padding: zero bits, fewer than a base64 character's.
    if (high || text.empty() || count >= 6 || (bits & ((1u << count) - 1)) != 0) return std::nullopt;
    return text;
}

}  // namespace

std::wstring DecodeMailboxName(std::string_view name) {
    std::string decoded;
    size_t at = 0;
    while (at < name.size()) {
        const size_t shift = name.find('&', at);
        const size_t end = shift == std::string_view::npos ? shift : name.find('-', shift + 1);
        if (end == std::string_view::npos) {
            decoded += name.substr(at);
            break;
        }
        decoded += name.substr(at, shift - at);
        const std::string_view run = name.substr(shift + 1, end - shift - 1);
        if (run.empty()) {
            decoded += '&';
        } else if (const std::optional<std::string> text = DecodeRun(run)) {
            decoded += *text;
        } else {
            decoded += name.substr(shift, end + 1 - shift);
        }
        at = end + 1;
    }
    return Utf8ToWide(SanitizeUtf8(decoded));
}

}  // namespace velmar::mapi
