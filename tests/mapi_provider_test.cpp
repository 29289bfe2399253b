// Our MAPI's stores over Maildir folders these tests write: the store table and the stores, the embedded
// default profile, the read flag and the contents table's values.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <thread>

#include "tests/MapiProviderFixture.h"

namespace {

using namespace velmar::test;
using velmar::CComPtr;
namespace fs = std::filesystem;

class MapiProvider : public CMapiProviderTest {};

TEST_F(MapiProvider, StoreTableAndStores) {
    CComPtr<IMAPISession> session = Logon(L"Arbeit");
    ASSERT_TRUE(session);
    LONG defaultRow = -1;
    const auto stores = Stores(session.get(), &defaultRow);
    ASSERT_EQ(stores.size(), 2u);
    EXPECT_EQ(stores[0].first, L"Postfach");
    EXPECT_EQ(stores[1].first, L"Archiv");
    EXPECT_EQ(defaultRow, 1);

    CComPtr<IMsgStore> store = OpenStore(session.get(), 0);
    ASSERT_TRUE(store);
    EXPECT_EQ(WideProp(store.get(), PR_DISPLAY_NAME_W), L"Postfach");
    for (const char* folder : {"cur", "new", "tmp", ".Sent/cur", ".Outbox/new", ".Trash/tmp"})
        EXPECT_TRUE(fs::is_directory(m_mainPath / folder)) << folder << " is made on first use";
    EXPECT_FALSE(BinaryProp(store.get(), PR_MAILBOX_OWNER_ENTRYID).empty());

    // The outbox named by the store opens as a folder.
    const std::vector<BYTE> outbox = BinaryProp(store.get(), PR_IPM_OUTBOX_ENTRYID);
    ASSERT_FALSE(outbox.empty());
    CComPtr<IMAPIFolder> folder =
        OpenEntryAs<IMAPIFolder>(session.get(), outbox, MAPI_BEST_ACCESS, MAPI_FOLDER);
    ASSERT_TRUE(folder);
    EXPECT_EQ(WideProp(folder.get(), PR_DISPLAY_NAME_W), L"Outbox");

    // Entry ids that are not ours, or cut short, are refused cleanly.
    std::vector<BYTE> broken = stores[0].second;
    broken.pop_back();
    LPMDB refused = nullptr;
    EXPECT_EQ(session->OpenMsgStore(0, static_cast<ULONG>(broken.size()),
                                    reinterpret_cast<LPENTRYID>(broken.data()), nullptr, 0, &refused),
              MAPI_E_INVALID_ENTRYID);
    EXPECT_EQ(session->OpenMsgStore(0, 0, nullptr, nullptr, 0, &refused), MAPI_E_INVALID_ENTRYID);
}

// Without a profile file: the embedded profile Velmar, whose store is made in the user's data folder and
// whose owner is the user.
TEST_F(MapiProvider, EmbeddedDefaultProfileCreatesItsStoreOwnedByTheUser) {
    SetEnvironment("VELMAR_MAPI_PROFILES", (m_dir / "none.ini").string());
    SetEnvironment("XDG_DATA_HOME", (m_dir / "data").string());
    SetEnvironment("USER", "maria");
    CComPtr<IMAPISession> session = Logon(L"Velmar");
    ASSERT_TRUE(session);
    const auto stores = Stores(session.get());
    ASSERT_EQ(stores.size(), 1u);
    EXPECT_EQ(stores[0].first, L"Postfach");
    CComPtr<IMsgStore> store = OpenStore(session.get(), 0);
    ASSERT_TRUE(store);
    EXPECT_TRUE(fs::is_directory(m_dir / "data" / "velmar-mapi" / "Maildir" / "new"));
    EXPECT_EQ(WideProp(store.get(), PR_EMAIL_ADDRESS_W), L"maria@localhost");
    EXPECT_EQ(WideProp(store.get(), PR_MAILBOX_OWNER_NAME_W), L"maria");
}

TEST_F(MapiProvider, ReadFlagRenamesTheFileAndKeepsTheEntryId) {
    auto [session, store, inbox] = OpenMain();
    Deliver(m_mainPath, "1700000030.M1P1.host", "Message-ID: <r@x>\nSubject: read me\n\nbody\n");
    CComPtr<IMessage> message = FindMessage(store.get(), inbox.get(), "<r@x>");
    ASSERT_TRUE(message);
    const std::vector<BYTE> entryId = BinaryProp(message.get(), PR_ENTRYID);

    ASSERT_EQ(message->SetReadFlag(0), S_OK);
    EXPECT_TRUE(fs::exists(m_mainPath / "cur" / "1700000030.M1P1.host:2,S"));
    EXPECT_FALSE(fs::exists(m_mainPath / "new" / "1700000030.M1P1.host"));
    EXPECT_EQ(LongProp(message.get(), PR_MESSAGE_FLAGS) & MSGFLAG_READ, static_cast<LONG>(MSGFLAG_READ));

    CComPtr<IMessage> again = OpenById(store.get(), entryId);
    ASSERT_TRUE(again) << "the entry id survives the rename";
    EXPECT_EQ(LongProp(again.get(), PR_MESSAGE_FLAGS) & MSGFLAG_READ, static_cast<LONG>(MSGFLAG_READ));
    ASSERT_EQ(again->SetReadFlag(CLEAR_READ_FLAG), S_OK);
    EXPECT_TRUE(fs::exists(m_mainPath / "cur" / "1700000030.M1P1.host:2,"));
}

TEST_F(MapiProvider, ContentsTableValuesSortAndRestrict) {
    auto [session, store, inbox] = OpenMain();
    const std::string betaText = "Message-ID: <b@x>\nSubject: Beta\n\nbody\n";
    Deliver(m_mainPath, "1700000060.M1P1.host:2,FS", betaText, "cur");
    Deliver(m_mainPath, "1700000061.M1P1.host", kRichMessage);
    Deliver(m_mainPath, "1700000062.M1P1.host", "Message-ID: <a@x>\nSubject: Alpha\n\nbody\n");

    CComPtr<IMAPITable> table;
    ASSERT_EQ(inbox->GetContentsTable(0, table.Put()), S_OK);
    SizedSPropTagArray(6, columns) = {6,
                                      {PR_SUBJECT_W, PR_INTERNET_MESSAGE_ID_W, PR_MESSAGE_FLAGS,
                                       PR_MESSAGE_CLASS_A, PR_INSTANCE_KEY, PR_MESSAGE_SIZE}};
    ASSERT_EQ(table->SetColumns(reinterpret_cast<LPSPropTagArray>(&columns), 0), S_OK);
    SSortOrderSet order{1, 0, 0, {{PR_SUBJECT_W, TABLE_SORT_DESCEND}}};
    ASSERT_EQ(table->SortTable(&order, 0), S_OK);
    CRowsHolder rows;
    ASSERT_EQ(table->QueryRows(10, 0, &rows.rows), S_OK);
    ASSERT_EQ(rows.rows->cRows, 3u);
    const wchar_t* subjects[] = {L"Gr\u00fc\u00dfe aus K\u00f6ln", L"Beta", L"Alpha"};
    for (ULONG r = 0; r < 3; ++r) EXPECT_EQ(RowText(rows.rows->aRow[r], PR_SUBJECT_W), subjects[r]) << r;
    const SRow& beta = RowAt(*rows.rows, 1);
    EXPECT_EQ(RowText(beta, PR_INTERNET_MESSAGE_ID_W), L"<b@x>") << "8-bit ids read as wide strings";
    EXPECT_EQ(beta.lpProps[2].Value.l, static_cast<LONG>(MSGFLAG_READ)) << "the file has the S flag";
    EXPECT_EQ(RowAt(*rows.rows, 2).lpProps[2].Value.l, 0);
    EXPECT_STREQ(beta.lpProps[3].Value.lpszA, "IPM.Note");
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(beta.lpProps[4].Value.bin.lpb),
                          beta.lpProps[4].Value.bin.cb),
              "1700000060.M1P1.host");
    EXPECT_EQ(beta.lpProps[5].Value.l, static_cast<LONG>(betaText.size()));

    // A substring of a decoded subject, ignoring case.
    SPropValue pattern{};
    pattern.ulPropTag = PR_SUBJECT_W;
    pattern.Value.lpszW = const_cast<LPWSTR>(L"K\u00d6LN");
    SRestriction restriction{};
    restriction.rt = RES_CONTENT;
    restriction.res.resContent = {FL_SUBSTRING | FL_IGNORECASE, PR_SUBJECT_W, &pattern};
    ASSERT_EQ(table->Restrict(&restriction, 0), S_OK);
    CRowsHolder found;
    ASSERT_EQ(table->QueryRows(10, 0, &found.rows), S_OK);
    ASSERT_EQ(found.rows->cRows, 1u);
    EXPECT_EQ(RowText(found.rows->aRow[0], PR_INTERNET_MESSAGE_ID_W), L"<rich-1@example.org>");
}

}  // namespace
