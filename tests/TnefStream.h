// A TNEF stream ("winmail.dat") made by hand, for what the corpus lacks.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "mapi/mime/Tnef.h"

namespace velmar::test {

class CTnefStream {
public:
    CTnefStream() {
        Put(velmar::mapi::tnef::kSignature, 4);
        Put(0, 2);
    }
    CTnefStream& Attribute(std::uint8_t level, std::uint32_t id, const std::string& data) {
        m_bytes += static_cast<char>(level);
        Put(id, 4);
        Put(data.size(), 4);
        m_bytes += data;
        Put(0, 2);  // the checksum, which readers do not check
        return *this;
    }
    std::vector<std::uint8_t> Bytes() const { return {m_bytes.begin(), m_bytes.end()}; }
    const std::string& Text() const { return m_bytes; }

    // A property list of single values: PT_LONG values (type 0x0003) as four bytes, the rest as
    // variable-size values.
    static std::string Properties(const std::vector<std::pair<std::uint32_t, std::string>>& values) {
        CTnefStream list;
        list.m_bytes.clear();
        list.Put(values.size(), 4);
        for (const auto& [tag, value] : values) {
            list.Put(tag, 4);
            if ((tag & 0xFFFF) != 0x0003) {
                list.Put(1, 4);
                list.Put(value.size(), 4);
            }
            list.m_bytes += value;
            list.m_bytes.append((4 - value.size() % 4) % 4, '\0');
        }
        return list.m_bytes;
    }

private:
    void Put(std::uint64_t value, int size) {
        for (int i = 0; i < size; ++i) m_bytes += static_cast<char>((value >> (8 * i)) & 0xFF);
    }
    std::string m_bytes;
};

}  // namespace velmar::test
