#include "mapi/rtf/CompressedRtf.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <limits>
#include <new>

namespace velmar::mapi {
namespace {

constexpr std::uint32_t kMagicCompressed = 0x75465A4C;    // "LZFu"
constexpr std::uint32_t kMagicUncompressed = 0x414C454D;  // "MELA"
constexpr std::size_t kHeaderSize = 16;
constexpr std::size_t kSizeFieldSize = 4;  // CompSize does not count itself
constexpr std::size_t kDictSize = 4096;
constexpr std::size_t kDictMask = kDictSize - 1;
constexpr std::size_t kMinMatch = 2;
constexpr std::size_t kMaxMatch = 17;  // 4-bit length field + 2
// Candidates examined per position; keeps adversarial inputs (long chains of short matches) linear.
constexpr std::size_t kMaxProbes = 256;

// Both ends pre-load the dictionary with this text, so common RTF keywords compress from byte one.
constexpr std::string_view kInitialDictionary =
    "{\\rtf1\\ansi\\mac\\deff0\\deftab720{\\fonttbl;}{\\f0\\fnil \\froman \\fswiss \\fmodern \\fscript "
    "\\fdecor MS Sans SerifSymbolArialTimes New RomanCourier{\\colortbl\\red0\\green0\\blue0\r\n\\par "
    "\\pard\\plain\\f0\\fs20\\b\\i\\u\\tab\\tx";
static_assert(kInitialDictionary.size() == 207);

constexpr std::array<std::uint32_t, 256> MakeCrcTable() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < 256; ++i) {
        std::uint32_t c = i;
        for (int k = 0; k < 8; ++k) c = (c & 1U) ? (c >> 1) ^ 0xEDB88320U : c >> 1;
        table[i] = c;
    }
    return table;
}
constexpr std::array<std::uint32_t, 256> kCrcTable = MakeCrcTable();

// Every read checks `n <= size - pos`; pos never exceeds size, so the test cannot overflow.
class ByteReader {
public:
    explicit ByteReader(std::span<const std::uint8_t> data) noexcept : m_data(data) {}

    std::size_t Remaining() const noexcept { return m_data.size() - m_pos; }
    bool Has(std::size_t n) const noexcept { return n <= Remaining(); }

    bool ReadU8(std::uint8_t& v) noexcept {
        if (!Has(1)) return false;
        v = m_data[m_pos++];
        return true;
    }
    bool ReadU16BE(std::uint16_t& v) noexcept {
        if (!Has(2)) return false;
        v = static_cast<std::uint16_t>((m_data[m_pos] << 8) | m_data[m_pos + 1]);
        m_pos += 2;
        return true;
    }
    bool ReadU32LE(std::uint32_t& v) noexcept {
        if (!Has(4)) return false;
        v = 0;
        for (std::size_t i = 0; i < 4; ++i) v |= static_cast<std::uint32_t>(m_data[m_pos + i]) << (8 * i);
        m_pos += 4;
        return true;
    }
    bool ReadSpan(std::size_t n, std::span<const std::uint8_t>& v) noexcept {
        if (!Has(n)) return false;
        v = m_data.subspan(m_pos, n);
        m_pos += n;
        return true;
    }

private:
    std::span<const std::uint8_t> m_data;
    std::size_t m_pos = 0;
};

struct Header {
    std::uint32_t compSize = 0;
    std::uint32_t rawSize = 0;
    std::uint32_t compType = 0;
    std::uint32_t crc = 0;
};

RtfCodecStatus DecodeLzfu(std::span<const std::uint8_t> body, std::uint32_t rawSize, std::string& out) {
    std::array<std::uint8_t, kDictSize> dict{};
    std::copy(kInitialDictionary.begin(), kInitialDictionary.end(), dict.begin());
    std::size_t writePos = kInitialDictionary.size();

    // RawSize comes from untrusted input: reserve no more than the body could possibly expand to
    // (one control byte plus eight 2-byte references yields at most 8 * 17 bytes).
    out.reserve(std::min<std::size_t>(rawSize, body.size() / 17 * 136 + 136));

    auto put = [&](std::uint8_t b) {
        dict[writePos] = b;
        writePos = (writePos + 1) & kDictMask;
        out.push_back(static_cast<char>(b));
    };

    ByteReader reader(body);
    for (;;) {
        std::uint8_t control = 0;
        if (!reader.ReadU8(control)) return RtfCodecStatus::Truncated;  // no end marker seen
        for (int bit = 0; bit < 8; ++bit) {
            if ((control & (1U << bit)) == 0) {
                std::uint8_t literal = 0;
                if (!reader.ReadU8(literal)) return RtfCodecStatus::Truncated;
                if (out.size() >= rawSize) return RtfCodecStatus::BadSize;
                put(literal);
                continue;
            }
            std::uint16_t ref = 0;
            if (!reader.ReadU16BE(ref)) return RtfCodecStatus::Truncated;
            const std::size_t offset = ref >> 4;
            const std::size_t length = (ref & 0x0FU) + kMinMatch;
            if (offset == writePos) {
                return out.size() == rawSize ? RtfCodecStatus::Ok : RtfCodecStatus::BadSize;
            }
            for (std::size_t i = 0; i < length; ++i) {
                if (out.size() >= rawSize) return RtfCodecStatus::BadSize;
                // Read before writing: the source may overlap the bytes this reference produces.
                put(dict[(offset + i) & kDictMask]);
            }
        }
    }
}

RtfCodecStatus DecompressImpl(std::span<const std::uint8_t> in, std::string& out) {
    ByteReader reader(in);
    Header h;
    if (!reader.ReadU32LE(h.compSize) || !reader.ReadU32LE(h.rawSize) || !reader.ReadU32LE(h.compType) ||
        !reader.ReadU32LE(h.crc)) {
        return RtfCodecStatus::Truncated;
    }
    if (h.compType != kMagicCompressed && h.compType != kMagicUncompressed) return RtfCodecStatus::BadMagic;
    if (h.compSize < kHeaderSize - kSizeFieldSize) return RtfCodecStatus::BadSize;

    const std::size_t declared = h.compSize - (kHeaderSize - kSizeFieldSize);
    const bool complete = reader.Has(declared);
    std::span<const std::uint8_t> body;
    reader.ReadSpan(complete ? declared : reader.Remaining(), body);

    if (h.compType == kMagicCompressed) {
        // The CRC covers the bytes after the header, so it is checked on what is actually there;
        // a stream cut short therefore usually reports BadCrc before it can report Truncated.
        if (RtfCrc32(body) != h.crc) return RtfCodecStatus::BadCrc;
        if (!complete) return RtfCodecStatus::Truncated;
        return DecodeLzfu(body, h.rawSize, out);
    }

    if (!complete) return RtfCodecStatus::Truncated;
    if (h.rawSize > body.size()) return RtfCodecStatus::BadSize;  // CompSize too small for RawSize
    out.assign(reinterpret_cast<const char*>(body.data()), h.rawSize);
    return RtfCodecStatus::Ok;
}

void PutU32LE(std::vector<std::uint8_t>& out, std::size_t at, std::uint32_t v) {
    for (std::size_t i = 0; i < 4; ++i) out[at + i] = static_cast<std::uint8_t>(v >> (8 * i));
}

// Greedy LZ77 over the virtual stream "initial dictionary + rtf". Absolute positions in that
// stream map to dictionary slots modulo 4096, so any earlier position less than 4096 back is a
// valid source, including ones that overlap the bytes being produced.
class LzfuEncoder {
public:
    explicit LzfuEncoder(std::string_view rtf)
        : m_rtf(rtf), m_head(1U << 16, kNone), m_prev(kDictSize, kNone) {}

    std::vector<std::uint8_t> Encode() {
        m_out.assign(kHeaderSize, 0);
        const std::size_t prefix = kInitialDictionary.size();
        const std::size_t total = prefix + m_rtf.size();
        for (std::size_t p = 0; p < prefix; ++p) Insert(p, total);

        std::size_t cur = prefix;
        while (cur < total) {
            std::size_t bestLen = 0;
            std::size_t bestPos = 0;
            FindMatch(cur, total, bestLen, bestPos);
            if (bestLen >= kMinMatch) {
                EmitReference(bestPos & kDictMask, bestLen);
                for (std::size_t i = 0; i < bestLen; ++i) Insert(cur + i, total);
                cur += bestLen;
            } else {
                EmitLiteral(At(cur));
                Insert(cur, total);
                ++cur;
            }
        }
        EmitReference(cur & kDictMask, kMinMatch);  // offset == write position marks the end
        return std::move(m_out);
    }

private:
    static constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();

    std::uint8_t At(std::size_t abs) const {
        const std::size_t prefix = kInitialDictionary.size();
        return static_cast<std::uint8_t>(abs < prefix ? kInitialDictionary[abs] : m_rtf[abs - prefix]);
    }
    std::size_t Key(std::size_t abs) const { return (static_cast<std::size_t>(At(abs)) << 8) | At(abs + 1); }

    void Insert(std::size_t abs, std::size_t total) {
        if (abs + 1 >= total) return;
        const std::size_t key = Key(abs);
        m_prev[abs & kDictMask] = m_head[key];
        m_head[key] = abs;
    }

    void FindMatch(std::size_t cur, std::size_t total, std::size_t& bestLen, std::size_t& bestPos) const {
        if (total - cur < kMinMatch) return;
        const std::size_t maxLen = std::min(kMaxMatch, total - cur);
        std::size_t cand = m_head[Key(cur)];
        // A candidate is usable while its dictionary slot has not been overwritten (cand + 4096 > cur);
        // chains only get older, so the first stale candidate ends the walk.
        for (std::size_t probes = 0; cand != kNone && cand + kDictSize > cur && probes < kMaxProbes;
             ++probes) {
            std::size_t len = 0;
            while (len < maxLen && At(cand + len) == At(cur + len)) ++len;
            if (len > bestLen) {
                bestLen = len;
                bestPos = cand;
                if (len == maxLen) break;
            }
            cand = m_prev[cand & kDictMask];
        }
    }

    void NextControlBit(bool isReference) {
        if (m_bitCount == 8) {
            m_controlPos = m_out.size();
            m_out.push_back(0);
            m_bitCount = 0;
        }
        if (isReference)
            m_out[m_controlPos] = static_cast<std::uint8_t>(m_out[m_controlPos] | (1U << m_bitCount));
        ++m_bitCount;
    }
    void EmitLiteral(std::uint8_t b) {
        NextControlBit(false);
        m_out.push_back(b);
    }
    void EmitReference(std::size_t offset, std::size_t length) {
        NextControlBit(true);
        const std::size_t ref = (offset << 4) | (length - kMinMatch);
        m_out.push_back(static_cast<std::uint8_t>(ref >> 8));
        m_out.push_back(static_cast<std::uint8_t>(ref & 0xFF));
    }

    std::string_view m_rtf;
    std::vector<std::size_t> m_head;  // newest absolute position per 2-byte prefix
    std::vector<std::size_t> m_prev;  // previous position with the same prefix, by dictionary slot
    std::vector<std::uint8_t> m_out;
    std::size_t m_controlPos = 0;
    int m_bitCount = 8;
};

}  // namespace

const char* RtfCodecStatusName(RtfCodecStatus status) noexcept {
    switch (status) {
        case RtfCodecStatus::Ok:
            return "Ok";
        case RtfCodecStatus::Truncated:
            return "Truncated";
        case RtfCodecStatus::BadMagic:
            return "BadMagic";
        case RtfCodecStatus::BadCrc:
            return "BadCrc";
        case RtfCodecStatus::BadSize:
            return "BadSize";
        case RtfCodecStatus::OutOfMemory:
            return "OutOfMemory";
    }
    return "Unknown";
}

std::uint32_t RtfCrc32(std::span<const std::uint8_t> data, std::uint32_t crc) noexcept {
    for (const std::uint8_t b : data) crc = kCrcTable[(crc ^ b) & 0xFFU] ^ (crc >> 8);
    return crc;
}

RtfCodecStatus DecompressRtf(std::span<const std::uint8_t> in, std::string& rtfOut) noexcept {
    rtfOut.clear();
    try {
        return DecompressImpl(in, rtfOut);
    } catch (...) {  // only allocation can throw here
        rtfOut.clear();
        return RtfCodecStatus::OutOfMemory;
    }
}

std::vector<std::uint8_t> CompressRtf(std::string_view rtf, bool compressed) noexcept {
    constexpr std::size_t kMaxField = std::numeric_limits<std::uint32_t>::max();
    try {
        std::vector<std::uint8_t> out;
        std::uint32_t magic = kMagicUncompressed;
        if (compressed) {
            // Worst case is 9 bytes per 8 literals plus the end marker; keep CompSize in 32 bits.
            if (rtf.size() > (kMaxField - 64) / 9 * 8) return {};
            out = LzfuEncoder(rtf).Encode();
            magic = kMagicCompressed;
        } else {
            if (rtf.size() > kMaxField - kHeaderSize) return {};
            out.assign(kHeaderSize, 0);
            out.insert(out.end(), rtf.begin(), rtf.end());
        }
        const auto body = std::span<const std::uint8_t>(out).subspan(kHeaderSize);
        PutU32LE(out, 0, static_cast<std::uint32_t>(out.size() - kSizeFieldSize));
        PutU32LE(out, 4, static_cast<std::uint32_t>(rtf.size()));
        PutU32LE(out, 8, magic);
        PutU32LE(out, 12, compressed ? RtfCrc32(body) : 0U);
        return out;
    } catch (...) {  // allocation failure
        return {};
    }
}

}  // namespace velmar::mapi
