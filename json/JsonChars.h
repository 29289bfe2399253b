// Byte scans the parser and the writer share. Mail bodies make strings of hundreds of kilobytes, so both
// look at eight bytes at a time and fall back to single bytes only near a byte that matters.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

namespace velmar::json {

// A quote, a backslash or a control character: what ends a plain run inside a JSON string, and what the
// writer must escape.
inline bool IsSpecialInString(char c) {
    return c == '"' || c == '\\' || static_cast<unsigned char>(c) < 0x20;
}

// The position of the first special byte at or after pos, or text.size() when there is none.
inline size_t PlainRunEnd(std::string_view text, size_t pos) {
    constexpr std::uint64_t kOnes = 0x0101010101010101u;
    constexpr std::uint64_t kHighBits = 0x8080808080808080u;
    // Non-zero when some byte of word is below limit (limit <= 0x80); exact for "some byte", which is all
    // that is asked here.
    const auto anyBelow = [](std::uint64_t word, std::uint64_t limit) {
        return (word - kOnes * limit) & ~word & kHighBits;
    };
    for (; pos + 8 <= text.size(); pos += 8) {
        std::uint64_t word;
        std::memcpy(&word, text.data() + pos, 8);
        if (anyBelow(word ^ (kOnes * '"'), 1) | anyBelow(word ^ (kOnes * '\\'), 1) | anyBelow(word, 0x20))
            break;
    }
    while (pos < text.size() && !IsSpecialInString(text[pos])) ++pos;
    return pos;
}

// Whether every byte is below 0x80. Such text reads the same in UTF-8 and in every 8-bit code page.
inline bool IsAscii(std::string_view text) {
    constexpr std::uint64_t kHighBits = 0x8080808080808080u;
    size_t pos = 0;
    for (; pos + 8 <= text.size(); pos += 8) {
        std::uint64_t word;
        std::memcpy(&word, text.data() + pos, 8);
        if (word & kHighBits) return false;
    }
    for (; pos < text.size(); ++pos)
        if (static_cast<unsigned char>(text[pos]) >= 0x80) return false;
    return true;
}

}  // namespace velmar::json
