// Velmar.ini: found once at start-up, read afresh on every call. Reads tell a missing key (the caller's
// default) apart from a key that is present but empty.
#pragma once

#include <string>

// Where name is found: beside the executable, else under "Velmar" in the all-users configuration folder
// (Windows: common application data; POSIX: the first of $XDG_CONFIG_DIRS, /etc/xdg by default), else
// name exactly as given, which the reads then resolve as the platform does (Windows directory; POSIX
// working directory).
std::wstring GetIniFilePath(const std::wstring& name);

// The value of key in section of the process's Velmar.ini, at most 2999 characters; defaultValue when the
// key or the file is missing.
std::wstring ReadIniString(const std::wstring& section, const std::wstring& key,
                           const std::wstring& defaultValue);
// The key read as text, converted as wcstoul does in base 10 and taken as signed 32 bits; defaultValue when
// the text is empty (missing or present but empty); 0 for text without leading digits.
int ReadIniInt(const std::wstring& section, const std::wstring& key, int defaultValue);

// The files a read consults: an override path first (nothing sets one; the hook is kept), then the located
// file. The process has one, made at static initialisation; tests make their own.
class CIniSettings {
public:
    CIniSettings(std::wstring overridePath, std::wstring locatedPath)
        : m_strOverridePath(std::move(overridePath)), m_strLocatedPath(std::move(locatedPath)) {}

    std::wstring ReadString(const std::wstring& section, const std::wstring& key,
                            const std::wstring& defaultValue) const;
    int ReadInt(const std::wstring& section, const std::wstring& key, int defaultValue) const;
    const std::wstring& LocatedPath() const { return m_strLocatedPath; }

private:
    std::wstring m_strOverridePath;
    std::wstring m_strLocatedPath;
};

const CIniSettings& ProcessIniSettings();

// The candidate search of GetIniFilePath with the two folders given (either may be empty).
std::wstring FindIniFile(const std::wstring& name, const std::wstring& executableDirectory,
                         const std::wstring& commonDirectory);
