// Real-world mail that nobody here wrote, read through our MAPI: every message of the corpora must open
// with everything a client asks for, and a sample must read as a careful reader of its source would expect.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "harness/TestFiles.h"
#include "mapix.h"
#include "tests/MapiTestSupport.h"

namespace {

using velmar::CComPtr;
using velmar::test::CPropsHolder;
using velmar::test::CRowsHolder;
using velmar::test::LongProp;
using velmar::test::StreamProp;
using velmar::test::WideProp;
namespace fs = std::filesystem;

const fs::path kCorpora = VELMAR_CORPORA_DIR;

class MapiCorpus : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fs::is_directory(kCorpora)) GTEST_SKIP() << "no corpora at " << kCorpora;
        ASSERT_EQ(MAPIInitialize(nullptr), S_OK);
        velmar::test::WriteFile(m_dir / "profiles.ini",
                                "[Corpus]\nstore1.name = Korpus\nstore1.path = mail\n");
        velmar::test::SetEnvironment("VELMAR_MAPI_PROFILES", (m_dir / "profiles.ini").string());
        fs::create_directories(m_dir / "mail" / "cur");
        fs::create_directories(m_dir / "mail" / "new");
    }
    void TearDown() override {
        if (fs::is_directory(kCorpora)) MAPIUninitialize();
    }

    // Copies a corpus message into the store's cur/ under a name of its own, and returns its number.
    int Add(const fs::path& source) {
        const int number = m_count++;
        fs::copy_file(source,
                      m_dir / "mail" / "cur" / ("1600000000.M" + std::to_string(number) + "P1.corpus:2,"));
        return number;
    }

    void Open() {
        ASSERT_EQ(MAPILogonEx(0, const_cast<LPTSTR>(L"Corpus"), nullptr, MAPI_UNICODE | MAPI_EXTENDED,
                              m_session.Put()),
                  S_OK);
        CComPtr<IMAPITable> stores;
        ASSERT_EQ(m_session->GetMsgStoresTable(0, stores.Put()), S_OK);
        CRowsHolder rows;
        ASSERT_EQ(HrQueryAllRows(stores.get(), nullptr, nullptr, nullptr, 0, &rows.rows), S_OK);
        const SPropValue* id =
            PpropFindProp(rows.rows->aRow[0].lpProps, rows.rows->aRow[0].cValues, PR_ENTRYID);
        ASSERT_EQ(m_session->OpenMsgStore(0, id->Value.bin.cb, reinterpret_cast<LPENTRYID>(id->Value.bin.lpb),
                                          nullptr, MAPI_BEST_ACCESS, m_store.Put()),
                  S_OK);
        m_inbox = velmar::test::OpenEntryAs<IMAPIFolder>(m_store.get(), 0, nullptr, 0);
        ASSERT_TRUE(m_inbox);
    }

    CComPtr<IMessage> OpenRow(const SRow& row) {
        const SPropValue* id = PpropFindProp(row.lpProps, row.cValues, PR_ENTRYID);
        CComPtr<IMessage> message =
            velmar::test::OpenEntryAs<IMessage>(m_store.get(), id->Value.bin.cb, id->Value.bin.lpb, 0);
        EXPECT_TRUE(message);
        return message;
    }

    CComPtr<IMessage> ByMessageId(const char* messageId) {
        CComPtr<IMAPITable> table;
        EXPECT_EQ(m_inbox->GetContentsTable(0, table.Put()), S_OK);
        CRowsHolder rows;
        EXPECT_EQ(HrQueryAllRows(table.get(), nullptr, velmar::test::CMessageIdRestriction(messageId).Get(),
                                 nullptr, 0, &rows.rows),
                  S_OK);
        if (!rows.rows || rows.rows->cRows != 1) return CComPtr<IMessage>();
        return OpenRow(rows.rows->aRow[0]);
    }

    // The corpus file a message was copied from, by the number in its file name.
    static std::string SourceOf(IMessage* message, const std::vector<std::string>& sources) {
        const std::vector<BYTE> key = velmar::test::BinaryProp(message, PR_SEARCH_KEY);
        const std::string name(key.begin(), key.end());
        const size_t number = name.find(".M");
        if (number == std::string::npos) return "(unknown)";
        const size_t index = std::strtoul(name.c_str() + number + 2, nullptr, 10);
        return index < sources.size() ? sources[index] : "(unknown)";
    }

    // The attachments' long file names and display names, in table order.
    static std::vector<std::pair<std::wstring, std::wstring>> AttachmentNames(IMessage* message) {
        std::vector<std::pair<std::wstring, std::wstring>> names;
        CComPtr<IMAPITable> table;
        EXPECT_EQ(message->GetAttachmentTable(MAPI_UNICODE, table.Put()), S_OK);
        SizedSPropTagArray(2, columns) = {2, {PR_ATTACH_LONG_FILENAME_W, PR_DISPLAY_NAME_W}};
        CRowsHolder rows;
        EXPECT_EQ(HrQueryAllRows(table.get(), reinterpret_cast<LPSPropTagArray>(&columns), nullptr, nullptr,
                                 0, &rows.rows),
                  S_OK);
        for (ULONG r = 0; rows.rows && r < rows.rows->cRows; ++r) {
            const SRow& row = velmar::test::RowAt(*rows.rows, r);
            const auto text = [&](size_t column) {
                return PROP_TYPE(row.lpProps[column].ulPropTag) == PT_UNICODE
                           ? std::wstring(row.lpProps[column].Value.lpszW)
                           : std::wstring();
            };
            names.emplace_back(text(0), text(1));
        }
        return names;
    }

    // Every attachment of a message as the mail layer would fetch it: its data, or its embedded message.
    void ReadEveryAttachment(IMessage* message, const std::string& source) {
        CComPtr<IMAPITable> table;
        ASSERT_EQ(message->GetAttachmentTable(MAPI_UNICODE, table.Put()), S_OK) << source;
        CRowsHolder rows;
        ASSERT_EQ(HrQueryAllRows(table.get(), nullptr, nullptr, nullptr, 0, &rows.rows), S_OK) << source;
        for (ULONG r = 0; r < rows.rows->cRows; ++r) {
            const SRow& row = rows.rows->aRow[r];
            const ULONG number =
                static_cast<ULONG>(PpropFindProp(row.lpProps, row.cValues, PR_ATTACH_NUM)->Value.l);
            CComPtr<IAttach> attach;
            ASSERT_EQ(message->OpenAttach(number, nullptr, MAPI_BEST_ACCESS, attach.Put()), S_OK) << source;
            if (LongProp(attach.get(), PR_ATTACH_METHOD) == static_cast<LONG>(ATTACH_EMBEDDED_MSG)) {
                LPUNKNOWN data = nullptr;
                ASSERT_EQ(attach->OpenProperty(PR_ATTACH_DATA_OBJ, &IID_IMessage, 0, 0, &data), S_OK)
                    << source;
                CComPtr<IMessage> embedded(static_cast<IMessage*>(data));
                CPropsHolder props;
                EXPECT_TRUE(
                    SUCCEEDED(embedded->GetProps(nullptr, MAPI_UNICODE, &props.count, &props.values)));
            } else {
                const std::string bytes = StreamProp(attach.get(), PR_ATTACH_DATA_BIN);
                ASSERT_NE(bytes, "<not opened>") << source;
                EXPECT_EQ(bytes.size(), static_cast<size_t>(LongProp(attach.get(), PR_ATTACH_SIZE)))
                    << source;
            }
        }
    }

    velmar::test::CTempDir m_dir;
    int m_count = 0;
    CComPtr<IMAPISession> m_session;
    CComPtr<IMsgStore> m_store;
    CComPtr<IMAPIFolder> m_inbox;
};

TEST_F(MapiCorpus, EveryMessageOpensWithItsPropertiesRecipientsAndAttachments) {
    std::vector<std::string> sources;
    for (const char* folder : {"mail-parser/resources/eml", "MimeKit/messages"}) {
        for (const auto& entry : fs::recursive_directory_iterator(kCorpora / folder)) {
            const std::string extension = entry.path().extension().string();
            if (!entry.is_regular_file() || (extension != ".eml" && extension != ".txt")) continue;
            sources.push_back(entry.path().string());
            Add(entry.path());
        }
    }
    ASSERT_GT(sources.size(), 100u);
    Open();
    CComPtr<IMAPITable> table;
    ASSERT_EQ(m_inbox->GetContentsTable(0, table.Put()), S_OK);
    CRowsHolder rows;
    ASSERT_EQ(HrQueryAllRows(table.get(), nullptr, nullptr, nullptr, 0, &rows.rows), S_OK);
    ASSERT_EQ(rows.rows->cRows, sources.size());
    for (ULONG r = 0; r < rows.rows->cRows; ++r) {
        CComPtr<IMessage> message = OpenRow(rows.rows->aRow[r]);
        ASSERT_TRUE(message);
        const std::string source = SourceOf(message.get(), sources);
        CPropsHolder props;
        EXPECT_TRUE(SUCCEEDED(message->GetProps(nullptr, MAPI_UNICODE, &props.count, &props.values)))
            << source;
        CComPtr<IMAPITable> recipients;
        ASSERT_EQ(message->GetRecipientTable(MAPI_UNICODE, recipients.Put()), S_OK) << source;
        CRowsHolder recipientRows;
        EXPECT_EQ(HrQueryAllRows(recipients.get(), nullptr, nullptr, nullptr, 0, &recipientRows.rows), S_OK);
        ReadEveryAttachment(message.get(), source);

        // Every text as a careful reader has it: no name holds a line break, and no text a replacement
        // character that its source does not hold (each byte is read as something).
        const bool sourceHasReplacement =
            velmar::test::ReadFile(source).find("\xEF\xBF\xBD") != std::string::npos;
        std::vector<std::wstring> names;
        for (const ULONG tag : {PR_SUBJECT_W, PR_SENDER_NAME_W, PR_SENT_REPRESENTING_NAME_W})
            if (const SPropValue* value = props.Find(tag)) names.push_back(value->Value.lpszW);
        for (ULONG i = 0; i < recipientRows.rows->cRows; ++i) {
            const SRow& row = velmar::test::RowAt(*recipientRows.rows, i);
            if (const SPropValue* name = PpropFindProp(row.lpProps, row.cValues, PR_DISPLAY_NAME_W))
                names.push_back(name->Value.lpszW);
        }
        for (const std::wstring& name : names) {
            EXPECT_EQ(name.find_first_of(L"\r\n"), std::wstring::npos) << source;
            if (!sourceHasReplacement) {
                EXPECT_EQ(name.find(L'\uFFFD'), std::wstring::npos) << source;
            }
        }
        const SPropValue* body = props.Find(PR_BODY_W);
        if (body && !sourceHasReplacement) {
            EXPECT_EQ(std::wstring(body->Value.lpszW).find(L'\uFFFD'), std::wstring::npos) << source;
        }
    }
}

TEST_F(MapiCorpus, Latin1HtmlOnlyMessage) {
    Add(kCorpora / "mail-parser/resources/eml/legacy/002.eml");
    Open();
    CComPtr<IMessage> message = ByMessageId("<4.2.0.58.20000519003052.00a89c40@pop.example.com>");
    ASSERT_TRUE(message);
    EXPECT_EQ(WideProp(message.get(), PR_SUBJECT_W), L"Die Hasen und die Fr\u00f6sche");
    EXPECT_EQ(WideProp(message.get(), PR_DISPLAY_TO_W), L"Heinz M\u00fcller");
    const std::string text = StreamProp(message.get(), PR_HTML);
    EXPECT_NE(text.find("Die Hasen klagten einst über"), std::string::npos) << "Latin-1 arrives as UTF-8";
    EXPECT_NE(text.find("charset=utf-8"), std::string::npos);
    // No text part: the plain body is the HTML as text.
    EXPECT_NE(WideProp(message.get(), PR_BODY_W).find(L"\"wir leben\", sprach ein Redner"),
              std::wstring::npos);
}

// Header fields and body texts of messages that break the rules the way real mail does, read as their
// authors meant them.
TEST_F(MapiCorpus, HeadersAndBodyTextsAsTheirAuthorsMeantThem) {
    const char* const legacy = "mail-parser/resources/eml/legacy/";
    for (const char* file : {"009.eml", "010.eml", "015.eml", "032.eml", "033.eml", "052.eml"})
        Add(kCorpora / (std::string(legacy) + file));
    Add(kCorpora / "mail-parser/resources/eml/thirdparty/015.eml");
    Add(kCorpora / "MimeKit/messages/missing-subtype.txt");
    Open();

    const std::pair<const char*, const wchar_t*> headers[] = {
        // Adjacent Q words of one charset whose payloads hold raw Latin-1 bytes.
        {"<4.2.0.58.20000519010441.00a8d140@pop.example.com>", L"J\u00fcrgen Schm\u00fcrgen"},
        // Raw Latin-1 in the header fields of a message that declares ISO-8859-1.
        {"<4.2.0.58.20000519010842.00a8c7f0@pop.example.com>", L"Heinz M\u00fcller"},
        // A raw byte inside a Q word is read once, in the word's charset.
        {"<4.2.0.58.20000519003556.00a918e0@pop.example.com>", L"Heinz M\u00fcller"}};
    for (const auto& [id, to] : headers) {
        CComPtr<IMessage> message = ByMessageId(id);
        ASSERT_TRUE(message) << id;
        EXPECT_EQ(WideProp(message.get(), PR_DISPLAY_TO_W), to) << id;
        EXPECT_EQ(WideProp(message.get(), PR_SUBJECT_W), L"Die Hasen und die Fr\u00f6sche") << id;
    }

    // Latin-1 text in a part that declares UTF-8, and in one that declares nothing: no byte is lost.
    for (const char* id :
         {"<392363E1.2AC47AB3@example.com>", "<NDBBIAKOPKHFGPLCODIGOEKDCHAA.doug@example.com>"}) {
        CComPtr<IMessage> message = ByMessageId(id);
        ASSERT_TRUE(message) << id;
        const std::wstring body = WideProp(message.get(), PR_BODY_W);
        EXPECT_EQ(body.rfind(L"Die Hasen und die Fr\u00f6sche\r\n", 0), 0u) << id;
        EXPECT_NE(body.find(L"Die Hasen klagten einst \u00fcber ihre mi\u00dfliche Lage"), std::wstring::npos)
            << id;
    }
    EXPECT_EQ(WideProp(ByMessageId("<NDBBIAKOPKHFGPLCODIGOEKDCHAA.doug@example.com>").get(), PR_DISPLAY_TO_W),
              L"Heinz M\u00fcller");

    // The HTML keeps its doctype first; the UTF-8 declaration goes into a head after it.
    CComPtr<IMessage> doctype = ByMessageId("<39235EAD.E48E2160@example.com>");
    ASSERT_TRUE(doctype);
    const std::string html = StreamProp(doctype.get(), PR_HTML);
    EXPECT_EQ(html.rfind("<!doctype html public \"-//w3c//dtd html 4.0 transitional//en\">\r\n<html><head>"
                         "<meta http-equiv=\"Content-Type\" content=\"text/html; charset=utf-8\"></head>",
                         0),
              0u)
        << html.substr(0, 200);

    // Attached e-mails keep their file names, and are shown by their subjects.
    CComPtr<IMessage> forwarded = ByMessageId("<7da78721a8a234894af702fe25fc64a5@proxforge.de>");
    ASSERT_TRUE(forwarded);
    EXPECT_EQ(AttachmentNames(forwarded.get()),
              (std::vector<std::pair<std::wstring, std::wstring>>{
                  {L"training-mail.txt", L"Exciting updates for our training partnership"},
                  {L"office-reply.txt", L"RE: (#5290765) Proxmox Shop E-Mails"},
                  {L"shop-mail.txt", L""}}));

    // A name parameter in a Content-Type without a subtype still names the file.
    CComPtr<IMAPITable> table;
    ASSERT_EQ(m_inbox->GetContentsTable(0, table.Put()), S_OK);
    SPropValue pattern{};
    pattern.ulPropTag = PR_SUBJECT_W;
    pattern.Value.lpszW = const_cast<LPWSTR>(L"Test of an invalid mime-type");
    SRestriction restriction{};
    restriction.rt = RES_PROPERTY;
    restriction.res.resProperty = {RELOP_EQ, PR_SUBJECT_W, &pattern};
    CRowsHolder found;
    ASSERT_EQ(HrQueryAllRows(table.get(), nullptr, &restriction, nullptr, 0, &found.rows), S_OK);
    ASSERT_EQ(found.rows->cRows, 1u);
    EXPECT_EQ(AttachmentNames(OpenRow(found.rows->aRow[0]).get()),
              (std::vector<std::pair<std::wstring, std::wstring>>{{L"document.xml.gz", L"document.xml.gz"}}));
}

TEST_F(MapiCorpus, ForeignMaildirFlagsAndSeparators) {
    // A Maildir written by another server, with ";2," separators and extra flags.
    const fs::path source = kCorpora / "mail-parser/resources/maildir";
    for (const char* sub : {"cur", "new"})
        for (const auto& entry : fs::directory_iterator(source / sub))
            fs::copy_file(entry.path(), m_dir / "mail" / sub / entry.path().filename());
    Open();
    CComPtr<IMAPITable> table;
    ASSERT_EQ(m_inbox->GetContentsTable(0, table.Put()), S_OK);
    SizedSPropTagArray(2, columns) = {2, {PR_ENTRYID, PR_MESSAGE_FLAGS}};
    CRowsHolder rows;
    ASSERT_EQ(HrQueryAllRows(table.get(), reinterpret_cast<LPSPropTagArray>(&columns), nullptr, nullptr, 0,
                             &rows.rows),
              S_OK);
    ASSERT_EQ(rows.rows->cRows, 2u);
    for (ULONG r = 0; r < 2; ++r)
        EXPECT_EQ(rows.rows->aRow[r].lpProps[1].Value.l & MSGFLAG_READ, MSGFLAG_READ);
    for (ULONG r = 0; r < 2; ++r) ASSERT_EQ(OpenRow(rows.rows->aRow[r])->SetReadFlag(CLEAR_READ_FLAG), S_OK);
    size_t unread = 0;
    size_t inCur = 0;
    for (const auto& entry : fs::directory_iterator(m_dir / "mail" / "cur")) {
        const std::string name = entry.path().filename().string();
        const size_t info = name.rfind(";2,");
        ++inCur;
        if (info != std::string::npos && name.find('S', info) == std::string::npos) ++unread;
    }
    EXPECT_EQ(inCur, 2u) << "a message leaves new/ when its flags change";
    EXPECT_EQ(unread, 2u) << "the server's separator and other flags are kept";
}

}  // namespace
