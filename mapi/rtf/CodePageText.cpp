#include "mapi/rtf/CodePageText.h"

#include <array>
#include <cerrno>
#include <vector>

#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

struct IconvAlias {
    int codePage;
    std::string_view name;
    std::string_view fallback;  // tried when the first name is unknown to this iconv
};
constexpr IconvAlias kIconvAliases[] = {
    {65001, "UTF-8", ""},       {932, "CP932", "SHIFT_JIS"}, {936, "CP936", "GBK"},
    {949, "CP949", "UHC"},      {950, "CP950", "BIG5"},      {1200, "UTF-16LE", ""},
    {1201, "UTF-16BE", ""},     {1361, "CP1361", "JOHAB"},   {10000, "MACINTOSH", ""},
    {20127, "ASCII", ""},       {20866, "KOI8-R", ""},       {21866, "KOI8-U", ""},
    {20932, "EUC-JP", ""},      {51932, "EUC-JP", ""},       {50220, "ISO-2022-JP", ""},
    {50221, "ISO-2022-JP", ""}, {50222, "ISO-2022-JP", ""},  {54936, "GB18030", ""}};

std::vector<std::string> IconvNames(int codePage) {
    for (const IconvAlias& alias : kIconvAliases) {
        if (alias.codePage != codePage) continue;
        std::vector<std::string> names{std::string(alias.name)};
        if (!alias.fallback.empty()) names.emplace_back(alias.fallback);
        return names;
    }
    if (codePage >= 28591 && codePage <= 28605) return {"ISO-8859-" + std::to_string(codePage - 28590)};
    return {"CP" + std::to_string(codePage)};
}

}  // namespace

Utf8Sink::~Utf8Sink() {
    for (auto& [name, cd] : m_opened) {
        if (cd != kInvalid) iconv_close(cd);
    }
}

void Utf8Sink::Byte(std::uint8_t b, int codePage) {
    FlushSurrogate();
    if (!m_pending.empty() && codePage != m_pendingCodePage) FlushBytes();
    m_pendingCodePage = codePage;
    m_pending += static_cast<char>(b);
}

void Utf8Sink::CodePoint(std::uint32_t cp) {
    FlushBytes();
    if (cp >= 0xD800 && cp <= 0xDBFF) {
        FlushSurrogate();
        m_highSurrogate = cp;
    } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
        const std::uint32_t high = m_highSurrogate;
        m_highSurrogate = 0;
        velmar::AppendUtf8(m_out, high ? 0x10000 + ((high - 0xD800) << 10) + (cp - 0xDC00) : 0xFFFD);
    } else {
        FlushSurrogate();
        if (cp != 0) velmar::AppendUtf8(m_out, cp);
    }
}

void Utf8Sink::Ascii(std::string_view s) {
    Finish();
    m_out += s;
}

void Utf8Sink::Finish() {
    FlushBytes();
    FlushSurrogate();
}

void Utf8Sink::FlushSurrogate() {
    if (m_highSurrogate != 0) velmar::AppendUtf8(m_out, 0xFFFD);  // a high surrogate with no low half
    m_highSurrogate = 0;
}

iconv_t Utf8Sink::Open(const std::string& name) {
    auto it = m_opened.find(name);
    if (it == m_opened.end()) it = m_opened.emplace(name, iconv_open("UTF-8", name.c_str())).first;
    return it->second;
}

iconv_t Utf8Sink::Converter(int codePage) {
    auto it = m_byCodePage.find(codePage);
    if (it != m_byCodePage.end()) return it->second;
    iconv_t cd = kInvalid;
    for (const std::string& name : IconvNames(codePage)) {
        if ((cd = Open(name)) != kInvalid) break;
    }
    if (cd == kInvalid && codePage != kDefaultCodePage) cd = Converter(kDefaultCodePage);
    m_byCodePage.emplace(codePage, cd);
    return cd;
}

void Utf8Sink::FlushBytes() {
    if (m_pending.empty()) return;
    const iconv_t cd = Converter(m_pendingCodePage);
    if (cd == kInvalid) {  // no converter at all: read the bytes as Latin-1
        for (const char c : m_pending)
            velmar::AppendUtf8(m_out, static_cast<char32_t>(static_cast<std::uint8_t>(c)));
        m_pending.clear();
        return;
    }
    iconv(cd, nullptr, nullptr, nullptr, nullptr);  // reset shift state
    char* in = m_pending.data();
    std::size_t inLeft = m_pending.size();
    std::array<char, 1024> buf;
    while (inLeft > 0) {
        char* outPtr = buf.data();
        std::size_t outLeft = buf.size();
        const std::size_t rc = iconv(cd, &in, &inLeft, &outPtr, &outLeft);
        const int err = errno;
        m_out.append(buf.data(), static_cast<std::size_t>(outPtr - buf.data()));
        if (rc != static_cast<std::size_t>(-1)) continue;
        if (err == E2BIG && outPtr != buf.data()) continue;
        // Invalid or incomplete sequence: mark it and resynchronise on the next byte.
        velmar::AppendUtf8(m_out, 0xFFFD);
        ++in;
        --inLeft;
    }
    char* outPtr = buf.data();
    std::size_t outLeft = buf.size();
    iconv(cd, nullptr, nullptr, &outPtr, &outLeft);
    m_out.append(buf.data(), static_cast<std::size_t>(outPtr - buf.data()));
    m_pending.clear();
}

std::string CodePageToUtf8(std::span<const std::uint8_t> bytes, int codePage) {
    std::string text;
    Utf8Sink sink(text);
    for (const std::uint8_t b : bytes) sink.Byte(b, codePage ? codePage : kDefaultCodePage);
    sink.Finish();
    return text;
}

std::string Utf16LeToUtf8(std::span<const std::uint8_t> bytes) {
    std::string text;
    Utf8Sink sink(text);
    for (size_t i = 0; i + 1 < bytes.size(); i += 2)
        sink.CodePoint(static_cast<std::uint32_t>(bytes[i] | (bytes[i + 1] << 8)));
    sink.Finish();
    return text;
}

}  // namespace velmar::mapi
