#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "harness/TestFiles.h"
#include "support/FileBytes.h"
#include "support/NumberText.h"
#include "support/PrintJobChannel.h"
#include "support/Utf8.h"

namespace {

using velmar::ParseLeadingInt;
using velmar::ParseLeadingUInt32;

TEST(Utf8, SanitizeKeepsValidTextAndReplacesEachIllFormedSequence) {
    EXPECT_EQ(velmar::SanitizeUtf8("plain \xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"),
              "plain \xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80");
    const std::string fffd = "\xEF\xBF\xBD";
    EXPECT_EQ(velmar::SanitizeUtf8("a\xFF"
                                   "b"),
              "a" + fffd + "b");
    EXPECT_EQ(velmar::SanitizeUtf8("\xC0\xAF"), fffd + fffd) << "overlong";
    EXPECT_EQ(velmar::SanitizeUtf8("\xED\xA0\x80"), fffd + fffd + fffd) << "encoded surrogate";
    EXPECT_EQ(velmar::SanitizeUtf8("\xF4\x90\x80\x80"), fffd + fffd + fffd + fffd) << "beyond U+10FFFF";
    EXPECT_EQ(velmar::SanitizeUtf8("\xE2\x82"), fffd) << "truncated sequence is one maximal subpart";
    EXPECT_EQ(velmar::SanitizeUtf8("\xE2\x82x"), fffd + "x");
    EXPECT_TRUE(velmar::IsValidUtf8(""));
    EXPECT_FALSE(velmar::IsValidUtf8("\x80"));
}

TEST(Utf8, WideRoundTripIncludingAstralCharacters) {
    const std::string utf8 = "K\xC3\xB6ln \xE2\x82\xAC \xF0\x9F\x98\x80";
    const std::wstring wide = velmar::Utf8ToWide(utf8);
    EXPECT_EQ(wide.size(), sizeof(wchar_t) == 2 ? 9u : 8u);
    EXPECT_EQ(wide[1], L'\u00f6');
    EXPECT_EQ(velmar::WideToUtf8(wide), utf8);
    if constexpr (sizeof(wchar_t) == 2) {
        // An unpaired surrogate in UTF-16 becomes U+FFFD.
        EXPECT_EQ(velmar::WideToUtf8(std::wstring(1, static_cast<wchar_t>(0xD800)) + L"x"), "\xEF\xBF\xBDx");
    }
}

// The conversions skip runs of ASCII eight bytes at a time: every character must come out the same
// wherever it falls in such a block.
TEST(Utf8, EveryPositionAroundAsciiBlocks) {
    const std::string fffd = "\xEF\xBF\xBD";
    for (size_t before = 0; before < 18; ++before) {
        for (const std::string& odd : {std::string("\xC3\xA9"), std::string("\xF0\x9F\x98\x80"),
                                       std::string("\xFF"), std::string("\xE2\x82")}) {
            const std::string text = std::string(before, 'a') + odd + std::string(17 - before, 'z');
            const bool valid = odd != "\xFF" && odd != "\xE2\x82";
            EXPECT_EQ(velmar::IsValidUtf8(text), valid) << before;
            const std::string clean =
                std::string(before, 'a') + (valid ? odd : fffd) + std::string(17 - before, 'z');
            EXPECT_EQ(velmar::SanitizeUtf8(text), clean) << before;
            EXPECT_EQ(velmar::WideToUtf8(velmar::Utf8ToWide(text)), clean) << before;
            EXPECT_EQ(velmar::Utf8ToWide(text).size(),
                      17 + (odd.size() == 4 && sizeof(wchar_t) == 2 ? 2u : 1u))
                << before;
        }
    }
}

TEST(NumberText, LeadingIntReadsLikeAtoi) {
    EXPECT_EQ(ParseLeadingInt(std::string_view("")), 0);
    EXPECT_EQ(ParseLeadingInt(std::string_view("abc")), 0);
    EXPECT_EQ(ParseLeadingInt(std::string_view("12abc")), 12);
    EXPECT_EQ(ParseLeadingInt(std::wstring_view(L" \t-42")), -42);
    EXPECT_EQ(ParseLeadingInt(std::string_view("+7")), 7);
    EXPECT_EQ(ParseLeadingInt(std::string_view("- 7")), 0);
    EXPECT_EQ(ParseLeadingInt(std::string_view("2147483647")), 2147483647);
    EXPECT_EQ(ParseLeadingInt(std::string_view("2147483648")), 2147483647);
    EXPECT_EQ(ParseLeadingInt(std::string_view("-2147483648")), -2147483647 - 1);
    EXPECT_EQ(ParseLeadingInt(std::string_view("-99999999999999999999")), -2147483647 - 1);
}

TEST(NumberText, LeadingUInt32ReadsLikeWindowsWcstoul) {
    EXPECT_EQ(ParseLeadingUInt32(std::wstring_view(L"0")), 0u);
    EXPECT_EQ(ParseLeadingUInt32(std::wstring_view(L"x")), 0u);
    EXPECT_EQ(ParseLeadingUInt32(std::wstring_view(L"  42abc")), 42u);
    EXPECT_EQ(ParseLeadingUInt32(std::wstring_view(L"-1")), 0xFFFFFFFFu);
    EXPECT_EQ(ParseLeadingUInt32(std::wstring_view(L"-2")), 0xFFFFFFFEu);
    EXPECT_EQ(ParseLeadingUInt32(std::wstring_view(L"4294967295")), 0xFFFFFFFFu);
    EXPECT_EQ(ParseLeadingUInt32(std::wstring_view(L"4294967296")), 0xFFFFFFFFu) << "overflow gives all ones";
    EXPECT_EQ(ParseLeadingUInt32(std::wstring_view(L"-4294967296")), 0xFFFFFFFFu);
}

TEST(FileBytes, ReadsRegularFilesWithinTheLimitOnly) {
    velmar::test::CTempDir dir;
    velmar::test::WriteFile(dir / "f.txt", std::string("a\0b", 3));
    const auto bytes = velmar::ReadFileBytes((dir / "f.txt").wstring(), 3);
    ASSERT_TRUE(bytes.has_value());
    EXPECT_EQ(*bytes, std::string("a\0b", 3));
    EXPECT_FALSE(velmar::ReadFileBytes((dir / "f.txt").wstring(), 2).has_value());
    EXPECT_FALSE(velmar::ReadFileBytes((dir / "absent").wstring(), 100).has_value());
    EXPECT_FALSE(velmar::ReadFileBytes(dir.Path().wstring(), 100).has_value());
}

// A job goes to the running window as it was given, whatever its strings hold; a text that is no job (cut
// short, a length that lies, another word) is refused whole.
TEST(PrintJobText, EveryStringArrivesAsItIsAndBrokenTextIsNoJob) {
    const std::vector<std::wstring> job{velmar::kPrintHtmlWord, L"/tmp/a, b\n\x00e4.html", L"*", L"", L"1",
                                        L"Drucker:1,2"};
    std::vector<std::wstring> decoded;
    const std::string text = velmar::EncodePrintJob(job);
    ASSERT_TRUE(velmar::DecodePrintJob(text, decoded));
    EXPECT_EQ(decoded, job);
    for (const std::string& broken :
         {text.substr(0, text.size() - 1), text + "3:ab,", "9:PRINTHTML" + text.substr(12),
          "99999999:x," + text, velmar::EncodePrintJob({L"PRINT", L"a", L"b", L"c", L"d", L"e"}),
          velmar::EncodePrintJob({velmar::kPrintHtmlWord, L"a", L"b", L"c", L"d"}), std::string("x")}) {
        EXPECT_FALSE(velmar::DecodePrintJob(broken, decoded)) << broken;
    }
}

}  // namespace
