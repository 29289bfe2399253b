// Our MAPI driven as the mail layer drives it: entry points, session, store, folder, table, message and
// attachment interfaces, over Maildir folders these tests write.
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

TEST_F(MapiProvider, ProfilesAndLogon) {
    CComPtr<IProfAdmin> admin;
    ASSERT_EQ(MAPIAdminProfiles(0, admin.Put()), S_OK);
    CComPtr<IMAPITable> table;
    ASSERT_EQ(admin->GetProfileTable(0, table.Put()), S_OK);
    CRowsHolder rows;
    ASSERT_EQ(HrQueryAllRows(table.get(), nullptr, nullptr, nullptr, 0, &rows.rows), S_OK);
    ASSERT_EQ(rows.rows->cRows, 2u);
    EXPECT_STREQ(rows.rows->aRow[0].lpProps[0].Value.lpszW, L"Arbeit");
    EXPECT_STREQ(RowAt(*rows.rows, 1).lpProps[0].Value.lpszW, L"Privat");
    // Only the default profile's row carries PR_DEFAULT_PROFILE; the other reads as an error value.
    EXPECT_EQ(rows.rows->aRow[0].lpProps[1].ulPropTag, CHANGE_PROP_TYPE(PR_DEFAULT_PROFILE, PT_ERROR));
    EXPECT_EQ(RowAt(*rows.rows, 1).lpProps[1].ulPropTag, PR_DEFAULT_PROFILE);

    LPMAPISESSION session = nullptr;
    const ULONG flags = MAPI_UNICODE | MAPI_EXTENDED | MAPI_EXPLICIT_PROFILE;
    EXPECT_EQ(MAPILogonEx(0, const_cast<LPTSTR>(L"Unbekannt"), nullptr, flags, &session),
              MAPI_E_LOGON_FAILED);
    EXPECT_EQ(session, nullptr);
    EXPECT_EQ(MAPILogonEx(0, const_cast<LPTSTR>(L""), nullptr, flags, &session), MAPI_E_LOGON_FAILED);
    EXPECT_EQ(MAPILogonEx(0, const_cast<LPTSTR>(L"arbeit"), nullptr, flags, &session), MAPI_E_LOGON_FAILED)
        << "profile names are exact";
    CComPtr<IMAPISession> fallback = Logon(L"", MAPI_LOGON_UI);
    ASSERT_TRUE(fallback);
    EXPECT_EQ(Stores(fallback.get()).at(0).first, L"Store 1")
        << "an empty name with MAPI_LOGON_UI: the default";
    EXPECT_EQ(fallback->Logoff(0, MAPI_LOGOFF_UI, 0), S_OK);
}

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

TEST_F(MapiProvider, LookupByMessageIdSeesNewDeliveries) {
    auto [session, store, inbox] = OpenMain();
    Deliver(m_mainPath, "1700000001.M1P1.host:2,S", "Message-ID: <a@x>\nSubject: first\n\nbody\n", "cur");
    Deliver(m_mainPath, "1700000002.M1P1.host", "Message-ID: <b@x>\nSubject: second\n\nbody\n");
    EXPECT_TRUE(FindMessage(store.get(), inbox.get(), "<a@x>"));
    EXPECT_FALSE(FindMessage(store.get(), inbox.get(), "<A@x>")) << "the match is exact";
    EXPECT_FALSE(FindMessage(store.get(), inbox.get(), "<c@x>"));

    // Mail delivered while the session runs is in the next table.
    Deliver(m_mainPath, "1700000003.M1P1.host", "Message-ID: <c@x>\nSubject: third\n\nbody\n");
    CComPtr<IMessage> third = FindMessage(store.get(), inbox.get(), "<c@x>");
    ASSERT_TRUE(third);
    EXPECT_EQ(WideProp(third.get(), PR_SUBJECT_W), L"third");

    CComPtr<IMAPITable> table;
    ASSERT_EQ(inbox->GetContentsTable(0, table.Put()), S_OK);
    ULONG count = 0;
    ASSERT_EQ(table->GetRowCount(0, &count), S_OK);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(LongProp(inbox.get(), PR_CONTENT_UNREAD), 2);
}

TEST_F(MapiProvider, MessagePropertiesBodiesAndRecipients) {
    auto [session, store, inbox] = OpenMain();
    Deliver(m_mainPath, "1700000010.M1P1.host", kRichMessage);
    CComPtr<IMessage> message = FindMessage(store.get(), inbox.get(), "<rich-1@example.org>");
    ASSERT_TRUE(message);

    SizedSPropTagArray(6, tags) = {6,
                                   {PR_SUBJECT_W, PR_SENDER_NAME_W, PR_BODY_W, PR_CREATION_TIME,
                                    PR_SENDER_EMAIL_ADDRESS_W, PR_ATTACH_NUM}};
    CPropsHolder props;
    EXPECT_EQ(message->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), MAPI_UNICODE, &props.count,
                                &props.values),
              MAPI_W_ERRORS_RETURNED)
        << "the message has no PR_ATTACH_NUM";
    ASSERT_EQ(props.count, 6u);
    EXPECT_STREQ(props.values[0].Value.lpszW, L"Gr\u00fc\u00dfe aus K\u00f6ln");
    EXPECT_STREQ(props.values[1].Value.lpszW, L"J\u00fcrgen M\u00fcller");
    EXPECT_STREQ(props.values[2].Value.lpszW, L"Gr\u00fc\u00dfe");
    EXPECT_EQ(PROP_TYPE(props.values[3].ulPropTag), PT_SYSTIME);
    EXPECT_STREQ(props.values[4].Value.lpszW, L"juergen@example.org");
    EXPECT_EQ(props.values[5].ulPropTag, CHANGE_PROP_TYPE(PR_ATTACH_NUM, PT_ERROR));
    EXPECT_EQ(props.values[5].Value.err, MAPI_E_NOT_FOUND);
    EXPECT_EQ(WideProp(message.get(), PR_INTERNET_MESSAGE_ID_W), L"<rich-1@example.org>");
    EXPECT_EQ(WideProp(message.get(), PR_MESSAGE_CLASS_W), L"IPM.Note");
    EXPECT_EQ(LongProp(message.get(), PR_INTERNET_CPID), 65001);
    EXPECT_EQ(LongProp(message.get(), PR_MESSAGE_FLAGS) & MSGFLAG_READ, 0);

    // The HTML part arrives in UTF-8 and says so, whatever its charset was.
    const std::string htmlText = StreamProp(message.get(), PR_HTML);
    EXPECT_NE(htmlText.find("<p>Grüße</p>"), std::string::npos) << htmlText;
    EXPECT_NE(htmlText.find("charset=utf-8"), std::string::npos) << htmlText;
    EXPECT_EQ(htmlText.find("iso-8859-1"), std::string::npos) << htmlText;
    const std::string bodyBytes = StreamProp(message.get(), PR_BODY_W);
    EXPECT_EQ(
        std::wstring(reinterpret_cast<const wchar_t*>(bodyBytes.data()), bodyBytes.size() / sizeof(wchar_t)),
        L"Gr\u00fc\u00dfe");
    LPUNKNOWN unknown = nullptr;
    EXPECT_EQ(message->OpenProperty(PR_RTF_COMPRESSED, &IID_IStream, 0, 0, &unknown), MAPI_E_NOT_FOUND);

    CComPtr<IMAPITable> recipients;
    ASSERT_EQ(message->GetRecipientTable(MAPI_UNICODE, recipients.Put()), S_OK);
    CRowsHolder rows;
    ASSERT_EQ(HrQueryAllRows(recipients.get(), nullptr, nullptr, nullptr, 0, &rows.rows), S_OK);
    ASSERT_EQ(rows.rows->cRows, 4u);
    const std::pair<const wchar_t*, LONG> expected[] = {{L"Anna", MAPI_TO},
                                                        {L"bob@example.org", MAPI_TO},
                                                        {L"Carl", MAPI_CC},
                                                        {L"dora@example.org", MAPI_BCC}};
    for (ULONG r = 0; r < 4; ++r) {
        const SRow& row = rows.rows->aRow[r];
        EXPECT_STREQ(PpropFindProp(row.lpProps, row.cValues, PR_DISPLAY_NAME_W)->Value.lpszW,
                     expected[r].first);
        EXPECT_EQ(PpropFindProp(row.lpProps, row.cValues, PR_RECIPIENT_TYPE)->Value.l, expected[r].second);
    }
}

TEST_F(MapiProvider, AttachmentsInlineImagesAndTheirBytes) {
    auto [session, store, inbox] = OpenMain();
    Deliver(m_mainPath, "1700000011.M1P1.host", kRichMessage);
    CComPtr<IMessage> message = FindMessage(store.get(), inbox.get(), "<rich-1@example.org>");
    ASSERT_TRUE(message);

    CComPtr<IMAPITable> table;
    ASSERT_EQ(message->GetAttachmentTable(MAPI_UNICODE, table.Put()), S_OK);
    SizedSPropTagArray(3, columns) = {3, {PR_ATTACH_LONG_FILENAME_W, PR_ATTACH_NUM, PR_ATTACH_CONTENT_ID_W}};
    CRowsHolder rows;
    ASSERT_EQ(HrQueryAllRows(table.get(), reinterpret_cast<LPSPropTagArray>(&columns), nullptr, nullptr, 0,
                             &rows.rows),
              S_OK);
    ASSERT_EQ(rows.rows->cRows, 2u);
    EXPECT_STREQ(rows.rows->aRow[0].lpProps[0].Value.lpszW, L"logo.png");
    EXPECT_STREQ(rows.rows->aRow[0].lpProps[2].Value.lpszW, L"logo@x") << "content ids lose their brackets";
    EXPECT_STREQ(RowAt(*rows.rows, 1).lpProps[0].Value.lpszW, L"Rechnung M\u00e4rz.pdf");
    EXPECT_EQ(PROP_TYPE(RowAt(*rows.rows, 1).lpProps[2].ulPropTag), PT_ERROR) << "no content id";

    const std::pair<ULONG, std::string> contents[] = {
        {static_cast<ULONG>(rows.rows->aRow[0].lpProps[1].Value.l), std::string("\x89PNG\r\n\x1A\n", 8)},
        {static_cast<ULONG>(RowAt(*rows.rows, 1).lpProps[1].Value.l), std::string("%PDF-1.4\n")}};
    for (const auto& [number, bytes] : contents) {
        CComPtr<IAttach> attach;
        ASSERT_EQ(message->OpenAttach(number, nullptr, MAPI_BEST_ACCESS, attach.Put()), S_OK);
        EXPECT_EQ(LongProp(attach.get(), PR_ATTACH_METHOD), static_cast<LONG>(ATTACH_BY_VALUE));
        EXPECT_EQ(LongProp(attach.get(), PR_ATTACH_SIZE), static_cast<LONG>(bytes.size()));
        EXPECT_EQ(StreamProp(attach.get(), PR_ATTACH_DATA_BIN), bytes);
    }
    CComPtr<IAttach> missing;
    EXPECT_EQ(message->OpenAttach(7, nullptr, 0, missing.Put()), MAPI_E_NOT_FOUND);
}

TEST_F(MapiProvider, EmbeddedMessagesAndHtmlOnlyBodies) {
    auto [session, store, inbox] = OpenMain();
    Deliver(m_mainPath, "1700000020.M1P1.host", kEmbeddingMessage);
    Deliver(m_mainPath, "1700000021.M1P1.host", kHtmlOnlyMessage);

    CComPtr<IMessage> outer = FindMessage(store.get(), inbox.get(), "<outer@example.org>");
    ASSERT_TRUE(outer);
    CComPtr<IAttach> attach;
    ASSERT_EQ(outer->OpenAttach(0, nullptr, MAPI_BEST_ACCESS, attach.Put()), S_OK);
    EXPECT_EQ(LongProp(attach.get(), PR_ATTACH_METHOD), static_cast<LONG>(ATTACH_EMBEDDED_MSG));
    LPUNKNOWN unknown = nullptr;
    EXPECT_EQ(attach->OpenProperty(PR_ATTACH_DATA_BIN, &IID_IStream, 0, 0, &unknown), MAPI_E_NOT_FOUND);
    ASSERT_EQ(attach->OpenProperty(PR_ATTACH_DATA_OBJ, &IID_IMessage, 0, 0, &unknown), S_OK);
    CComPtr<IMessage> inner(static_cast<IMessage*>(unknown));
    EXPECT_EQ(WideProp(inner.get(), PR_SUBJECT_W), L"Inner");
    EXPECT_EQ(WideProp(inner.get(), PR_BODY_W), L"inner body")
        << "the line break before a boundary is the boundary's";
    EXPECT_EQ(attach->OpenProperty(PR_ATTACH_DATA_OBJ, &IID_IStorage, 0, 0, &unknown),
              MAPI_E_INTERFACE_NOT_SUPPORTED);

    CComPtr<IMessage> htmlOnly = FindMessage(store.get(), inbox.get(), "<html-only@example.org>");
    ASSERT_TRUE(htmlOnly);
    EXPECT_EQ(WideProp(htmlOnly.get(), PR_BODY_W), L"Erste\u00a0Zeile\r\nZweite & letzte \u20ac\r\n");
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

TEST_F(MapiProvider, BrokenFilesStillAppearAndNothingChangesOnDisk) {
    auto [session, store, inbox] = OpenMain();
    static constexpr char kGarbage[] = "\x00\xFF\xFE binary \x01\x02\nMessage-ID: <garbage@x>\n\n\x00\x00";
    const std::string garbage(kGarbage, sizeof kGarbage - 1);
    Deliver(m_mainPath, "1700000040.M1P1.host", garbage);
    Deliver(m_mainPath, "1700000041.M1P1.host", "");
    Deliver(m_mainPath, "1700000042.M1P1.host",
            "Message-ID: <cut@x>\nContent-Type: multipart/mixed; boundary=z\n\n--z\nContent-Type: "
            "text/plain\n\ncut off in the mid");

    CComPtr<IMAPITable> table;
    ASSERT_EQ(inbox->GetContentsTable(0, table.Put()), S_OK);
    CRowsHolder rows;
    ASSERT_EQ(HrQueryAllRows(table.get(), nullptr, nullptr, nullptr, 0, &rows.rows), S_OK);
    ASSERT_EQ(rows.rows->cRows, 3u);
    for (ULONG r = 0; r < rows.rows->cRows; ++r) {
        const SRow& row = rows.rows->aRow[r];
        CComPtr<IMessage> message = OpenById(store.get(), RowBytes(row, PR_ENTRYID));
        ASSERT_TRUE(message);
        CPropsHolder props;
        EXPECT_TRUE(SUCCEEDED(message->GetProps(nullptr, MAPI_UNICODE, &props.count, &props.values)));
        CComPtr<IMAPITable> attachments;
        EXPECT_EQ(message->GetAttachmentTable(0, attachments.Put()), S_OK);
    }
    CComPtr<IMessage> cut = FindMessage(store.get(), inbox.get(), "<cut@x>");
    ASSERT_TRUE(cut);
    EXPECT_EQ(WideProp(cut.get(), PR_BODY_W), L"cut off in the mid");
    EXPECT_TRUE(fs::exists(m_mainPath / "new" / "1700000040.M1P1.host")) << "reading never moves a file";
}

TEST_F(MapiProvider, ConcurrentReadersOfOneFolder) {
    for (int i = 0; i < 50; ++i)
        Deliver(m_mainPath, "17000001" + std::to_string(100 + i) + ".M1P1.host",
                "Message-ID: <m" + std::to_string(i) + "@x>\nSubject: s\n\nbody\n");
    std::vector<std::thread> threads;
    std::atomic<int> found{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            CComPtr<IMAPISession> session = Logon(L"Arbeit");
            CComPtr<IMsgStore> store = OpenStore(session.get(), 0);
            CComPtr<IMAPIFolder> inbox = Inbox(store.get());
            for (int i = t % 2; i < 50; i += 2)
                if (FindMessage(store.get(), inbox.get(), ("<m" + std::to_string(i) + "@x>").c_str()))
                    ++found;
                else
                    ADD_FAILURE() << "missing <m" << i << "@x> in thread " << t;
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(found.load(), 100);
}

TEST_F(MapiProvider, StoreTableAndStoresNameTheirOwners) {
    WriteFile(m_dir / "owners.ini",
              "[Arbeit]\nstore1.name = Postfach\nstore1.path = main\nstore1.address = me@example.org\n"
              "store2.name = Archiv\nstore2.path = archive\nstore2.address = archive@example.org\n"
              "store2.owner = Anna Archiv\nstore3.name = Ohne\nstore3.path = nobody\n");
    SetEnvironment("VELMAR_MAPI_PROFILES", (m_dir / "owners.ini").string());
    CComPtr<IMAPISession> session = Logon(L"Arbeit");
    ASSERT_TRUE(session);
    CComPtr<IMAPITable> table;
    ASSERT_EQ(session->GetMsgStoresTable(0, table.Put()), S_OK);

    // The owner's columns follow the others, which keep their places.
    LPSPropTagArray rawColumns = nullptr;
    ASSERT_EQ(table->QueryColumns(0, &rawColumns), S_OK);
    const std::vector<ULONG> columns(rawColumns->aulPropTag, rawColumns->aulPropTag + rawColumns->cValues);
    MAPIFreeBuffer(rawColumns);
    EXPECT_EQ(columns, (std::vector<ULONG>{PR_INSTANCE_KEY, PR_ENTRYID, PR_RECORD_KEY, PR_PROVIDER_DISPLAY_W,
                                           PR_DISPLAY_NAME_W, PR_DEFAULT_STORE, PR_MDB_PROVIDER,
                                           PR_RESOURCE_FLAGS, PR_EMAIL_ADDRESS_W, PR_MAILBOX_OWNER_NAME_W}));

    // As the mail layer reads the owners' addresses.
    SizedSPropTagArray(2, wanted) = {2, {PR_DISPLAY_NAME_W, PR_EMAIL_ADDRESS_W}};
    ASSERT_EQ(table->SetColumns(reinterpret_cast<LPSPropTagArray>(&wanted), 0), S_OK);
    CRowsHolder rows;
    ASSERT_EQ(table->QueryRows(10, 0, &rows.rows), S_OK);
    ASSERT_EQ(rows.rows->cRows, 3u);
    for (ULONG r = 0; r < 3; ++r) {
        ASSERT_EQ(rows.rows->aRow[r].cValues, 2u);
        EXPECT_EQ(rows.rows->aRow[r].lpProps[0].ulPropTag, PR_DISPLAY_NAME_W);
    }
    EXPECT_STREQ(rows.rows->aRow[0].lpProps[0].Value.lpszW, L"Postfach");
    EXPECT_EQ(rows.rows->aRow[0].lpProps[1].ulPropTag, PR_EMAIL_ADDRESS_W);
    EXPECT_STREQ(rows.rows->aRow[0].lpProps[1].Value.lpszW, L"me@example.org");
    EXPECT_STREQ(RowAt(*rows.rows, 1).lpProps[1].Value.lpszW, L"archive@example.org");
    EXPECT_EQ(RowAt(*rows.rows, 2).lpProps[1].ulPropTag, CHANGE_PROP_TYPE(PR_EMAIL_ADDRESS_W, PT_ERROR))
        << "a store without an address has none";

    // The owner's name: the profile's, else the address's local part.
    ASSERT_EQ(table->SeekRow(BOOKMARK_BEGINNING, 0, nullptr), S_OK);
    SizedSPropTagArray(1, names) = {1, {PR_MAILBOX_OWNER_NAME_W}};
    ASSERT_EQ(table->SetColumns(reinterpret_cast<LPSPropTagArray>(&names), 0), S_OK);
    CRowsHolder owners;
    ASSERT_EQ(table->QueryRows(10, 0, &owners.rows), S_OK);
    ASSERT_EQ(owners.rows->cRows, 3u);
    EXPECT_EQ(RowText(owners.rows->aRow[0], PR_MAILBOX_OWNER_NAME_W), L"me");
    EXPECT_EQ(RowText(RowAt(*owners.rows, 1), PR_MAILBOX_OWNER_NAME_W), L"Anna Archiv");
    EXPECT_EQ(RowText(RowAt(*owners.rows, 2), PR_MAILBOX_OWNER_NAME_W), L"<error>");

    // The stores themselves say the same.
    const std::pair<const wchar_t*, const wchar_t*> expected[] = {
        {L"me@example.org", L"me"}, {L"archive@example.org", L"Anna Archiv"}, {L"<missing>", L"<missing>"}};
    for (size_t i = 0; i < std::size(expected); ++i) {
        CComPtr<IMsgStore> store = OpenStore(session.get(), i);
        ASSERT_TRUE(store) << i;
        EXPECT_EQ(WideProp(store.get(), PR_EMAIL_ADDRESS_W), expected[i].first) << i;
        EXPECT_EQ(WideProp(store.get(), PR_MAILBOX_OWNER_NAME_W), expected[i].second) << i;
    }
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
