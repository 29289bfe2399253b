#include "support/IniFile.h"

#include "support/IniPlatform.h"
#include "support/NumberText.h"

namespace {

const std::wstring kIniFileName = L"Velmar.ini";

// Located once, before the application starts: a Velmar.ini that appears later is seen at the next start.
const CIniSettings g_iniSettings{std::wstring(), GetIniFilePath(kIniFileName)};

}  // namespace

std::wstring FindIniFile(const std::wstring& name, const std::wstring& executableDirectory,
                         const std::wstring& commonDirectory) {
    using velmar::ini::kPathSeparator;
    const std::wstring fileName = velmar::ini::FileNamePart(name);
    if (!executableDirectory.empty()) {
        const std::wstring besideExecutable = executableDirectory + kPathSeparator + fileName;
        if (velmar::ini::CanOpenForReading(besideExecutable)) return besideExecutable;
    }
    if (!commonDirectory.empty()) {
        const std::wstring common = commonDirectory + kPathSeparator + L"Velmar" + kPathSeparator + fileName;
        if (velmar::ini::CanOpenForReading(common)) return common;
    }
    return name;
}

std::wstring GetIniFilePath(const std::wstring& name) {
    return FindIniFile(name, velmar::ini::ExecutableDirectory(), velmar::ini::CommonConfigDirectory());
}

std::wstring CIniSettings::ReadString(const std::wstring& section, const std::wstring& key,
                                      const std::wstring& defaultValue) const {
    if (!m_strOverridePath.empty()) {
        if (auto value = velmar::ini::ReadProfileValue(m_strOverridePath, section, key)) return *value;
    }
    if (!m_strLocatedPath.empty()) {
        if (auto value = velmar::ini::ReadProfileValue(m_strLocatedPath, section, key)) return *value;
    }
    return defaultValue;
}

int CIniSettings::ReadInt(const std::wstring& section, const std::wstring& key, int defaultValue) const {
    const std::wstring text = ReadString(section, key, std::wstring());
    if (text.empty()) return defaultValue;
    return static_cast<int>(velmar::ParseLeadingUInt32(std::wstring_view(text)));
}

const CIniSettings& ProcessIniSettings() {
    return g_iniSettings;
}

std::wstring ReadIniString(const std::wstring& section, const std::wstring& key,
                           const std::wstring& defaultValue) {
    return g_iniSettings.ReadString(section, key, defaultValue);
}

int ReadIniInt(const std::wstring& section, const std::wstring& key, int defaultValue) {
    return g_iniSettings.ReadInt(section, key, defaultValue);
}
