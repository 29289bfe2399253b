#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "harness/TestFiles.h"
#include "support/IniFile.h"
#include "support/IniPlatform.h"

namespace {

using velmar::test::CTempDir;
using velmar::test::WriteFile;

class IniRead : public ::testing::Test {
protected:
    CIniSettings Settings(const std::string& text) {
        WriteFile(m_dir / "Velmar.ini", text);
        return CIniSettings(L"", (m_dir / "Velmar.ini").wstring());
    }
    CTempDir m_dir;
};

TEST_F(IniRead, MissingFileAndMissingKeysGiveDefaults) {
    const CIniSettings none(L"", (m_dir / "absent.ini").wstring());
    EXPECT_EQ(none.ReadInt(L"KESTA", L"MAPI_CACHE_MSGSTORE", 1), 1);
    EXPECT_EQ(none.ReadString(L"KESTA", L"ARCHIVE_MSGSTORE", L""), L"");
    const CIniSettings empty(L"", L"");
    EXPECT_EQ(empty.ReadString(L"KESTA", L"ARCHIVE_MSGSTORE", L"dflt"), L"dflt");
    const CIniSettings other = Settings("[OTHER]\nMAPI_EXTERN=1\n");
    EXPECT_EQ(other.ReadInt(L"KESTA", L"MAPI_EXTERN", 0), 0);
}

TEST_F(IniRead, IntegersConvertLikeWcstoulAndOnlyEmptyTextFallsBack) {
    const CIniSettings ini = Settings(
        "[KESTA]\n"
        "EMPTY=\n"
        "ZERO=0\n"
        "LETTER=x\n"
        "MINUS=-1\n"
        "HUGE=4294967296\n"
        "TRAILING=42abc\n"
        "  SPACED   =   7   \n");
    EXPECT_EQ(ini.ReadInt(L"KESTA", L"EMPTY", 1), 1);
    EXPECT_EQ(ini.ReadInt(L"KESTA", L"ZERO", 1), 0);
    EXPECT_EQ(ini.ReadInt(L"KESTA", L"LETTER", 1), 0)
        << "present but not numeric reads as 0, not the default";
    EXPECT_EQ(ini.ReadInt(L"KESTA", L"MINUS", 1), -1);
    EXPECT_EQ(ini.ReadInt(L"KESTA", L"HUGE", 1), -1);
    EXPECT_EQ(ini.ReadInt(L"KESTA", L"TRAILING", 1), 42);
    EXPECT_EQ(ini.ReadInt(L"KESTA", L"SPACED", 1), 7);
    EXPECT_EQ(ini.ReadString(L"KESTA", L"EMPTY", L"dflt"), L"") << "present and empty is not missing";
}

TEST_F(IniRead, NamesIgnoreCaseAndTheFirstKeyWins) {
    const CIniSettings ini = Settings(
        "; a comment line\r\n"
        "[other]\r\n"
        "ARCHIVE_MSGSTORE=wrong section\r\n"
        "[kesta]\r\n"
        "; ARCHIVE_MSGSTORE=commented out\r\n"
        "# ARCHIVE_MSGSTORE=commented out\r\n"
        "archive_msgstore=Archiv 2024\r\n"
        "ARCHIVE_MSGSTORE=second\r\n"
        "QUOTED=\"  spaced out  \"\r\n");
    EXPECT_EQ(ini.ReadString(L"KESTA", L"ARCHIVE_MSGSTORE", L""), L"Archiv 2024");
    EXPECT_EQ(ini.ReadString(L"Kesta", L"quoted", L""), L"  spaced out  ");
}

TEST_F(IniRead, ValuesAreCutAt2999Characters) {
    const std::string exact(2999, 'v');
    const std::string longer(3000, 'w');
    const CIniSettings ini = Settings("[KESTA]\nEXACT=" + exact + "\nLONGER=" + longer + "\n");
    EXPECT_EQ(ini.ReadString(L"KESTA", L"EXACT", L"").size(), 2999u);
    const std::wstring cut = ini.ReadString(L"KESTA", L"LONGER", L"");
    EXPECT_EQ(cut, std::wstring(2999, L'w'));
}

TEST_F(IniRead, Utf8TextWithByteOrderMark) {
    const CIniSettings ini = Settings("\xEF\xBB\xBF[KESTA]\nARCHIVE_MSGSTORE=Postfächer\n");
    EXPECT_EQ(ini.ReadString(L"KESTA", L"ARCHIVE_MSGSTORE", L""), L"Postf\u00e4cher");
}

TEST_F(IniRead, OverrideFileIsConsultedFirst) {
    WriteFile(m_dir / "override.ini", "[KESTA]\nARCHIVE_MSGSTORE=\nMAPI_EXTERN=5\n");
    WriteFile(m_dir / "located.ini",
              "[KESTA]\nARCHIVE_MSGSTORE=Archiv\nMAPI_EXTERN=1\nMAPI_CACHE_MSGSTORE=0\n");
    const CIniSettings ini((m_dir / "override.ini").wstring(), (m_dir / "located.ini").wstring());
    EXPECT_EQ(ini.ReadString(L"KESTA", L"ARCHIVE_MSGSTORE", L"dflt"), L"")
        << "empty in the override still counts";
    EXPECT_EQ(ini.ReadInt(L"KESTA", L"MAPI_EXTERN", 0), 5);
    EXPECT_EQ(ini.ReadInt(L"KESTA", L"MAPI_CACHE_MSGSTORE", 1), 0) << "missing in the override: located file";
    const CIniSettings absentOverride((m_dir / "absent.ini").wstring(), (m_dir / "located.ini").wstring());
    EXPECT_EQ(absentOverride.ReadString(L"KESTA", L"ARCHIVE_MSGSTORE", L""), L"Archiv");
}

TEST(IniLocation, CandidatesInOrder) {
    CTempDir exeDir;
    CTempDir commonDir;
    const std::wstring exe = exeDir.Path().wstring();
    const std::wstring common = commonDir.Path().wstring();
    EXPECT_EQ(FindIniFile(L"Velmar.ini", exe, common), L"Velmar.ini") << "nothing found: the name as given";
    WriteFile(commonDir / "Velmar" / "Velmar.ini", "[KESTA]\n");
    EXPECT_EQ(FindIniFile(L"Velmar.ini", exe, common), (commonDir / "Velmar" / "Velmar.ini").wstring());
    WriteFile(exeDir / "Velmar.ini", "[KESTA]\n");
    EXPECT_EQ(FindIniFile(L"Velmar.ini", exe, common), (exeDir / "Velmar.ini").wstring());
    // A directory part of the name is dropped for the candidates, and kept for the fallback.
    const std::wstring withFolder = std::wstring(L"elsewhere") + velmar::ini::kPathSeparator + L"Velmar.ini";
    EXPECT_EQ(FindIniFile(withFolder, exe, common), (exeDir / "Velmar.ini").wstring());
    EXPECT_EQ(FindIniFile(withFolder, L"", L""), withFolder);
    // A folder of that name does not count as the file.
    CTempDir folderOnly;
    std::filesystem::create_directories(folderOnly / "Velmar.ini");
    EXPECT_EQ(FindIniFile(L"Velmar.ini", folderOnly.Path().wstring(), L""), L"Velmar.ini");
}

// The real folders: beside this test program, and the platform's all-users configuration folder.
TEST(IniLocation, ExecutableFolderBeatsCommonFolder) {
    CTempDir xdg;
    velmar::test::SetEnvironment("XDG_CONFIG_DIRS", xdg.Path().string() + ":/etc/xdg");
    if (velmar::ini::kPathSeparator == L'/') {
        EXPECT_EQ(velmar::ini::CommonConfigDirectory(), xdg.Path().wstring());
    }
    const std::filesystem::path common = velmar::ini::CommonConfigDirectory();
    const std::filesystem::path beside =
        std::filesystem::path(velmar::ini::ExecutableDirectory()) / "Velmar.ini";
    ASSERT_FALSE(common.empty());
    ASSERT_FALSE(std::filesystem::exists(beside)) << "leftover " << beside;
    const std::filesystem::path inCommon = common / "Velmar" / "Velmar.ini";
    WriteFile(inCommon, "[KESTA]\n");
    EXPECT_EQ(GetIniFilePath(L"Velmar.ini"), inCommon.wstring());
    WriteFile(beside, "[KESTA]\n");
    EXPECT_EQ(GetIniFilePath(L"Velmar.ini"), beside.wstring());
    std::filesystem::remove(beside);
    std::filesystem::remove_all(common / "Velmar");
    EXPECT_EQ(GetIniFilePath(L"Velmar.ini"), L"Velmar.ini");
}

}  // namespace
