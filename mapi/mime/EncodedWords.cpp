#include "mapi/mime/EncodedWords.h"

#include <glib.h>

#include <cstring>
#include <optional>

#include "mapi/mime/Base64.h"
#include "mapi/mime/TextCharset.h"

namespace velmar::mapi {
namespace {

struct CEncodedWord {
    size_t end = 0;       // just after its "?="
    std::string charset;  // lower case, without an RFC 2231 language
    std::string bytes;    // the payload decoded
};

bool IsCharsetChar(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte > 0x20 && byte < 0x7F && !std::strchr("()<>@,;:\\\"/[]?=", c);
}

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// The Q encoding: "_" is a space, "=XX" a byte; anything else, a raw 8-bit byte and a stray "=" included,
// stands for itself.
std::string DecodeQ(std::string_view payload) {
    std::string bytes;
    for (size_t i = 0; i < payload.size(); ++i) {
        const char c = payload[i];
        if (c == '_') {
            bytes += ' ';
        } else if (c == '=' && i + 2 < payload.size() && HexValue(payload[i + 1]) >= 0 &&
                   HexValue(payload[i + 2]) >= 0) {
            bytes += static_cast<char>(HexValue(payload[i + 1]) * 16 + HexValue(payload[i + 2]));
            i += 2;
        } else {
            bytes += c;
        }
    }
    return bytes;
}

// The encoded word "=?charset?B|Q?payload?=" at text[pos], if there is one.
std::optional<CEncodedWord> WordAt(std::string_view text, size_t pos) {
    if (text.compare(pos, 2, "=?") != 0) return std::nullopt;
    size_t at = pos + 2;
    while (at < text.size() && IsCharsetChar(text[at])) ++at;
    if (at + 2 >= text.size() || text[at] != '?' || text[at + 2] != '?') return std::nullopt;
    const char encoding = g_ascii_toupper(text[at + 1]);
    if (encoding != 'B' && encoding != 'Q') return std::nullopt;
    const size_t payload = at + 3;
    const size_t payloadEnd = text.find('?', payload);
    if (payloadEnd == std::string_view::npos || payloadEnd + 1 >= text.size() || text[payloadEnd + 1] != '=')
        return std::nullopt;

    CEncodedWord word;
    word.end = payloadEnd + 2;
    const std::string_view charset = text.substr(pos + 2, at - pos - 2);
    for (const char c : charset.substr(0, charset.find('*'))) word.charset += g_ascii_tolower(c);
    const std::string_view encoded = text.substr(payload, payloadEnd - payload);
    if (encoding == 'Q') {
        word.bytes = DecodeQ(encoded);
    } else {
        CBase64Decoder decoder;
        decoder.Step(encoded, word.bytes);
        decoder.Finish(word.bytes);
    }
    return word;
}

bool IsLinearWhiteSpace(std::string_view text) {
    return text.find_first_not_of(" \t") == std::string_view::npos;
}

}  // namespace

std::string DecodeEncodedWords(std::string_view text, std::string_view hint) {
    std::string out;
    // The joined bytes of a run of adjacent words of one charset, read when the run ends.
    std::string runCharset;
    std::string runBytes;
    bool inRun = false;
    const auto endRun = [&] {
        if (!inRun) return;
        out += CharsetToUtf8(runBytes, runCharset);
        runBytes.clear();
        inRun = false;
    };
    size_t plainStart = 0;
    for (size_t pos = text.find("=?"); pos != std::string_view::npos; pos = text.find("=?", pos)) {
        std::optional<CEncodedWord> word = WordAt(text, pos);
        if (!word) {
            ++pos;
            continue;
        }
        const std::string_view plain = text.substr(plainStart, pos - plainStart);
        // White space between two encoded words is no part of the text.
        if (!inRun || !IsLinearWhiteSpace(plain)) {
            endRun();
            out += HeaderBytesToUtf8(plain, hint);
        }
        if (inRun && runCharset != word->charset) endRun();
        if (!inRun) {
            runCharset = std::move(word->charset);
            inRun = true;
        }
        runBytes += word->bytes;
        pos = plainStart = word->end;
    }
    endRun();
    out += HeaderBytesToUtf8(text.substr(plainStart), hint);
    return out;
}

size_t EncodedWordLength(std::string_view text, size_t pos) {
    const std::optional<CEncodedWord> word = WordAt(text, pos);
    return word ? word->end - pos : 0;
}

}  // namespace velmar::mapi
