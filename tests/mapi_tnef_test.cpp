// The RTF body of Outlook's TNEF attachments, from the TNEF test files of the corpora and from a real
// message that carries one.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "mapi/provider/Tnef.h"
#include "mapi/rtf/CompressedRtf.h"
#include "mapix.h"
#include "tests/MapiTestSupport.h"
#include "tests/TestFiles.h"

namespace {

using velmar::CComPtr;
using velmar::test::ReadStream;
namespace fs = std::filesystem;

const fs::path kTnef = fs::path(VELMAR_CORPORA_DIR) / "MimeKit/tnef";

std::string FileText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::uint8_t> FileBytes(const fs::path& path) {
    const std::string text = FileText(path);
    return std::vector<std::uint8_t>(text.begin(), text.end());
}

// Some of the expected files were stored with other line endings than the RTF in the TNEF.
std::string WithoutCarriageReturns(std::string text) {
    std::erase(text, '\r');
    return text;
}

TEST(Tnef, RtfBodiesOfTheCorpusDecompressToTheirExpectedText) {
    if (!fs::is_directory(kTnef)) GTEST_SKIP() << "no corpora";
    int compared = 0;
    for (const auto& entry : fs::directory_iterator(kTnef)) {
        if (entry.path().extension() != ".tnef") continue;
        const fs::path expected = kTnef / entry.path().stem() / "message.rtf";
        const auto rtf = velmar::mapi::FindCompressedRtf(FileBytes(entry.path()));
        if (!fs::exists(expected)) continue;
        ASSERT_TRUE(rtf.has_value()) << entry.path();
        std::string text;
        ASSERT_EQ(velmar::mapi::DecompressRtf(*rtf, text), velmar::mapi::RtfCodecStatus::Ok) << entry.path();
        EXPECT_EQ(WithoutCarriageReturns(text), WithoutCarriageReturns(FileText(expected))) << entry.path();
        ++compared;
    }
    EXPECT_GE(compared, 8);
}

TEST(Tnef, CutAndForeignStreamsHaveNoBody) {
    if (!fs::is_directory(kTnef)) GTEST_SKIP() << "no corpora";
    const std::vector<std::uint8_t> whole = FileBytes(kTnef / "rtf.tnef");
    ASSERT_TRUE(velmar::mapi::FindCompressedRtf(whole).has_value());
    for (size_t length = 0; length < whole.size(); length += 7) {
        const auto cut = velmar::mapi::FindCompressedRtf(std::span(whole).first(length));
        // A cut stream either lacks the body or, when the cut falls after it, still finds the whole of it.
        if (cut) {
            EXPECT_EQ(*cut, *velmar::mapi::FindCompressedRtf(whole));
        }
    }
    const std::vector<std::uint8_t> notTnef = FileBytes(kTnef / "body" / "message.html");
    EXPECT_FALSE(velmar::mapi::FindCompressedRtf(notTnef).has_value());
}

TEST(Tnef, MessageWithWinmailCarriesCompressedRtf) {
    if (!fs::is_directory(kTnef)) GTEST_SKIP() << "no corpora";
    velmar::test::CTempDir dir;
    velmar::test::WriteFile(dir / "profiles.ini", "[Tnef]\nstore1.path = mail\n");
    velmar::test::SetEnvironment("VELMAR_MAPI_PROFILES", (dir / "profiles.ini").string());
    fs::create_directories(dir / "mail" / "new");
    fs::copy_file(kTnef / "rich-text.eml", dir / "mail" / "new" / "1600000000.M1P1.tnef");
    ASSERT_EQ(MAPIInitialize(nullptr), S_OK);
    {
        CComPtr<IMAPISession> session;
        ASSERT_EQ(MAPILogonEx(0, const_cast<LPTSTR>(L"Tnef"), nullptr, MAPI_UNICODE, session.Put()), S_OK);
        CComPtr<IMAPITable> stores;
        ASSERT_EQ(session->GetMsgStoresTable(0, stores.Put()), S_OK);
        velmar::test::CRowsHolder rows;
        ASSERT_EQ(HrQueryAllRows(stores.get(), nullptr, nullptr, nullptr, 0, &rows.rows), S_OK);
        const SPropValue* id =
            PpropFindProp(rows.rows->aRow[0].lpProps, rows.rows->aRow[0].cValues, PR_ENTRYID);
        CComPtr<IMsgStore> store;
        ASSERT_EQ(session->OpenMsgStore(0, id->Value.bin.cb, reinterpret_cast<LPENTRYID>(id->Value.bin.lpb),
                                        nullptr, 0, store.Put()),
                  S_OK);
        ULONG type = 0;
        LPUNKNOWN unknown = nullptr;
        ASSERT_EQ(store->OpenEntry(0, nullptr, nullptr, 0, &type, &unknown), S_OK);
        CComPtr<IMAPIFolder> inbox(static_cast<IMAPIFolder*>(unknown));
        CComPtr<IMAPITable> contents;
        ASSERT_EQ(inbox->GetContentsTable(0, contents.Put()), S_OK);
        velmar::test::CRowsHolder messages;
        ASSERT_EQ(HrQueryAllRows(contents.get(), nullptr, nullptr, nullptr, 0, &messages.rows), S_OK);
        ASSERT_EQ(messages.rows->cRows, 1u);
        const SPropValue* entry =
            PpropFindProp(messages.rows->aRow[0].lpProps, messages.rows->aRow[0].cValues, PR_ENTRYID);
        ASSERT_EQ(store->OpenEntry(entry->Value.bin.cb, reinterpret_cast<LPENTRYID>(entry->Value.bin.lpb),
                                   nullptr, 0, &type, &unknown),
                  S_OK);
        CComPtr<IMessage> message(static_cast<IMessage*>(unknown));
        ASSERT_EQ(message->OpenProperty(PR_RTF_COMPRESSED, &IID_IStream, 0, 0, &unknown), S_OK);
        CComPtr<IStream> compressed(static_cast<IStream*>(unknown));
        RTF_WCSINFO info{sizeof(RTF_WCSINFO), MAPI_NATIVE_BODY, 0, 0};
        RTF_WCSRETINFO result{sizeof(RTF_WCSRETINFO), 0};
        CComPtr<IStream> body;
        ASSERT_EQ(WrapCompressedRTFStreamEx(compressed.get(), &info, body.Put(), &result), S_OK);
        const std::string text = ReadStream(body.get());
        EXPECT_FALSE(text.empty());
        if (result.ulStreamFlags == MAPI_NATIVE_BODY_TYPE_RTF) {
            EXPECT_EQ(text.rfind("{\\rtf1", 0), 0u);
        }
    }
    MAPIUninitialize();
}

}  // namespace
