// Arbitrary bytes as a mail file: parsed into MAPI content (bodies, recipients, attachments, embedded
// messages), read as TNEF, scanned as a header block, its header fields read as the provider reads them,
// and taken as an entry id, which must encode back to itself.
//
// Encoded words (RFC 2047) are decoded in one place for every header field; that place is checked against
// a second decoding written here from RFC 2047 alone, which no other code uses:
// - header text built from the input out of well-formed words (characters split across adjacent words,
//   base64 padding between words, white space between and around them) must decode to the text it was
//   built from, as a subject, as a display name and as a file name;
// - the input itself, where it is strictly RFC 2047 text, must decode as the reference decodes it.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "harness/TestFiles.h"
#include "mapi/mime/AddressList.h"
#include "mapi/mime/EncodedWords.h"
#include "mapi/mime/HeaderText.h"
#include "mapi/mime/HtmlCharset.h"
#include "mapi/mime/MimeContent.h"
#include "mapi/mime/TextCharset.h"
#include "mapi/mime/Tnef.h"
#include "mapi/provider/EntryId.h"
#include "mapi/provider/MaildirIndex.h"
#include "support/Utf8.h"

namespace {

using namespace velmar::mapi;

void Check(bool condition) {
    if (!condition) std::abort();
}

void ReadContent(const CMessageContent& content, int depth) {
    for (const CAttachmentContent& attachment : content.attachments) {
        if (attachment.method == 5 && depth < 4) {
            GMimeMessage* embedded =
                g_mime_message_part_get_message(GMIME_MESSAGE_PART(attachment.part.get()));
            ReadContent(*ReadMimeMessage(embedded), depth + 1);
        } else {
            // Counting the bytes and decoding them agree.
            const std::optional<std::vector<BYTE>> decoded = DecodedBytes(attachment);
            Check(decoded && decoded->size() == AttachmentSize(attachment));
        }
    }
    Check(velmar::IsValidUtf8(content.html));
}

// --- The reference: RFC 2047 as written, for strictly conforming text only. ---

std::string Lower(std::string_view text) {
    std::string lower;
    for (const char c : text) lower += (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    return lower;
}

int Base64Value(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// The "B" encoding (RFC 2047 4.1): groups of four, padding only at the end.
std::optional<std::string> ReferenceB(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::string bytes;
    for (size_t i = 0; i < text.size(); i += 4) {
        int values[4];
        int padding = 0;
        for (int k = 0; k < 4; ++k) {
            const char c = text[i + static_cast<size_t>(k)];
            if (c == '=') {
                if (i + 4 != text.size() || k < 2) return std::nullopt;
                ++padding;
                values[k] = 0;
            } else {
                if (padding > 0) return std::nullopt;
                values[k] = Base64Value(c);
                if (values[k] < 0) return std::nullopt;
            }
        }
        const unsigned group = (static_cast<unsigned>(values[0]) << 18) |
                               (static_cast<unsigned>(values[1]) << 12) |
                               (static_cast<unsigned>(values[2]) << 6) | static_cast<unsigned>(values[3]);
        bytes += static_cast<char>(group >> 16);
        if (padding < 2) bytes += static_cast<char>((group >> 8) & 0xFF);
        if (padding < 1) bytes += static_cast<char>(group & 0xFF);
    }
    return bytes;
}

// The "Q" encoding (RFC 2047 4.2): "_" for a space, "=XX" for a byte, other printable ASCII as itself.
std::optional<std::string> ReferenceQ(std::string_view text) {
    std::string bytes;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '_') {
            bytes += ' ';
        } else if (c == '=') {
            if (i + 2 >= text.size() || HexDigit(text[i + 1]) < 0 || HexDigit(text[i + 2]) < 0)
                return std::nullopt;
            bytes += static_cast<char>(HexDigit(text[i + 1]) * 16 + HexDigit(text[i + 2]));
            i += 2;
        } else if (c > 0x20 && c < 0x7F && c != '?') {
            bytes += c;
        } else {
            return std::nullopt;
        }
    }
    return bytes;
}

// Bytes of a charset as UTF-8, where the charset reads them without doubt: UTF-8 that is well formed,
// ASCII, and ISO-8859-1 outside 0x80..0x9F (which mail clients read as Windows-1252).
std::optional<std::string> ReferenceCharset(const std::string& charset, std::string_view bytes) {
    if (charset == "utf-8") {
        if (!velmar::IsValidUtf8(bytes)) return std::nullopt;
        return std::string(bytes);
    }
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80) {
            text += c;
        } else if (charset == "iso-8859-1" && byte >= 0xA0) {
            text += static_cast<char>(0xC0 | (byte >> 6));
            text += static_cast<char>(0x80 | (byte & 0x3F));
        } else {
            return std::nullopt;
        }
    }
    return text;
}

struct CReferenceWord {
    std::string charset;
    std::string bytes;
};

// A whole white-space-separated token as an encoded word, or nullopt when it is none.
std::optional<CReferenceWord> ReferenceWord(std::string_view token) {
    if (token.size() < 8 || token.substr(0, 2) != "=?" || token.substr(token.size() - 2) != "?=")
        return std::nullopt;
    const std::string_view inner = token.substr(2, token.size() - 4);
    const size_t first = inner.find('?');
    if (first == std::string_view::npos || first + 2 >= inner.size() || inner[first + 2] != '?')
        return std::nullopt;
    const std::string charset = Lower(inner.substr(0, first));
    if (charset != "utf-8" && charset != "us-ascii" && charset != "iso-8859-1") return std::nullopt;
    const std::string_view payload = inner.substr(first + 3);
    const char encoding = inner[first + 1];
    std::optional<std::string> bytes;
    if (encoding == 'B' || encoding == 'b') bytes = ReferenceB(payload);
    if (encoding == 'Q' || encoding == 'q') bytes = ReferenceQ(payload);
    if (!bytes) return std::nullopt;
    return CReferenceWord{charset, std::move(*bytes)};
}

// The text decoded, when it is strictly RFC 2047 text: printable ASCII words and encoded words separated by
// spaces and tabs. White space between two encoded words goes (6.2); the bytes of adjacent words of one
// charset are joined before they are read. Nullopt for any other text.
std::optional<std::string> ReferenceDecode(std::string_view text) {
    std::string out;
    std::optional<CReferenceWord> run;  // the words since the last other token
    const auto endRun = [&]() -> bool {
        if (!run) return true;
        std::optional<std::string> decoded = ReferenceCharset(run->charset, run->bytes);
        run.reset();
        if (!decoded) return false;
        out += *decoded;
        return true;
    };
    size_t pos = 0;
    while (pos < text.size()) {
        const size_t start = pos;
        while (pos < text.size() && (text[pos] == ' ' || text[pos] == '\t')) ++pos;
        const std::string_view space = text.substr(start, pos - start);
        const size_t tokenStart = pos;
        while (pos < text.size() && text[pos] != ' ' && text[pos] != '\t') ++pos;
        const std::string_view token = text.substr(tokenStart, pos - tokenStart);
        if (std::optional<CReferenceWord> word = ReferenceWord(token)) {
            if (run && run->charset == word->charset) {
                run->bytes += word->bytes;
                continue;
            }
            const bool afterWord = run.has_value();
            if (!endRun()) return std::nullopt;
            if (!afterWord) out += space;
            run = std::move(word);
            continue;
        }
        if (token.find("=?") != std::string_view::npos) return std::nullopt;
        for (const char c : token)
            if (static_cast<unsigned char>(c) < 0x21 || static_cast<unsigned char>(c) > 0x7E)
                return std::nullopt;
        if (!endRun()) return std::nullopt;
        out += space;
        out += token;
    }
    if (!endRun()) return std::nullopt;
    return out;
}

// --- Header text built from the input, with the text it stands for. ---

class CInput {
public:
    CInput(const std::uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    bool Empty() const { return m_pos >= m_size; }
    unsigned Next() { return m_pos < m_size ? m_data[m_pos++] : 0; }

private:
    const std::uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
};

void AppendUtf8Char(std::string& out, char32_t c) {
    velmar::AppendUtf8(out, c);
}

std::string EncodeQ(std::string_view bytes, CInput& input) {
    static constexpr char kHex[] = "0123456789ABCDEF0123456789abcdef";
    std::string text;
    for (const char c : bytes) {
        const bool alnum = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        if (alnum) {
            text += c;
        } else if (c == ' ' && (input.Next() & 1)) {
            text += '_';
        } else {
            const unsigned caseOffset = (input.Next() & 1) ? 16 : 0;
            const auto byte = static_cast<unsigned char>(c);
            text += '=';
            text += kHex[(byte >> 4) + caseOffset];
            text += kHex[(byte & 15) + caseOffset];
        }
    }
    return text;
}

// Runs of adjacent encoded words of one charset and plain words, separated by white space; the text of a
// run is cut into its words at any byte, within characters too.
void BuildHeaderText(CInput& input, std::string& header, std::string& expected) {
    static constexpr const char* kCharsets[] = {"UTF-8", "utf-8", "ISO-8859-1", "us-ascii"};
    bool lastWasEncoded = false;
    for (int token = 0; token < 12 && !input.Empty(); ++token) {
        const std::string separator = (input.Next() & 1) ? " " : "\t";
        const unsigned kind = input.Next() % 3;
        if (kind == 0) {
            std::string word;
            const unsigned length = input.Next() % 6 + 1;
            for (unsigned i = 0; i < length; ++i) word += "abcXYZ0189"[input.Next() % 10];
            if (!header.empty()) {
                header += separator;
                expected += separator;
            }
            header += word;
            expected += word;
            lastWasEncoded = false;
            continue;
        }
        const std::string charset = kCharsets[input.Next() % 4];
        std::string bytes;
        const unsigned characters = input.Next() % 10;
        for (unsigned i = 0; i < characters; ++i) {
            const unsigned a = input.Next();
            const unsigned b = input.Next();
            if (charset == "us-ascii") {
                bytes += static_cast<char>(0x20 + a % 0x5F);
            } else if (charset == "ISO-8859-1") {
                const unsigned byte = a % 0xBF;
                bytes += static_cast<char>(byte < 0x5F ? 0x20 + byte : 0xA0 + (byte - 0x5F));
            } else {
                static constexpr char32_t kBases[] = {0x20, 0xA0, 0x400, 0x4E00, 0x1F600};
                AppendUtf8Char(bytes, kBases[a % 5] + (b % 0x5F));
            }
        }
        expected += lastWasEncoded ? std::string() : (header.empty() ? std::string() : separator);
        std::string decoded;
        if (charset == "ISO-8859-1") {
            for (const char c : bytes) {
                const auto byte = static_cast<unsigned char>(c);
                if (byte < 0x80) {
                    decoded += c;
                } else {
                    decoded += static_cast<char>(0xC0 | (byte >> 6));
                    decoded += static_cast<char>(0x80 | (byte & 0x3F));
                }
            }
        } else {
            decoded = bytes;
        }
        expected += decoded;
        // The run's words, cut anywhere.
        const unsigned words = input.Next() % 3 + 1;
        size_t at = 0;
        for (unsigned w = 0; w < words; ++w) {
            const size_t end = w + 1 == words ? bytes.size() : at + input.Next() % (bytes.size() - at + 1);
            const std::string_view piece = std::string_view(bytes).substr(at, end - at);
            at = end;
            if (!header.empty()) header += (w > 0 && (input.Next() & 1)) ? "" : separator;
            header += "=?" + charset +
                      ((input.Next() & 1) ? "?B?" + velmar::test::Base64(piece, false)
                                          : "?Q?" + EncodeQ(piece, input)) +
                      "?=";
        }
        lastWasEncoded = true;
    }
}

void CheckEncodedWords(const std::uint8_t* data, size_t size) {
    CInput input(data, size);
    std::string header;
    std::string expected;
    BuildHeaderText(input, header, expected);
    if (!header.empty()) {
        Check(DecodeEncodedWords(header, {}) == expected);
        Check(UnstructuredText("  " + header + "\r\n", {}) == expected);
        const std::vector<CMailboxText> mailboxes = ParseAddressList(header + " <a@b.example>", {});
        Check(mailboxes.size() == 1 && mailboxes[0].name == expected &&
              mailboxes[0].address == "a@b.example");
        Check(HeaderParameter("attachment; filename=\"" + header + "\"", "filename", {}) == expected);
    }
    // The input itself, where it is strict RFC 2047 text.
    const std::string_view text(reinterpret_cast<const char*>(data), std::min<size_t>(size, 4096));
    if (std::optional<std::string> reference = ReferenceDecode(text))
        Check(DecodeEncodedWords(text, {}) == *reference);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    EnsureGMime();
    GObjectPtr<GMimeStream> stream(
        g_mime_stream_mem_new_with_buffer(reinterpret_cast<const char*>(data), size));
    GObjectPtr<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
    GObjectPtr<GMimeMessage> message(g_mime_parser_construct_message(parser.get(), nullptr));
    if (message) ReadContent(*ReadMimeMessage(message.get()), 0);

    // Nothing unpacked from TNEF can be larger than the stream it came from.
    if (auto tnef = ReadTnef(std::span<const std::uint8_t>(data, size))) {
        for (const CTnefAttachment& attachment : tnef->attachments)
            if (attachment.data.size() > size) std::abort();
    }
    const std::string text(reinterpret_cast<const char*>(data), size);
    Check(velmar::IsValidUtf8(DecodeHeaderText(HeaderValue(text, "Subject"))));
    for (const CMailboxText& mailbox : ParseAddressList(HeaderValue(text, "To"), "iso-2022-jp")) {
        Check(velmar::IsValidUtf8(mailbox.name) && velmar::IsValidUtf8(mailbox.address));
        Check(mailbox.name.find_first_of("\r\n") == std::string::npos);
    }
    if (auto name = HeaderParameter(HeaderValue(text, "Content-Type"), "name", "shift_jis"))
        Check(velmar::IsValidUtf8(*name));
    Check(velmar::IsValidUtf8(CharsetToUtf8(text, HtmlDeclaredCharset(text))));
    Check(velmar::IsValidUtf8(DeclareUtf8(velmar::SanitizeUtf8(text))));
    CheckEncodedWords(data, size);

    if (auto id = DecodeEntryId(data, size)) {
        const std::vector<BYTE> again = EncodeEntryId(*id);
        if (again.size() != size || !std::equal(again.begin(), again.end(), data)) std::abort();
    }
    return 0;
}
