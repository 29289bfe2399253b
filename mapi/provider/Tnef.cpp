#include "mapi/provider/Tnef.h"

#include "mapidefs.h"
#include "mapitags.h"

namespace velmar::mapi {
namespace {

constexpr std::uint32_t kTnefSignature = 0x223E9F78;
constexpr std::uint8_t kLevelMessage = 0x01;
constexpr std::uint32_t kAttMsgProps = 0x00069003;
// A property list of a hostile stream may claim any count; no real message has this many properties.
constexpr std::uint32_t kMaxProperties = 1u << 16;

// Reads little-endian values; every read checks the bytes that remain first, so nothing reads past the end.
class CTnefReader {
public:
    explicit CTnefReader(std::span<const std::uint8_t> data) : m_data(data) {}

    size_t Remaining() const { return m_data.size() - m_pos; }
    bool U16(std::uint16_t& value) { return Read(value, 2); }
    bool U32(std::uint32_t& value) { return Read(value, 4); }
    bool Skip(size_t count) {
        if (count > Remaining()) return false;
        m_pos += count;
        return true;
    }
    bool Bytes(size_t count, std::span<const std::uint8_t>& out) {
        if (count > Remaining()) return false;
        out = m_data.subspan(m_pos, count);
        m_pos += count;
        return true;
    }

private:
    template <class T>
    bool Read(T& value, size_t size) {
        if (size > Remaining()) return false;
        value = 0;
        for (size_t i = 0; i < size; ++i)
            value |= static_cast<T>(static_cast<T>(m_data[m_pos + i]) << (8 * i));
        m_pos += size;
        return true;
    }

    std::span<const std::uint8_t> m_data;
    size_t m_pos = 0;
};

size_t Padded(size_t size) {
    return (size + 3) & ~size_t{3};
}

// The size of one fixed-size value as TNEF stores it (padded to four bytes); 0 for variable-size types.
size_t FixedSize(std::uint16_t type) {
    switch (type) {
        case PT_I2:
        case PT_LONG:
        case PT_R4:
        case PT_ERROR:
        case PT_BOOLEAN:
            return 4;
        case PT_DOUBLE:
        case PT_CURRENCY:
        case PT_APPTIME:
        case PT_I8:
        case PT_SYSTIME:
            return 8;
        case PT_CLSID:
            return 16;
        default:
            return 0;
    }
}

bool IsVariable(std::uint16_t type) {
    return type == PT_STRING8 || type == PT_UNICODE || type == PT_BINARY || type == PT_OBJECT;
}

// Walks a property list to PR_RTF_COMPRESSED; false when the list is malformed or lacks it.
bool FindInProperties(CTnefReader& reader, std::vector<std::uint8_t>& rtf) {
    std::uint32_t count = 0;
    if (!reader.U32(count) || count > kMaxProperties) return false;
    for (std::uint32_t i = 0; i < count; ++i) {
        std::uint16_t type = 0;
        std::uint16_t id = 0;
        if (!reader.U16(type) || !reader.U16(id)) return false;
        if (id >= 0x8000) {  // a named property: its name comes first
            std::uint32_t kind = 0;
            if (!reader.Skip(16) || !reader.U32(kind)) return false;
            std::uint32_t nameLength = 0;
            if (kind == 0 ? !reader.Skip(4) : (!reader.U32(nameLength) || !reader.Skip(Padded(nameLength))))
                return false;
        }
        const std::uint16_t baseType = type & ~MV_FLAG;
        std::uint32_t values = 1;
        if ((type & MV_FLAG) || IsVariable(baseType)) {
            if (!reader.U32(values)) return false;
        }
        if (const size_t size = FixedSize(baseType); size != 0) {
            if (values > reader.Remaining() / size || !reader.Skip(size * values)) return false;
            continue;
        }
        if (!IsVariable(baseType)) return false;  // a type we cannot size
        for (std::uint32_t v = 0; v < values; ++v) {
            std::uint32_t length = 0;
            std::span<const std::uint8_t> bytes;
            if (!reader.U32(length) || !reader.Bytes(length, bytes) || !reader.Skip(Padded(length) - length))
                return false;
            if (PROP_TAG(type, id) == PR_RTF_COMPRESSED && v == 0) {
                rtf.assign(bytes.begin(), bytes.end());
                return true;
            }
        }
    }
    return false;
}

}  // namespace

std::optional<std::vector<std::uint8_t>> FindCompressedRtf(std::span<const std::uint8_t> tnef) {
    CTnefReader reader(tnef);
    std::uint32_t signature = 0;
    std::uint16_t key = 0;
    if (!reader.U32(signature) || signature != kTnefSignature || !reader.U16(key)) return std::nullopt;
    while (reader.Remaining() > 0) {
        std::uint8_t level = 0;
        std::span<const std::uint8_t> levelByte;
        std::uint32_t attribute = 0;
        std::uint32_t length = 0;
        std::span<const std::uint8_t> data;
        if (!reader.Bytes(1, levelByte) || !reader.U32(attribute) || !reader.U32(length) ||
            !reader.Bytes(length, data) || !reader.Skip(2))
            return std::nullopt;
        level = levelByte[0];
        if (level == kLevelMessage && attribute == kAttMsgProps) {
            CTnefReader properties(data);
            std::vector<std::uint8_t> rtf;
            if (FindInProperties(properties, rtf)) return rtf;
        }
    }
    return std::nullopt;
}

}  // namespace velmar::mapi
