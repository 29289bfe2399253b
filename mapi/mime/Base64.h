// Base64 as mail carries it (RFC 2045): decoded piece by piece, leniently, and never short; and encoded in
// one line, for SASL and OAuth2.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace velmar::mapi {

// Characters outside the alphabet (line breaks, stray spaces) are skipped. Padding ends a group, so that
// bodies joined after their padding decode whole; a group cut short, with or without its padding, gives
// the bytes it holds ("SGVsbG8" is "Hello"), never fewer.
class CBase64Decoder {
public:
    void Step(std::string_view encoded, std::string& out);
    // Appends what the last, short group holds; the decoder then starts afresh.
    void Finish(std::string& out);

private:
    // Writes what the current group holds at put; returns the place after it.
    char* FinishInto(char* put);

    std::uint32_t m_bits = 0;
    int m_count = 0;  // characters in the current group
};

enum class EBase64Alphabet {
    Standard,  // RFC 4648 section 4, padded with "="
    Url,       // RFC 4648 section 5, without padding (PKCE, RFC 7636)
};

// bytes in one line of base64, without line breaks.
std::string Base64Encode(std::string_view bytes, EBase64Alphabet alphabet = EBase64Alphabet::Standard);

}  // namespace velmar::mapi
