// Whole-file reads for small text files (settings, JSON documents named by path), and writes to standard
// output.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace velmar {

// The bytes of a regular file, or nullopt when it cannot be opened, is not a regular file, cannot be
// read whole, or is larger than maxBytes.
std::optional<std::string> ReadFileBytes(const std::wstring& path, std::size_t maxBytes);

// Writes all of text to standard output, waiting for the reader as long as it takes; false when the
// output is closed or fails.
bool WriteStandardOutput(const std::string& text);

}  // namespace velmar
