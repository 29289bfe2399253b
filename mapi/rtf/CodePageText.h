// Text in Windows code pages and UTF-16, turned into UTF-8 through iconv (so POSIX-only). Every
// ill-formed sequence becomes U+FFFD; nothing here fails.
#pragma once

#include <iconv.h>

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>

namespace velmar::mapi {

// The code page of text that names none, and of a code page iconv does not know.
inline constexpr int kDefaultCodePage = 1252;

// Collects output as UTF-8. Bytes are buffered per code page and converted in runs, because a
// multi-byte character (Shift-JIS, GBK, ...) often arrives a byte at a time.
class Utf8Sink {
public:
    explicit Utf8Sink(std::string& out) : m_out(out) {}
    ~Utf8Sink();
    Utf8Sink(const Utf8Sink&) = delete;
    Utf8Sink& operator=(const Utf8Sink&) = delete;

    // One byte of text in a Windows code page.
    void Byte(std::uint8_t b, int codePage);
    // One UTF-16 code unit or a code point; surrogate halves are paired, a lone one becomes U+FFFD.
    void CodePoint(std::uint32_t cp);
    void Ascii(std::string_view s);
    // Converts what is still buffered.
    void Finish();

private:
    static inline const iconv_t kInvalid = reinterpret_cast<iconv_t>(static_cast<std::intptr_t>(-1));

    void FlushSurrogate();
    iconv_t Open(const std::string& name);
    iconv_t Converter(int codePage);
    void FlushBytes();

    std::string& m_out;
    std::string m_pending;
    int m_pendingCodePage = kDefaultCodePage;
    std::uint32_t m_highSurrogate = 0;
    std::map<std::string, iconv_t> m_opened;
    std::map<int, iconv_t> m_byCodePage;
};

// Bytes in a Windows code page (0 for the default) as UTF-8.
std::string CodePageToUtf8(std::span<const std::uint8_t> bytes, int codePage);
// UTF-16LE as UTF-8; an odd last byte is dropped.
std::string Utf16LeToUtf8(std::span<const std::uint8_t> bytes);

}  // namespace velmar::mapi
