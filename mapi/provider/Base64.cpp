#include "mapi/provider/Base64.h"

namespace velmar::mapi {
namespace {

int Rank(unsigned char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

}  // namespace

void CBase64Decoder::Step(std::string_view encoded, std::string& out) {
    for (const char c : encoded) {
        if (c == '=') {
            Finish(out);
            continue;
        }
        const int rank = Rank(static_cast<unsigned char>(c));
        if (rank < 0) continue;
        m_bits = (m_bits << 6) | static_cast<std::uint32_t>(rank);
        if (++m_count == 4) {
            out += static_cast<char>((m_bits >> 16) & 0xFF);
            out += static_cast<char>((m_bits >> 8) & 0xFF);
            out += static_cast<char>(m_bits & 0xFF);
            m_bits = 0;
            m_count = 0;
        }
    }
}

void CBase64Decoder::Finish(std::string& out) {
    // Two characters hold one byte, three hold two; a lone one holds no whole byte.
    if (m_count == 2) {
        out += static_cast<char>((m_bits >> 4) & 0xFF);
    } else if (m_count == 3) {
        out += static_cast<char>((m_bits >> 10) & 0xFF);
        out += static_cast<char>((m_bits >> 2) & 0xFF);
    }
    m_bits = 0;
    m_count = 0;
}

}  // namespace velmar::mapi
