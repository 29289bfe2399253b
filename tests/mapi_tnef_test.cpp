// What Outlook packs into TNEF (bodies and attachments), from the TNEF test files of the corpora.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "harness/TestFiles.h"
#include "mapi/mime/Tnef.h"
#include "mapi/rtf/CompressedRtf.h"
#include "mapix.h"
#include "support/Utf8.h"
#include "tests/MapiTestSupport.h"
#include "tests/TnefStream.h"

namespace {

using velmar::CComPtr;
using velmar::test::ReadStream;
namespace fs = std::filesystem;

const fs::path kTnef = fs::path(VELMAR_CORPORA_DIR) / "MimeKit/tnef";

using velmar::test::ReadFile;

std::vector<std::uint8_t> FileBytes(const fs::path& path) {
    const std::string text = ReadFile(path);
    return std::vector<std::uint8_t>(text.begin(), text.end());
}

// Some of the expected files were stored with other line endings than the text in the TNEF.
std::string WithoutCarriageReturns(std::string text) {
    std::erase(text, '\r');
    return text;
}

// The corpus holds what an unpacking tool made of each stream. Text files lost their carriage returns on
// the way, and the tool kept the 16-byte interface id in front of the data of an object.
bool SameContent(const std::string& unpackedByTool, const std::vector<std::uint8_t>& data) {
    const std::string ours(data.begin(), data.end());
    return unpackedByTool == ours || WithoutCarriageReturns(unpackedByTool) == WithoutCarriageReturns(ours) ||
           (unpackedByTool.size() == ours.size() + 16 && unpackedByTool.substr(16) == ours);
}

TEST(Tnef, RtfBodiesOfTheCorpusDecompressToTheirExpectedText) {
    if (!fs::is_directory(kTnef)) GTEST_SKIP() << "no corpora";
    int compared = 0;
    for (const auto& entry : fs::directory_iterator(kTnef)) {
        if (entry.path().extension() != ".tnef") continue;
        const fs::path expected = kTnef / entry.path().stem() / "message.rtf";
        const auto tnef = velmar::mapi::ReadTnef(FileBytes(entry.path()));
        ASSERT_TRUE(tnef.has_value()) << entry.path();
        if (!fs::exists(expected)) continue;
        std::string text;
        ASSERT_EQ(velmar::mapi::DecompressRtf(tnef->rtfCompressed, text), velmar::mapi::RtfCodecStatus::Ok)
            << entry.path();
        EXPECT_EQ(WithoutCarriageReturns(text), WithoutCarriageReturns(ReadFile(expected))) << entry.path();
        ++compared;
    }
    EXPECT_GE(compared, 8);
}

TEST(Tnef, CutAndForeignStreamsKeepWhatCameBefore) {
    if (!fs::is_directory(kTnef)) GTEST_SKIP() << "no corpora";
    for (const char* name : {"rtf.tnef", "two-files.tnef"}) {
        const std::vector<std::uint8_t> whole = FileBytes(kTnef / name);
        const auto complete = velmar::mapi::ReadTnef(whole);
        ASSERT_TRUE(complete.has_value());
        EXPECT_TRUE(complete->complete);
        for (size_t length = 6; length < whole.size(); length += 7) {
            const auto cut = velmar::mapi::ReadTnef(std::span(whole).first(length));
            ASSERT_TRUE(cut.has_value()) << "the signature is there";
            // A cut stream lacks the body or has the whole of it; of the attachments it keeps those whose
            // data came before the cut, each whole.
            if (!cut->rtfCompressed.empty()) {
                EXPECT_EQ(cut->rtfCompressed, complete->rtfCompressed);
            }
            ASSERT_LE(cut->attachments.size(), complete->attachments.size());
            for (size_t i = 0; i < cut->attachments.size(); ++i)
                EXPECT_EQ(cut->attachments[i].data, complete->attachments[i].data) << name << " " << length;
        }
    }
    EXPECT_FALSE(velmar::mapi::ReadTnef(FileBytes(kTnef / "body" / "message.html")).has_value());
    EXPECT_FALSE(velmar::mapi::ReadTnef({}).has_value());
}

TEST(Tnef, AttachmentsOfTheCorpusAsOutlookPackedThem) {
    if (!fs::is_directory(kTnef)) GTEST_SKIP() << "no corpora";
    struct CExpected {
        const char* name;      // the attachment's file name
        const char* unpacked;  // the tool's file with its data
    };
    const std::map<std::string, std::vector<CExpected>> corpus = {
        {"two-files", {{"AUTHORS", "AUTHORS"}, {"README", "README"}}},
        {"attachments", {{"zappa_av1.jpg", "zappa_av1.jpg"}, {"bookmark.htm", "bookmark.htm"}}},
        // The data comes before the name; two of the files are empty.
        {"data-before-name",
         {{"AUTOEXEC.BAT", "AUTOEXEC.BAT"}, {"CONFIG.SYS", "CONFIG.SYS"}, {"boot.ini", "boot.ini"}}},
        {"long-filename", {{"allproductsmar2000.dat", "allproductsmar2000.dat"}}},
        // Three of the four have an empty title: their names come from the properties.
        {"missing-filenames",
         {{"generpts.src", "generpts.src"},
          {"TechlibDEC99.doc", "TechlibDEC99.doc"},
          {"TechlibDEC99-JAN00.doc", "TechlibDEC99-JAN00.doc"},
          {"TechlibNOV99.doc", "TechlibNOV99.doc"}}},
        {"unicode-mapi-attr-name",
         {{"spaconsole2.cfg", "spaconsole2.cfg"},
          {"image001.png", "image001.png"},
          {"image002.png", "image002.png"},
          {"image003.png", "image003.png"}}},
        // The data lives in the attachment's properties only.
        {"MAPI_ATTACH_DATA_OBJ",
         {{"VIA_Nytt_1402.doc", "VIA_Nytt_1402.doc"},
          {"VIA_Nytt_1402.pdf", "VIA_Nytt_1402.pdf"},
          {"VIA_Nytt_14021.htm", "VIA_Nytt_14021.htm"}}},
        {"MAPI_OBJECT", {{"Untitled_Attachment", "Untitled_Attachment"}}},
        // Two embedded messages stay TNEF streams of their own, in place of the placeholder text.
        {"christmas",
         {{"kitten-playing-with-a-christmas-tree.jpg", "kitten-playing-with-a-christmas-tree.jpg"},
          {"Untitled Attachment", "Untitled Attachment.2"},
          {"Untitled Attachment", "Untitled Attachment.4"}}},
        // The stream ends in garbage after its third attachment.
        {"panic",
         {{"image001.jpg", "image001.jpg"},
          {"image002.jpg", "image002.jpg"},
          {"image003.png", "image003.png"}}},
        {"rtf", {}},
        {"body", {}},
    };
    for (const auto& [stream, expected] : corpus) {
        const auto tnef = velmar::mapi::ReadTnef(FileBytes(kTnef / (stream + ".tnef")));
        ASSERT_TRUE(tnef.has_value()) << stream;
        ASSERT_EQ(tnef->attachments.size(), expected.size()) << stream;
        for (size_t i = 0; i < expected.size(); ++i) {
            const velmar::mapi::CTnefAttachment& attachment = tnef->attachments[i];
            EXPECT_EQ(velmar::WideToUtf8(attachment.longFileName), expected[i].name) << stream;
            EXPECT_TRUE(SameContent(ReadFile(kTnef / stream / expected[i].unpacked), attachment.data))
                << stream << ": " << expected[i].name;
        }
    }

    const auto panic = velmar::mapi::ReadTnef(FileBytes(kTnef / "panic.tnef"));
    EXPECT_EQ(panic->attachments[2].mimeTag, L"image/png");
    EXPECT_EQ(panic->attachments[2].contentId, L"image003.png@01D139A1.76DB0C80");
    // The HTML was written in Latin-1; we hand it on as UTF-8.
    std::string html;
    for (const char c : ReadFile(kTnef / "panic" / "message.html"))
        velmar::AppendUtf8(html, static_cast<unsigned char>(c));
    EXPECT_EQ(WithoutCarriageReturns(panic->html), WithoutCarriageReturns(html));
    const auto christmas = velmar::mapi::ReadTnef(FileBytes(kTnef / "christmas.tnef"));
    EXPECT_EQ(christmas->attachments[1].displayName, L"Build a train table");
    const auto triples = velmar::mapi::ReadTnef(FileBytes(kTnef / "triples.tnef"));
    EXPECT_EQ(WithoutCarriageReturns(velmar::WideToUtf8(triples->body)),
              WithoutCarriageReturns(ReadFile(kTnef / "triples" / "message.txt")));
}

using namespace velmar::mapi::tnef;
using velmar::test::CTnefStream;

TEST(Tnef, TextInEveryCodePageArrivesWhole) {
    const std::string cp1252 = std::string("\xE4\x04\0\0\0\0\0\0", 8);
    const std::string surrogateName = std::string("r\0\x00\xD8.\0p\0d\0f\0\0\0", 14);  // a lone surrogate
    const auto tnef = velmar::mapi::ReadTnef(
        CTnefStream()
            .Attribute(kLevelMessage, kAttOemCodepage, cp1252)
            .Attribute(
                kLevelMessage, kAttMsgProps,
                CTnefStream::Properties({{PR_HTML, "<p>\xC3\xA9</p>"}, {PR_INTERNET_CPID, "\xE9\xFD\0\0"}}))
            .Attribute(kLevelAttachment, kAttAttachRenddata, std::string(14, '\0'))
            .Attribute(kLevelAttachment, kAttAttachTitle, std::string("Caf\xE9\x81.txt\0", 10))
            .Attribute(kLevelAttachment, kAttAttachData, "eins")
            .Attribute(kLevelAttachment, kAttAttachRenddata, std::string(14, '\0'))
            .Attribute(kLevelAttachment, kAttAttachData, "zwei")
            .Attribute(kLevelAttachment, kAttAttachment,
                       CTnefStream::Properties({{PR_ATTACH_LONG_FILENAME_W, surrogateName}}))
            .Bytes());
    ASSERT_TRUE(tnef.has_value());
    EXPECT_TRUE(tnef->complete);
    EXPECT_EQ(tnef->html, "<p>\xC3\xA9</p>")
        << "HTML in its own charset (UTF-8), not in the stream's code page";
    ASSERT_EQ(tnef->attachments.size(), 2u);
    EXPECT_EQ(tnef->attachments[0].longFileName, L"Caf\u00E9\uFFFD.txt") << "0x81 has no character in 1252";
    EXPECT_EQ(tnef->attachments[1].longFileName, L"r\uFFFD.pdf");
    EXPECT_EQ(tnef->attachments[1].data, std::vector<std::uint8_t>({'z', 'w', 'e', 'i'}));
}

}  // namespace
