// What the settings reader needs from the platform.
#pragma once

#include <optional>
#include <string>

namespace velmar::ini {

// Values are cut to this many characters, the room the Win32 profile functions are given.
inline constexpr size_t kMaxValueLength = 2999;

extern const wchar_t kPathSeparator;

// The folder of the running executable; empty when it cannot be determined.
std::wstring ExecutableDirectory();
// The all-users configuration folder; empty when it cannot be resolved.
std::wstring CommonConfigDirectory();
// The file-name part of a path (after the last separator the platform knows).
std::wstring FileNamePart(const std::wstring& path);
// Existence as the reads will see it: the file opens for reading.
bool CanOpenForReading(const std::wstring& path);
// The value of key in section of file, cut to kMaxValueLength; nullopt when the file or the key is missing.
std::optional<std::wstring> ReadProfileValue(const std::wstring& file, const std::wstring& section,
                                             const std::wstring& key);

}  // namespace velmar::ini
