// The mail layer's text rules on their own: address tokens, the date text, file names, the note in a body.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "harness/TestFiles.h"
#include "mail/MailText.h"

namespace {

using velmar::mail::AddressTokens;
using velmar::mail::CleanFileName;
using velmar::mail::CutAtNul;
using velmar::mail::LocalDateText;
using Tokens = std::vector<std::wstring>;

TEST(MailText, AddressTokens) {
    EXPECT_EQ(AddressTokens(L""), Tokens{});
    EXPECT_EQ(AddressTokens(L"a@x"), Tokens{L"a@x"});
    EXPECT_EQ(AddressTokens(L" a@x ,\tb@x "), (Tokens{L"a@x", L"b@x"})) << "white space goes";
    EXPECT_EQ(AddressTokens(L"a@x,,, b@x"), (Tokens{L"a@x", L"b@x"}))
        << "runs of commas give no empty tokens";
    EXPECT_EQ(AddressTokens(L"a@x, ,b@x"), (Tokens{L"a@x", L"b@x"})) << "blank pieces are no tokens";
    // Only neighbours are merged.
    EXPECT_EQ(AddressTokens(L"A,A,B"), (Tokens{L"A", L"B"}));
    EXPECT_EQ(AddressTokens(L"A,B,A"), (Tokens{L"A", L"B", L"A"}));
    EXPECT_EQ(AddressTokens(L"A, A ,A"), Tokens{L"A"});
    // A comma at the very end stands for one empty address.
    EXPECT_EQ(AddressTokens(L"a@x,"), (Tokens{L"a@x", L""}));
    EXPECT_EQ(AddressTokens(L","), Tokens{L""});
    EXPECT_EQ(AddressTokens(L"a@x,,"), (Tokens{L"a@x", L""}));
    EXPECT_EQ(AddressTokens(L",a@x"), Tokens{L"a@x"});
}

TEST(MailText, FileNames) {
    EXPECT_EQ(CleanFileName(L"a-b+c.pdf"), L"a_b_c.pdf");
    EXPECT_EQ(CleanFileName(L"re: x?.txt"), L"re_ x_.txt");
    EXPECT_EQ(CleanFileName(L"^&*-+=[]\\|;:\",<>/?"), std::wstring(18, L'_'));
    EXPECT_EQ(CleanFileName(L"Bericht 2024.v2 (final).docx"), L"Bericht 2024.v2 (final).docx");
    EXPECT_EQ(CleanFileName(L"Gr\u00fc\u00dfe.txt"), L"Gr\u00fc\u00dfe.txt") << "letters of any script stay";
    const std::wstring longName = std::wstring(290, L'n') + L".pdf";
    EXPECT_EQ(CleanFileName(longName), std::wstring(259, L'n'))
        << "the cut comes first, the extension is lost";
    EXPECT_EQ(CleanFileName(std::wstring(258, L'n') + L"a/b"), std::wstring(258, L'n') + L"a");
    EXPECT_EQ(CleanFileName(L""), L"");
}

// A file time of the given UTC moment.
[[maybe_unused]] FILETIME FileTimeOf(int year, int month, int day, int hour, int minute) {
    // Days from the civil date, so that no time zone of this process takes part.
    const int y = year - (month <= 2);
    const int era = (y >= 0 ? y : y - 399) / 400;
    const int yoe = y - era * 400;
    const int doy = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const int doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    const long long days = static_cast<long long>(era) * 146097 + doe - 719468;
    const long long seconds = days * 86400 + hour * 3600 + minute * 60;
    const unsigned long long ticks = static_cast<unsigned long long>(seconds + 11644473600LL) * 10000000ULL;
    return FILETIME{static_cast<DWORD>(ticks & 0xFFFFFFFFu), static_cast<DWORD>(ticks >> 32)};
}

TEST(MailText, DateTextInLocalTime) {
#ifdef _WIN32
    GTEST_SKIP() << "the time zone of a Wine process is the machine's";
#else
    // Central European time without a zone database: one hour ahead in winter, two in summer.
    velmar::test::SetEnvironment("TZ", "CET-1CEST,M3.5.0,M10.5.0/3");
    tzset();
    EXPECT_EQ(LocalDateText(FileTimeOf(2024, 3, 3, 8, 5)), L"03.03.2024, 09:05");
    EXPECT_EQ(LocalDateText(FileTimeOf(2024, 7, 31, 22, 59)), L"01.08.2024, 00:59") << "summer time";
    EXPECT_EQ(LocalDateText(FileTimeOf(1999, 12, 31, 23, 0)), L"01.01.2000, 00:00");
    velmar::test::SetEnvironment("TZ", "UTC0");
    tzset();
    EXPECT_EQ(LocalDateText(FileTimeOf(2024, 3, 3, 8, 5)), L"03.03.2024, 08:05");
#endif
}

}  // namespace

// The note goes right after the tag that opens the body, found whatever its letter case and attributes; in
// front of everything when there is no such tag or its ">" ends the text.
TEST(MailText, NoteInsertedAtTheStartOfTheHtmlBody) {
    using velmar::mail::InsertTextIntoHTMLBodyBegin;
    EXPECT_EQ(
        InsertTextIntoHTMLBodyBegin(L"<html><BODY class=\"a\" dir=ltr><p>x</p></BODY></html>", L"N<hr>"),
        L"<html><BODY class=\"a\" dir=ltr>N<hr><p>x</p></BODY></html>");
    EXPECT_EQ(InsertTextIntoHTMLBodyBegin(L"<p>ohne body</p>", L"N"), L"N<p>ohne body</p>");
    EXPECT_EQ(InsertTextIntoHTMLBodyBegin(L"<html><body", L"N"), L"N<html><body") << "no > after the tag";
    EXPECT_EQ(InsertTextIntoHTMLBodyBegin(L"<html><body>", L"N"), L"N<html><body>")
        << "> as the last character";
    EXPECT_EQ(InsertTextIntoHTMLBodyBegin(L"<BoDy>\u00c4rger", L"N"), L"<BoDy>N\u00c4rger")
        << "the source's own letters are kept";
    EXPECT_EQ(InsertTextIntoHTMLBodyBegin(L"", L"N"), L"N");
}

TEST(MailText, SendNoteLineBreaksBecomeBr) {
    using velmar::mail::SendNoteText;
    EXPECT_EQ(SendNoteText(L"eins\r\nzwei\r\n\r\ndrei"), L"eins<br>zwei<br><br>drei");
    EXPECT_EQ(SendNoteText(L"nur\nLF und \r CR"), L"nur\nLF und \r CR")
        << "only the pair is a line break here";
    EXPECT_EQ(SendNoteText(L"\r\r\n\n"), L"\r<br>\n");
}

TEST(MailText, AttachmentPathsSplitAtTheirLastSeparator) {
    using velmar::mail::SplitAttachmentPath;
    const auto windows = SplitAttachmentPath(L"C:\\Daten\\Bericht.final.PDF", L'\\');
    EXPECT_EQ(windows.folder, L"C:\\Daten");
    EXPECT_EQ(windows.fileName, L"Bericht.final.PDF");
    EXPECT_EQ(windows.extension, L".PDF");
    const auto bare = SplitAttachmentPath(L"Bericht.pdf", L'\\');
    EXPECT_EQ(bare.folder, L"Bericht.pdf") << "without a separator both are the whole path";
    EXPECT_EQ(bare.fileName, L"Bericht.pdf");
    EXPECT_EQ(bare.extension, L".pdf");
    const auto noExtension = SplitAttachmentPath(L"/tmp/ver.zeichnis/datei", L'/');
    EXPECT_EQ(noExtension.fileName, L"datei");
    EXPECT_EQ(noExtension.extension, L"") << "a dot in a folder name is no extension";
}
