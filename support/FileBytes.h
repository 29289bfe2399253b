// Whole-file reads for small text files (settings, JSON documents named by path).
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace velmar {

// The bytes of a regular file, or nullopt when it cannot be opened, is not a regular file, cannot be
// read whole, or is larger than maxBytes.
std::optional<std::string> ReadFileBytes(const std::wstring& path, std::size_t maxBytes);

}  // namespace velmar
