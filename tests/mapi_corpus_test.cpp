// Real-world mail that nobody here wrote, read through our MAPI as a careful reader of its source would
// expect it.
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

    velmar::test::CTempDir m_dir;
    int m_count = 0;
    CComPtr<IMAPISession> m_session;
    CComPtr<IMsgStore> m_store;
    CComPtr<IMAPIFolder> m_inbox;
};

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
