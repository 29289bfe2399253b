#include "mapi/mime/TextCharset.h"

#include <gmime/gmime.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <optional>

#include "mapi/mime/GMimeSupport.h"
#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

// Windows-1252 at 0x80..0x9F; the five bytes it leaves undefined are the C1 controls of the same value,
// as the WHATWG encoding standard maps them, so that every byte reads as something.
constexpr std::array<char16_t, 32> kWindows1252High = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

void AppendWindows1252(std::string& out, unsigned char byte) {
    if (byte < 0x80) {
        out += static_cast<char>(byte);
    } else if (byte < 0xA0) {
        AppendUtf8(out, kWindows1252High[byte - 0x80]);
    } else {
        AppendUtf8(out, byte);
    }
}

// The length of the well-formed UTF-8 sequence at text[pos], or 0 when there is none.
size_t Utf8SequenceAt(std::string_view text, size_t pos) {
    const auto byteAt = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byteAt(pos);
    if (lead < 0x80) return 1;
    size_t length = 0;
    unsigned char lowest = 0x80;
    unsigned char highest = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) lowest = 0xA0;   // overlong
        if (lead == 0xED) highest = 0x9F;  // surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) lowest = 0x90;   // overlong
        if (lead == 0xF4) highest = 0x8F;  // above U+10FFFF
    } else {
        return 0;
    }
    if (pos + length > text.size()) return 0;
    for (size_t i = 1; i < length; ++i) {
        const unsigned char next = byteAt(pos + i);
        if (next < (i == 1 ? lowest : 0x80) || next > (i == 1 ? highest : 0xBF)) return 0;
    }
    return length;
}

std::string Normalized(std::string_view charset) {
    std::string name;
    for (const char c : charset) {
        if (c == ' ' || c == '\t' || c == '"' || c == '\'') continue;
        name += static_cast<char>(g_ascii_tolower(c));
    }
    return name;
}

bool IsOneOf(const std::string& name, std::initializer_list<std::string_view> names) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

// Names that say "ASCII or UTF-8", or say nothing a converter could use.
bool MeansUtf8(const std::string& name) {
    return name.empty() ||
           IsOneOf(name, {"utf-8", "utf8", "us-ascii", "ascii", "ansi_x3.4-1968", "iso646-us", "unknown-8bit",
                          "x-unknown", "unknown", "default", "x-user-defined"});
}

bool MeansWindows1252(const std::string& name) {
    return IsOneOf(name, {"iso-8859-1", "iso8859-1", "iso_8859-1", "iso-ir-100", "latin1", "l1", "cp819",
                          "ibm819", "windows-1252", "cp1252", "x-cp1252", "ms-ansi"});
}

class CConverter {
public:
    explicit CConverter(const std::string& charset) {
        EnsureGMime();
        m_cd = g_mime_iconv_open("UTF-8", charset.c_str());
    }
    ~CConverter() {
        if (Valid()) g_mime_iconv_close(m_cd);
    }
    CConverter(const CConverter&) = delete;
    CConverter& operator=(const CConverter&) = delete;

    bool Valid() const { return m_cd != reinterpret_cast<iconv_t>(static_cast<std::intptr_t>(-1)); }

    // The bytes converted; each byte the charset does not take is read as Windows-1252 when lenient, else
    // the conversion fails.
    std::optional<std::string> Convert(std::string_view bytes, bool lenient) {
        std::string out;
        char buffer[4096];
        char* in = const_cast<char*>(bytes.data());
        size_t inLeft = bytes.size();
        iconv(m_cd, nullptr, nullptr, nullptr, nullptr);
        while (inLeft > 0) {
            char* outPtr = buffer;
            size_t outLeft = sizeof buffer;
            const size_t result = iconv(m_cd, &in, &inLeft, &outPtr, &outLeft);
            const int error = errno;
            out.append(buffer, static_cast<size_t>(outPtr - buffer));
            if (result != static_cast<size_t>(-1) || error == E2BIG) continue;
            // EILSEQ, or EINVAL for a sequence cut off at the end.
            if (!lenient) return std::nullopt;
            AppendWindows1252(out, static_cast<unsigned char>(*in));
            ++in;
            --inLeft;
            iconv(m_cd, nullptr, nullptr, nullptr, nullptr);
        }
        // The shift state of a stateful charset (ISO-2022-JP) back to its start.
        char* outPtr = buffer;
        size_t outLeft = sizeof buffer;
        iconv(m_cd, nullptr, nullptr, &outPtr, &outLeft);
        out.append(buffer, static_cast<size_t>(outPtr - buffer));
        return SanitizeUtf8(out);
    }

private:
    iconv_t m_cd;
};

}  // namespace

std::string Utf8OrWindows1252(std::string_view bytes) {
    if (IsValidUtf8(bytes)) return std::string(bytes);
    std::string out;
    out.reserve(bytes.size());
    for (size_t pos = 0; pos < bytes.size();) {
        if (const size_t length = Utf8SequenceAt(bytes, pos)) {
            out.append(bytes.substr(pos, length));
            pos += length;
        } else {
            AppendWindows1252(out, static_cast<unsigned char>(bytes[pos++]));
        }
    }
    return out;
}

std::string CharsetToUtf8(std::string_view bytes, std::string_view charset) {
    const std::string name = Normalized(charset);
    if (MeansUtf8(name)) return Utf8OrWindows1252(bytes);
    if (MeansWindows1252(name)) {
        std::string out;
        out.reserve(bytes.size());
        for (const char c : bytes) AppendWindows1252(out, static_cast<unsigned char>(c));
        return out;
    }
    CConverter converter(name);
    if (!converter.Valid()) return Utf8OrWindows1252(bytes);
    if (std::optional<std::string> text = converter.Convert(bytes, false)) return std::move(*text);
    if (IsValidUtf8(bytes)) return std::string(bytes);
    return std::move(*converter.Convert(bytes, true));
}

std::string HeaderBytesToUtf8(std::string_view bytes, std::string_view hint) {
    if (IsValidUtf8(bytes)) return std::string(bytes);
    // A header line is ASCII-based whatever the body is: a body in UTF-16 says nothing of its 8-bit bytes.
    const std::string name = Normalized(hint);
    for (const std::string_view wide : {"utf-16", "utf-32", "ucs-2", "ucs-4", "utf-7"})
        if (name.compare(0, wide.size(), wide) == 0) return Utf8OrWindows1252(bytes);
    return CharsetToUtf8(bytes, hint);
}

}  // namespace velmar::mapi
