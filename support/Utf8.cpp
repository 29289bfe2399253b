#include "support/Utf8.h"

#include <cstdint>
#include <cstring>

namespace velmar {
namespace {

// Decodes one code point at text[pos]; advances pos past it, or past the maximal ill-formed
// subpart (as Unicode recommends) and returns U+FFFD.
char32_t DecodeOne(std::string_view text, size_t& pos, bool& wellFormed) {
    const auto byteAt = [&](size_t i) { return static_cast<std::uint8_t>(text[i]); };
    const std::uint8_t lead = byteAt(pos);
    wellFormed = true;
    if (lead < 0x80) {
        ++pos;
        return lead;
    }
    size_t length = 0;
    char32_t codePoint = 0;
    std::uint8_t lowest = 0x80;
    std::uint8_t highest = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        codePoint = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        codePoint = lead & 0x0F;
        if (lead == 0xE0) lowest = 0xA0;   // overlong
        if (lead == 0xED) highest = 0x9F;  // surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        codePoint = lead & 0x07;
        if (lead == 0xF0) lowest = 0x90;   // overlong
        if (lead == 0xF4) highest = 0x8F;  // above U+10FFFF
    } else {
        ++pos;
        wellFormed = false;
        return kReplacementChar;
    }
    size_t i = 1;
    for (; i < length; ++i) {
        if (pos + i >= text.size()) break;
        const std::uint8_t next = byteAt(pos + i);
        const std::uint8_t low = (i == 1) ? lowest : 0x80;
        const std::uint8_t high = (i == 1) ? highest : 0xBF;
        if (next < low || next > high) break;
        codePoint = (codePoint << 6) | (next & 0x3F);
    }
    if (i < length) {
        pos += i;
        wellFormed = false;
        return kReplacementChar;
    }
    pos += length;
    return codePoint;
}

// The length of the run of ASCII bytes at the start of text, looked at eight bytes at a time.
size_t AsciiPrefix(std::string_view text) {
    size_t i = 0;
    for (; i + 8 <= text.size(); i += 8) {
        std::uint64_t block;
        std::memcpy(&block, text.data() + i, 8);
        if (block & 0x8080808080808080ULL) break;
    }
    while (i < text.size() && static_cast<std::uint8_t>(text[i]) < 0x80) ++i;
    return i;
}

template <class Sink>
void ForEachCodePoint(std::string_view text, Sink&& sink) {
    size_t pos = 0;
    bool wellFormed = true;
    while (pos < text.size()) sink(DecodeOne(text, pos, wellFormed));
}

char32_t Checked(char32_t codePoint) {
    return codePoint > 0x10FFFF || (codePoint >= 0xD800 && codePoint <= 0xDFFF) ? kReplacementChar
                                                                                : codePoint;
}

size_t Utf8Length(char32_t codePoint) {
    return codePoint < 0x80 ? 1 : codePoint < 0x800 ? 2 : codePoint < 0x10000 ? 3 : 4;
}

// Writes a checked code point at out; returns the position after it.
char* PutUtf8(char* out, char32_t codePoint) {
    if (codePoint < 0x80) {
        *out++ = static_cast<char>(codePoint);
    } else if (codePoint < 0x800) {
        *out++ = static_cast<char>(0xC0 | (codePoint >> 6));
        *out++ = static_cast<char>(0x80 | (codePoint & 0x3F));
    } else if (codePoint < 0x10000) {
        *out++ = static_cast<char>(0xE0 | (codePoint >> 12));
        *out++ = static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
        *out++ = static_cast<char>(0x80 | (codePoint & 0x3F));
    } else {
        *out++ = static_cast<char>(0xF0 | (codePoint >> 18));
        *out++ = static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F));
        *out++ = static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
        *out++ = static_cast<char>(0x80 | (codePoint & 0x3F));
    }
    return out;
}

// Calls sink with each code point of wide text: surrogate pairs joined where wchar_t has 16 bits, anything
// unpaired as it stands (AppendUtf8 and PutUtf8 take it for U+FFFD).
template <class Sink>
void ForEachWideCodePoint(std::wstring_view text, Sink&& sink) {
    for (size_t i = 0; i < text.size(); ++i) {
        char32_t c = static_cast<char32_t>(text[i]);
        if constexpr (sizeof(wchar_t) == 2) {
            c &= 0xFFFF;
            if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size()) {
                const char32_t low = static_cast<char32_t>(text[i + 1]) & 0xFFFF;
                if (low >= 0xDC00 && low <= 0xDFFF) {
                    c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
                    ++i;
                }
            }
        }
        sink(Checked(c));
    }
}

}  // namespace

void AppendUtf8(std::string& out, char32_t codePoint) {
    codePoint = Checked(codePoint);
    char bytes[4];
    out.append(bytes, PutUtf8(bytes, codePoint));
}

bool IsValidUtf8(std::string_view text) {
    size_t pos = 0;
    bool wellFormed = true;
    while (pos < text.size()) {
        pos += AsciiPrefix(text.substr(pos));
        if (pos == text.size()) break;
        DecodeOne(text, pos, wellFormed);
        if (!wellFormed) return false;
    }
    return true;
}

std::string SanitizeUtf8(std::string_view text) {
    if (IsValidUtf8(text)) return std::string(text);
    std::string out;
    out.reserve(text.size() + 8);
    ForEachCodePoint(text, [&](char32_t c) { AppendUtf8(out, c); });
    return out;
}

std::wstring Utf8ToWide(std::string_view text) {
    // Never more characters than bytes, surrogate pairs included (they come from four-byte sequences).
    std::wstring out(text.size(), L'\0');
    wchar_t* put = out.data();
    size_t pos = 0;
    bool wellFormed = true;
    while (pos < text.size()) {
        const size_t ascii = AsciiPrefix(text.substr(pos));
        for (size_t i = 0; i < ascii; ++i) *put++ = static_cast<wchar_t>(text[pos + i]);
        pos += ascii;
        if (pos == text.size()) break;
        char32_t c = DecodeOne(text, pos, wellFormed);
        if constexpr (sizeof(wchar_t) == 2) {
            if (c >= 0x10000) {
                c -= 0x10000;
                *put++ = static_cast<wchar_t>(0xD800 + (c >> 10));
                *put++ = static_cast<wchar_t>(0xDC00 + (c & 0x3FF));
                continue;
            }
        }
        *put++ = static_cast<wchar_t>(c);
    }
    out.resize(static_cast<size_t>(put - out.data()));
    return out;
}

std::string WideToUtf8(std::wstring_view text) {
    // The length first, then the bytes in place: no growing and no check per byte.
    size_t length = 0;
    ForEachWideCodePoint(text, [&](char32_t c) { length += Utf8Length(c); });
    std::string out(length, '\0');
    char* put = out.data();
    ForEachWideCodePoint(text, [&](char32_t c) { put = PutUtf8(put, c); });
    return out;
}

}  // namespace velmar
