#include "mapi/mime/Base64.h"

#include <algorithm>
#include <array>

namespace velmar::mapi {
namespace {

constexpr int kSkipped = -1;
constexpr int kPadding = -2;

// The value of each alphabet character; kPadding for "=", kSkipped for all else.
constexpr std::array<std::int8_t, 256> kRanks = [] {
    std::array<std::int8_t, 256> ranks{};
    ranks.fill(kSkipped);
    for (int i = 0; i < 26; ++i) {
        ranks['A' + i] = static_cast<std::int8_t>(i);
        ranks['a' + i] = static_cast<std::int8_t>(26 + i);
    }
    for (int i = 0; i < 10; ++i) ranks['0' + i] = static_cast<std::int8_t>(52 + i);
    ranks['+'] = 62;
    ranks['/'] = 63;
    ranks['='] = kPadding;
    return ranks;
}();

}  // namespace

void CBase64Decoder::Step(std::string_view encoded, std::string& out) {
    // Four characters give three bytes, a group cut short by padding no more than its characters' worth,
    // and a group carried over from the last step at most three more: the room is known beforehand.
    const size_t start = out.size();
    out.resize(start + encoded.size() / 4 * 3 + 3);
    char* put = out.data() + start;
    const auto* bytes = reinterpret_cast<const unsigned char*>(encoded.data());
    const size_t size = encoded.size();
    size_t i = 0;
    while (i < size) {
        // Whole groups of four alphabet characters, the bulk of every body, in one go.
        if (m_count == 0 && i + 4 <= size) {
            const int a = kRanks[bytes[i]], b = kRanks[bytes[i + 1]], c = kRanks[bytes[i + 2]],
                      d = kRanks[bytes[i + 3]];
            if ((a | b | c | d) >= 0) {
                const auto group = static_cast<std::uint32_t>((a << 18) | (b << 12) | (c << 6) | d);
                *put++ = static_cast<char>((group >> 16) & 0xFF);
                *put++ = static_cast<char>((group >> 8) & 0xFF);
                *put++ = static_cast<char>(group & 0xFF);
                i += 4;
                continue;
            }
        }
        const int rank = kRanks[bytes[i++]];
        if (rank >= 0) {
            m_bits = (m_bits << 6) | static_cast<std::uint32_t>(rank);
            if (++m_count == 4) {
                *put++ = static_cast<char>((m_bits >> 16) & 0xFF);
                *put++ = static_cast<char>((m_bits >> 8) & 0xFF);
                *put++ = static_cast<char>(m_bits & 0xFF);
                m_bits = 0;
                m_count = 0;
            }
        } else if (rank == kPadding) {
            put = FinishInto(put);
        }
    }
    out.resize(static_cast<size_t>(put - out.data()));
}

char* CBase64Decoder::FinishInto(char* put) {
    // Two characters hold one byte, three hold two; a lone one holds no whole byte.
    if (m_count == 2) {
        *put++ = static_cast<char>((m_bits >> 4) & 0xFF);
    } else if (m_count == 3) {
        *put++ = static_cast<char>((m_bits >> 10) & 0xFF);
        *put++ = static_cast<char>((m_bits >> 2) & 0xFF);
    }
    m_bits = 0;
    m_count = 0;
    return put;
}

void CBase64Decoder::Finish(std::string& out) {
    const size_t start = out.size();
    out.resize(start + 2);
    out.resize(static_cast<size_t>(FinishInto(out.data() + start) - out.data()));
}

std::string Base64Encode(std::string_view bytes, EBase64Alphabet alphabet) {
    const char* const characters = alphabet == EBase64Alphabet::Url
                                       ? "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"
                                       : "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const size_t n = std::min<size_t>(3, bytes.size() - i);
        std::uint32_t group = 0;
        for (size_t k = 0; k < 3; ++k)
            group = (group << 8) | (k < n ? static_cast<unsigned char>(bytes[i + k]) : 0u);
        for (size_t k = 0; k < 4; ++k) {
            if (k <= n)
                out += characters[(group >> (18 - 6 * k)) & 63];
            else if (alphabet == EBase64Alphabet::Standard)
                out += '=';
        }
    }
    return out;
}

}  // namespace velmar::mapi
