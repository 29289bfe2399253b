// What a string really takes in memory: the object itself, and the block its characters live in when they
// do not fit into it (with the allocator's own bookkeeping of that block). Bounds on memory count this,
// not the characters: a line of 20,000 characters takes 80 KB as a wide string on POSIX.
#pragma once

#include <cstddef>
#include <string>

namespace velmar {

inline std::size_t HeldBytes(const std::wstring& text) {
    // glibc's malloc keeps a size word per block and rounds to 16 bytes.
    constexpr std::size_t kBlockBookkeeping = 16;
    const auto* characters = reinterpret_cast<const char*>(text.data());
    const auto* object = reinterpret_cast<const char*>(&text);
    const bool inside = characters >= object && characters < object + sizeof text;
    return sizeof text + (inside ? 0 : (text.capacity() + 1) * sizeof(wchar_t) + kBlockBookkeeping);
}

}  // namespace velmar
