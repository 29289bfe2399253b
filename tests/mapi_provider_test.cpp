// Our MAPI driven as the mail layer drives it: entry points, session, store, folder, table, message and
// attachment interfaces, over Maildir folders these tests write.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "mapix.h"
#include "tests/MapiTestSupport.h"
#include "tests/TestFiles.h"

namespace {

using velmar::CComPtr;
using velmar::test::BinaryProp;
using velmar::test::CPropsHolder;
using velmar::test::CRowsHolder;
using velmar::test::LongProp;
using velmar::test::ReadStream;
using velmar::test::WideProp;
namespace fs = std::filesystem;

constexpr char kRichMessage[] =
    "From: =?ISO-8859-1?Q?J=FCrgen_M=FCller?= <juergen@example.org>\r\n"
    "To: Anna <anna@example.org>, bob@example.org\r\n"
    "Cc: Carl <carl@example.org>\r\n"
    "Bcc: dora@example.org\r\n"
    "Subject: =?UTF-8?B?R3LDvMOfZSBhdXMgS8O2bG4=?=\r\n"
    "Date: Sun, 03 Mar 2024 09:05:00 +0100\r\n"
    "Message-ID: <rich-1@example.org>\r\n"
    "MIME-Version: 1.0\r\n"
    "Content-Type: multipart/mixed; boundary=\"mixed\"\r\n"
    "\r\n"
    "--mixed\r\n"
    "Content-Type: multipart/related; boundary=\"rel\"\r\n"
    "\r\n"
    "--rel\r\n"
    "Content-Type: multipart/alternative; boundary=\"alt\"\r\n"
    "\r\n"
    "--alt\r\n"
    "Content-Type: text/plain; charset=ISO-8859-1\r\n"
    "Content-Transfer-Encoding: quoted-printable\r\n"
    "\r\n"
    "Gr=FC=DFe\r\n"
    "--alt\r\n"
    "Content-Type: text/html; charset=ISO-8859-1\r\n"
    "\r\n"
    "<html><head><meta http-equiv=\"Content-Type\" content=\"text/html; charset=iso-8859-1\"></head>"
    "<body><p>Gr\xFC\xDF"
    "e</p><img src=\"cid:logo@x\"></body></html>\r\n"
    "--alt--\r\n"
    "--rel\r\n"
    "Content-Type: image/png; name=\"logo.png\"\r\n"
    "Content-Transfer-Encoding: base64\r\n"
    "Content-ID: <logo@x>\r\n"
    "Content-Disposition: inline; filename=\"logo.png\"\r\n"
    "\r\n"
    "iVBORw0KGgo=\r\n"
    "--rel--\r\n"
    "--mixed\r\n"
    "Content-Type: application/pdf\r\n"
    "Content-Disposition: attachment; filename*=UTF-8''Rechnung%20M%C3%A4rz.pdf\r\n"
    "Content-Transfer-Encoding: base64\r\n"
    "\r\n"
    "JVBERi0xLjQK\r\n"
    "--mixed--\r\n";

constexpr char kEmbeddingMessage[] =
    "From: outer@example.org\n"
    "Subject: Outer\n"
    "Message-ID: <outer@example.org>\n"
    "MIME-Version: 1.0\n"
    "Content-Type: multipart/mixed; boundary=b\n"
    "\n"
    "--b\n"
    "Content-Type: text/plain\n"
    "\n"
    "see attached\n"
    "--b\n"
    "Content-Type: message/rfc822\n"
    "\n"
    "From: inner@example.org\n"
    "Subject: Inner\n"
    "Message-ID: <inner@example.org>\n"
    "\n"
    "inner body\n"
    "--b--\n";

constexpr char kHtmlOnlyMessage[] =
    "From: html@example.org\n"
    "Subject: HTML only\n"
    "Message-ID: <html-only@example.org>\n"
    "Content-Type: text/html; charset=windows-1252\n"
    "\n"
    "<html><body><style>p {color:red}</style><p>Erste&nbsp;Zeile</p><p>Zweite &amp; letzte "
    "\x80</p></body></html>\n";

// Sets the times of a folder's new/ and cur/ to one second long past, as the index sees them when another
// program renames a file within the same tick of the folder's clock: the index then trusts its old listing.
void BackdateFolder(const fs::path& folder) {
    const timespec past[2] = {{1700000000, 0}, {1700000000, 0}};
    for (const char* sub : {"new", "cur"})
        ASSERT_EQ(utimensat(AT_FDCWD, (folder / sub).c_str(), past, 0), 0) << sub;
}

// The text of a row's value, or "<error>" when the row lacks it.
std::wstring RowText(const SRow& row, ULONG tag) {
    const SPropValue* value = PpropFindProp(row.lpProps, row.cValues, tag);
    return value ? value->Value.lpszW : L"<error>";
}

std::vector<BYTE> RowBytes(const SRow& row, ULONG tag) {
    const SPropValue* value = PpropFindProp(row.lpProps, row.cValues, tag);
    return value ? std::vector<BYTE>(value->Value.bin.lpb, value->Value.bin.lpb + value->Value.bin.cb)
                 : std::vector<BYTE>();
}

// A row of a folder's contents table.
struct CListedMessage {
    std::vector<BYTE> entryId;
    std::vector<BYTE> instanceKey;
    std::wstring subject;
};

// The rows of a folder's contents table in table order, only those of a Message-ID when one is given (the
// restriction the mail layer makes).
std::vector<CListedMessage> Listing(IMAPIFolder* folder, const char* messageId = nullptr) {
    CComPtr<IMAPITable> table;
    EXPECT_EQ(folder->GetContentsTable(0, table.Put()), S_OK);
    SizedSPropTagArray(3, columns) = {3, {PR_ENTRYID, PR_INSTANCE_KEY, PR_SUBJECT_W}};
    EXPECT_EQ(table->SetColumns(reinterpret_cast<LPSPropTagArray>(&columns), 0), S_OK);
    if (messageId) {
        SPropValue value{};
        value.ulPropTag = PR_INTERNET_MESSAGE_ID_A;
        value.Value.lpszA = const_cast<LPSTR>(messageId);
        SRestriction restriction{};
        restriction.rt = RES_PROPERTY;
        restriction.res.resProperty = {RELOP_EQ, PR_INTERNET_MESSAGE_ID_A, &value};
        EXPECT_EQ(table->Restrict(&restriction, 0), S_OK);
    }
    CRowsHolder rows;
    EXPECT_EQ(table->QueryRows(1000, 0, &rows.rows), S_OK);
    std::vector<CListedMessage> listed;
    for (ULONG r = 0; rows.rows && r < rows.rows->cRows; ++r) {
        const SRow& row = rows.rows->aRow[r];
        listed.push_back(
            {RowBytes(row, PR_ENTRYID), RowBytes(row, PR_INSTANCE_KEY), RowText(row, PR_SUBJECT_W)});
    }
    return listed;
}

// Opens a message by its entry id; null when that fails.
CComPtr<IMessage> OpenById(IMsgStore* store, const std::vector<BYTE>& entryId) {
    ULONG type = 0;
    LPUNKNOWN object = nullptr;
    if (FAILED(store->OpenEntry(static_cast<ULONG>(entryId.size()),
                                reinterpret_cast<LPENTRYID>(const_cast<BYTE*>(entryId.data())), nullptr, 0,
                                &type, &object)))
        return CComPtr<IMessage>();
    EXPECT_EQ(type, MAPI_MESSAGE);
    return CComPtr<IMessage>(static_cast<IMessage*>(object));
}

// The contents of every file in a Maildir folder's new/ and cur/.
std::multiset<std::string> MessageFiles(const fs::path& folder) {
    std::multiset<std::string> files;
    for (const char* sub : {"new", "cur"})
        for (const auto& entry : fs::directory_iterator(folder / sub))
            files.insert(velmar::test::ReadFile(entry.path()));
    return files;
}

class MapiProvider : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(MAPIInitialize(nullptr), S_OK);
        m_mainPath = m_dir / "main";
        m_archivePath = m_dir / "archive";
        velmar::test::WriteFile(m_dir / "profiles.ini",
                                "[Arbeit]\n"
                                "store1.name = Postfach\n"
                                "store1.path = main\n"
                                "store1.address = me@example.org\n"
                                "store2.name = Archiv\n"
                                "store2.path = " +
                                    m_archivePath.string() +
                                    "\n"
                                    "store2.address = archive@example.org\n"
                                    "store2.default = yes\n"
                                    "[Privat]\n"
                                    "default = yes\n"
                                    "store1.path = private\n");
        velmar::test::SetEnvironment("VELMAR_MAPI_PROFILES", (m_dir / "profiles.ini").string());
    }
    void TearDown() override { MAPIUninitialize(); }

    CComPtr<IMAPISession> Logon(const wchar_t* profile, ULONG extraFlags = 0) {
        CComPtr<IMAPISession> session;
        const HRESULT hr =
            MAPILogonEx(0, const_cast<LPTSTR>(profile), nullptr,
                        MAPI_UNICODE | MAPI_EXTENDED | MAPI_EXPLICIT_PROFILE | MAPI_NEW_SESSION | extraFlags,
                        session.Put());
        EXPECT_EQ(hr, S_OK);
        return session;
    }

    // The stores of the session's table: display name and entry id, in table order.
    std::vector<std::pair<std::wstring, std::vector<BYTE>>> Stores(IMAPISession* session,
                                                                   LONG* defaultRow = nullptr) {
        CComPtr<IMAPITable> table;
        EXPECT_EQ(session->GetMsgStoresTable(0, table.Put()), S_OK);
        CRowsHolder rows;
        EXPECT_EQ(HrQueryAllRows(table.get(), nullptr, nullptr, nullptr, 0, &rows.rows), S_OK);
        std::vector<std::pair<std::wstring, std::vector<BYTE>>> stores;
        for (ULONG r = 0; r < rows.rows->cRows; ++r) {
            const SRow& row = rows.rows->aRow[r];
            const SPropValue* name = PpropFindProp(row.lpProps, row.cValues, PR_DISPLAY_NAME_W);
            const SPropValue* id = PpropFindProp(row.lpProps, row.cValues, PR_ENTRYID);
            const SPropValue* isDefault = PpropFindProp(row.lpProps, row.cValues, PR_DEFAULT_STORE);
            if (defaultRow && isDefault && isDefault->Value.b) *defaultRow = static_cast<LONG>(r);
            stores.emplace_back(name ? name->Value.lpszW : L"",
                                std::vector<BYTE>(id->Value.bin.lpb, id->Value.bin.lpb + id->Value.bin.cb));
        }
        return stores;
    }

    CComPtr<IMsgStore> OpenStore(IMAPISession* session, size_t index) {
        auto stores = Stores(session);
        CComPtr<IMsgStore> store;
        EXPECT_EQ(session->OpenMsgStore(0, static_cast<ULONG>(stores.at(index).second.size()),
                                        reinterpret_cast<LPENTRYID>(stores.at(index).second.data()), nullptr,
                                        MAPI_BEST_ACCESS, store.Put()),
                  S_OK);
        return store;
    }

    CComPtr<IMAPIFolder> Inbox(IMsgStore* store) {
        ULONG cb = 0;
        LPENTRYID id = nullptr;
        EXPECT_EQ(store->GetReceiveFolder(nullptr, MAPI_UNICODE, &cb, &id, nullptr), S_OK);
        ULONG type = 0;
        LPUNKNOWN folder = nullptr;
        EXPECT_EQ(store->OpenEntry(cb, id, nullptr, MAPI_BEST_ACCESS, &type, &folder), S_OK);
        EXPECT_EQ(type, MAPI_FOLDER);
        MAPIFreeBuffer(id);
        return CComPtr<IMAPIFolder>(static_cast<IMAPIFolder*>(folder));
    }

    // The lookup the mail layer makes: equality on PR_INTERNET_MESSAGE_ID_A, first row, its entry id opened.
    CComPtr<IMessage> FindMessage(IMsgStore* store, IMAPIFolder* folder, const char* messageId) {
        CComPtr<IMAPITable> table;
        EXPECT_EQ(folder->GetContentsTable(0, table.Put()), S_OK);
        SPropValue value{};
        value.ulPropTag = PR_INTERNET_MESSAGE_ID_A;
        value.Value.lpszA = const_cast<LPSTR>(messageId);
        SRestriction restriction{};
        restriction.rt = RES_PROPERTY;
        restriction.res.resProperty = {RELOP_EQ, PR_INTERNET_MESSAGE_ID_A, &value};
        EXPECT_EQ(table->Restrict(&restriction, 0), S_OK);
        CRowsHolder rows;
        EXPECT_EQ(table->QueryRows(1, 0, &rows.rows), S_OK);
        if (!rows.rows || rows.rows->cRows == 0) return CComPtr<IMessage>();
        const SPropValue* id =
            PpropFindProp(rows.rows->aRow[0].lpProps, rows.rows->aRow[0].cValues, PR_ENTRYID);
        EXPECT_NE(id, nullptr);
        ULONG type = 0;
        LPUNKNOWN message = nullptr;
        EXPECT_EQ(store->OpenEntry(id->Value.bin.cb, reinterpret_cast<LPENTRYID>(id->Value.bin.lpb), nullptr,
                                   MAPI_BEST_ACCESS, &type, &message),
                  S_OK);
        EXPECT_EQ(type, MAPI_MESSAGE);
        return CComPtr<IMessage>(static_cast<IMessage*>(message));
    }

    void Deliver(const fs::path& store, const std::string& name, std::string_view text,
                 const char* sub = "new") {
        velmar::test::WriteFile(store / sub / name, text);
    }

    velmar::test::CTempDir m_dir;
    fs::path m_mainPath;
    fs::path m_archivePath;
};

TEST_F(MapiProvider, ProfilesAndLogon) {
    CComPtr<IProfAdmin> admin;
    ASSERT_EQ(MAPIAdminProfiles(0, admin.Put()), S_OK);
    CComPtr<IMAPITable> table;
    ASSERT_EQ(admin->GetProfileTable(0, table.Put()), S_OK);
    CRowsHolder rows;
    ASSERT_EQ(HrQueryAllRows(table.get(), nullptr, nullptr, nullptr, 0, &rows.rows), S_OK);
    ASSERT_EQ(rows.rows->cRows, 2u);
    EXPECT_STREQ(rows.rows->aRow[0].lpProps[0].Value.lpszW, L"Arbeit");
    EXPECT_STREQ(velmar::test::RowAt(*rows.rows, 1).lpProps[0].Value.lpszW, L"Privat");
    // Only the default profile's row carries PR_DEFAULT_PROFILE; the other reads as an error value.
    EXPECT_EQ(rows.rows->aRow[0].lpProps[1].ulPropTag, CHANGE_PROP_TYPE(PR_DEFAULT_PROFILE, PT_ERROR));
    EXPECT_EQ(velmar::test::RowAt(*rows.rows, 1).lpProps[1].ulPropTag, PR_DEFAULT_PROFILE);

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
    ULONG type = 0;
    LPUNKNOWN object = nullptr;
    ASSERT_EQ(session->OpenEntry(static_cast<ULONG>(outbox.size()),
                                 reinterpret_cast<LPENTRYID>(const_cast<BYTE*>(outbox.data())), nullptr,
                                 MAPI_BEST_ACCESS, &type, &object),
              S_OK);
    CComPtr<IMAPIFolder> folder(static_cast<IMAPIFolder*>(object));
    EXPECT_EQ(type, MAPI_FOLDER);
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

TEST_F(MapiProvider, EmbeddedDefaultProfileCreatesItsStore) {
    velmar::test::SetEnvironment("VELMAR_MAPI_PROFILES", (m_dir / "none.ini").string());
    velmar::test::SetEnvironment("XDG_DATA_HOME", (m_dir / "data").string());
    CComPtr<IMAPISession> session = Logon(L"Velmar");
    ASSERT_TRUE(session);
    const auto stores = Stores(session.get());
    ASSERT_EQ(stores.size(), 1u);
    EXPECT_EQ(stores[0].first, L"Postfach");
    CComPtr<IMsgStore> store = OpenStore(session.get(), 0);
    ASSERT_TRUE(store);
    EXPECT_TRUE(fs::is_directory(m_dir / "data" / "velmar-mapi" / "Maildir" / "new"));
}

TEST_F(MapiProvider, LookupByMessageIdSeesNewDeliveries) {
    CComPtr<IMAPISession> session = Logon(L"Arbeit");
    CComPtr<IMsgStore> store = OpenStore(session.get(), 0);
    CComPtr<IMAPIFolder> inbox = Inbox(store.get());
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
    CComPtr<IMAPISession> session = Logon(L"Arbeit");
    CComPtr<IMsgStore> store = OpenStore(session.get(), 0);
    CComPtr<IMAPIFolder> inbox = Inbox(store.get());
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
    LPUNKNOWN unknown = nullptr;
    ASSERT_EQ(message->OpenProperty(PR_HTML, &IID_IStream, 0, 0, &unknown), S_OK);
    CComPtr<IStream> html(static_cast<IStream*>(unknown));
    const std::string htmlText = ReadStream(html.get());
    EXPECT_NE(htmlText.find("<p>Gr\xC3\xBC\xC3\x9F"
                            "e</p>"),
              std::string::npos)
        << htmlText;
    EXPECT_NE(htmlText.find("charset=utf-8"), std::string::npos) << htmlText;
    EXPECT_EQ(htmlText.find("iso-8859-1"), std::string::npos) << htmlText;
    ASSERT_EQ(message->OpenProperty(PR_BODY_W, &IID_IStream, 0, 0, &unknown), S_OK);
    CComPtr<IStream> body(static_cast<IStream*>(unknown));
    const std::string bodyBytes = ReadStream(body.get());
    EXPECT_EQ(
        std::wstring(reinterpret_cast<const wchar_t*>(bodyBytes.data()), bodyBytes.size() / sizeof(wchar_t)),
        L"Gr\u00fc\u00dfe");
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
    CComPtr<IMAPISession> session = Logon(L"Arbeit");
    CComPtr<IMsgStore> store = OpenStore(session.get(), 0);
    CComPtr<IMAPIFolder> inbox = Inbox(store.get());
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
    EXPECT_STREQ(velmar::test::RowAt(*rows.rows, 1).lpProps[0].Value.lpszW, L"Rechnung M\u00e4rz.pdf");
    EXPECT_EQ(PROP_TYPE(velmar::test::RowAt(*rows.rows, 1).lpProps[2].ulPropTag), PT_ERROR)
        << "no content id";

    const std::pair<ULONG, std::string> contents[] = {
        {static_cast<ULONG>(rows.rows->aRow[0].lpProps[1].Value.l), std::string("\x89PNG\r\n\x1A\n", 8)},
        {static_cast<ULONG>(velmar::test::RowAt(*rows.rows, 1).lpProps[1].Value.l),
         std::string("%PDF-1.4\n")}};
    for (const auto& [number, bytes] : contents) {
        CComPtr<IAttach> attach;
        ASSERT_EQ(message->OpenAttach(number, nullptr, MAPI_BEST_ACCESS, attach.Put()), S_OK);
        EXPECT_EQ(LongProp(attach.get(), PR_ATTACH_METHOD), static_cast<LONG>(ATTACH_BY_VALUE));
        EXPECT_EQ(LongProp(attach.get(), PR_ATTACH_SIZE), static_cast<LONG>(bytes.size()));
        LPUNKNOWN unknown = nullptr;
        ASSERT_EQ(attach->OpenProperty(PR_ATTACH_DATA_BIN, &IID_IStream, 0, 0, &unknown), S_OK);
        CComPtr<IStream> stream(static_cast<IStream*>(unknown));
        EXPECT_EQ(ReadStream(stream.get()), bytes);
    }
    CComPtr<IAttach> missing;
    EXPECT_EQ(message->OpenAttach(7, nullptr, 0, missing.Put()), MAPI_E_NOT_FOUND);
}

TEST_F(MapiProvider, EmbeddedMessagesAndHtmlOnlyBodies) {
    CComPtr<IMAPISession> session = Logon(L"Arbeit");
    CComPtr<IMsgStore> store = OpenStore(session.get(), 0);
    CComPtr<IMAPIFolder> inbox = Inbox(store.get());
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
    EXPECT_EQ(WideProp(htmlOnly.get(), PR_BODY_W), L"Erste\u00a0Zeile\nZweite & letzte \u20ac\n");
}

TEST_F(MapiProvider, ReadFlagRenamesTheFileAndKeepsTheEntryId) {
    CComPtr<IMAPISession> session = Logon(L"Arbeit");
    CComPtr<IMsgStore> store = OpenStore(session.get(), 0);
    CComPtr<IMAPIFolder> inbox = Inbox(store.get());
    Deliver(m_mainPath, "1700000030.M1P1.host", "Message-ID: <r@x>\nSubject: read me\n\nbody\n");
    CComPtr<IMessage> message = FindMessage(store.get(), inbox.get(), "<r@x>");
    ASSERT_TRUE(message);
    const std::vector<BYTE> entryId = BinaryProp(message.get(), PR_ENTRYID);

    ASSERT_EQ(message->SetReadFlag(0), S_OK);
    EXPECT_TRUE(fs::exists(m_mainPath / "cur" / "1700000030.M1P1.host:2,S"));
    EXPECT_FALSE(fs::exists(m_mainPath / "new" / "1700000030.M1P1.host"));
    EXPECT_EQ(LongProp(message.get(), PR_MESSAGE_FLAGS) & MSGFLAG_READ, static_cast<LONG>(MSGFLAG_READ));

    ULONG type = 0;
    LPUNKNOWN reopened = nullptr;
    ASSERT_EQ(store->OpenEntry(static_cast<ULONG>(entryId.size()),
                               reinterpret_cast<LPENTRYID>(const_cast<BYTE*>(entryId.data())), nullptr, 0,
                               &type, &reopened),
              S_OK)
        << "the entry id survives the rename";
    CComPtr<IMessage> again(static_cast<IMessage*>(reopened));
    EXPECT_EQ(LongProp(again.get(), PR_MESSAGE_FLAGS) & MSGFLAG_READ, static_cast<LONG>(MSGFLAG_READ));
    ASSERT_EQ(again->SetReadFlag(CLEAR_READ_FLAG), S_OK);
    EXPECT_TRUE(fs::exists(m_mainPath / "cur" / "1700000030.M1P1.host:2,"));
}

TEST_F(MapiProvider, BrokenFilesStillAppearAndNothingChangesOnDisk) {
    CComPtr<IMAPISession> session = Logon(L"Arbeit");
    CComPtr<IMsgStore> store = OpenStore(session.get(), 0);
    CComPtr<IMAPIFolder> inbox = Inbox(store.get());
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
        const SPropValue* id = PpropFindProp(row.lpProps, row.cValues, PR_ENTRYID);
        ASSERT_NE(id, nullptr);
        ULONG type = 0;
        LPUNKNOWN object = nullptr;
        ASSERT_EQ(store->OpenEntry(id->Value.bin.cb, reinterpret_cast<LPENTRYID>(id->Value.bin.lpb), nullptr,
                                   0, &type, &object),
                  S_OK);
        CComPtr<IMessage> message(static_cast<IMessage*>(object));
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
    velmar::test::WriteFile(m_dir / "owners.ini",
                            "[Arbeit]\n"
                            "store1.name = Postfach\n"
                            "store1.path = main\n"
                            "store1.address = me@example.org\n"
                            "store2.name = Archiv\n"
                            "store2.path = archive\n"
                            "store2.address = archive@example.org\n"
                            "store2.owner = Anna Archiv\n"
                            "store3.name = Ohne\n"
                            "store3.path = nobody\n");
    velmar::test::SetEnvironment("VELMAR_MAPI_PROFILES", (m_dir / "owners.ini").string());
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
    EXPECT_STREQ(velmar::test::RowAt(*rows.rows, 1).lpProps[1].Value.lpszW, L"archive@example.org");
    EXPECT_EQ(velmar::test::RowAt(*rows.rows, 2).lpProps[1].ulPropTag,
              CHANGE_PROP_TYPE(PR_EMAIL_ADDRESS_W, PT_ERROR))
        << "a store without an address has none";

    // The owner's name: the profile's, else the address's local part.
    ASSERT_EQ(table->SeekRow(BOOKMARK_BEGINNING, 0, nullptr), S_OK);
    SizedSPropTagArray(1, names) = {1, {PR_MAILBOX_OWNER_NAME_W}};
    ASSERT_EQ(table->SetColumns(reinterpret_cast<LPSPropTagArray>(&names), 0), S_OK);
    CRowsHolder owners;
    ASSERT_EQ(table->QueryRows(10, 0, &owners.rows), S_OK);
    ASSERT_EQ(owners.rows->cRows, 3u);
    EXPECT_EQ(RowText(owners.rows->aRow[0], PR_MAILBOX_OWNER_NAME_W), L"me");
    EXPECT_EQ(RowText(velmar::test::RowAt(*owners.rows, 1), PR_MAILBOX_OWNER_NAME_W), L"Anna Archiv");
    EXPECT_EQ(RowText(velmar::test::RowAt(*owners.rows, 2), PR_MAILBOX_OWNER_NAME_W), L"<error>");

    // The stores themselves say the same.
    CComPtr<IMsgStore> mine = OpenStore(session.get(), 0);
    ASSERT_TRUE(mine);
    EXPECT_EQ(WideProp(mine.get(), PR_EMAIL_ADDRESS_W), L"me@example.org");
    EXPECT_EQ(WideProp(mine.get(), PR_MAILBOX_OWNER_NAME_W), L"me");
    CComPtr<IMsgStore> archive = OpenStore(session.get(), 1);
    ASSERT_TRUE(archive);
    EXPECT_EQ(WideProp(archive.get(), PR_EMAIL_ADDRESS_W), L"archive@example.org");
    EXPECT_EQ(WideProp(archive.get(), PR_MAILBOX_OWNER_NAME_W), L"Anna Archiv");
    CComPtr<IMsgStore> nobody = OpenStore(session.get(), 2);
    ASSERT_TRUE(nobody);
    EXPECT_EQ(WideProp(nobody.get(), PR_EMAIL_ADDRESS_W), L"<missing>");
}

TEST_F(MapiProvider, EmbeddedProfileOwnerIsTheUser) {
    velmar::test::SetEnvironment("VELMAR_MAPI_PROFILES", (m_dir / "none.ini").string());
    velmar::test::SetEnvironment("XDG_DATA_HOME", (m_dir / "data").string());
    velmar::test::SetEnvironment("USER", "maria");
    CComPtr<IMAPISession> session = Logon(L"Velmar");
    ASSERT_TRUE(session);
    CComPtr<IMsgStore> store = OpenStore(session.get(), 0);
    ASSERT_TRUE(store);
    EXPECT_EQ(WideProp(store.get(), PR_EMAIL_ADDRESS_W), L"maria@localhost");
    EXPECT_EQ(WideProp(store.get(), PR_MAILBOX_OWNER_NAME_W), L"maria");
}

TEST_F(MapiProvider, ContentsTableValuesSortAndRestrict) {
    CComPtr<IMAPISession> session = Logon(L"Arbeit");
    CComPtr<IMsgStore> store = OpenStore(session.get(), 0);
    CComPtr<IMAPIFolder> inbox = Inbox(store.get());
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
    const SRow& beta = velmar::test::RowAt(*rows.rows, 1);
    EXPECT_EQ(RowText(beta, PR_INTERNET_MESSAGE_ID_W), L"<b@x>") << "8-bit ids read as wide strings";
    EXPECT_EQ(beta.lpProps[2].Value.l, static_cast<LONG>(MSGFLAG_READ)) << "the file has the S flag";
    EXPECT_EQ(velmar::test::RowAt(*rows.rows, 2).lpProps[2].Value.l, 0);
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

TEST_F(MapiProvider, MessageRenamedAfterTheTableWasReadStillHasItsContent) {
    CComPtr<IMAPISession> session = Logon(L"Arbeit");
    CComPtr<IMsgStore> store = OpenStore(session.get(), 0);
    CComPtr<IMAPIFolder> inbox = Inbox(store.get());
    Deliver(m_mainPath, "1700000070.M1P1.host", kRichMessage);
    BackdateFolder(m_mainPath);

    CComPtr<IMAPITable> table;
    ASSERT_EQ(inbox->GetContentsTable(0, table.Put()), S_OK);
    CRowsHolder rows;
    ASSERT_EQ(table->QueryRows(1, 0, &rows.rows), S_OK);
    ASSERT_EQ(rows.rows->cRows, 1u);
    const SPropValue* id = PpropFindProp(rows.rows->aRow[0].lpProps, rows.rows->aRow[0].cValues, PR_ENTRYID);
    ASSERT_NE(id, nullptr);

    // A mail client takes the message to cur/ and marks it read, within the tick the index saw.
    fs::rename(m_mainPath / "new" / "1700000070.M1P1.host", m_mainPath / "cur" / "1700000070.M1P1.host:2,S");
    BackdateFolder(m_mainPath);

    ULONG type = 0;
    LPUNKNOWN object = nullptr;
    ASSERT_EQ(store->OpenEntry(id->Value.bin.cb, reinterpret_cast<LPENTRYID>(id->Value.bin.lpb), nullptr, 0,
                               &type, &object),
              S_OK);
    CComPtr<IMessage> message(static_cast<IMessage*>(object));
    EXPECT_EQ(WideProp(message.get(), PR_BODY_W), L"Gr\u00fc\u00dfe");
    EXPECT_EQ(LongProp(message.get(), PR_MESSAGE_FLAGS) & MSGFLAG_READ, static_cast<LONG>(MSGFLAG_READ));
    CComPtr<IMAPITable> attachments;
    ASSERT_EQ(message->GetAttachmentTable(0, attachments.Put()), S_OK);
    ULONG count = 0;
    ASSERT_EQ(attachments->GetRowCount(0, &count), S_OK);
    EXPECT_EQ(count, 2u);
    CComPtr<IAttach> pdf;
    ASSERT_EQ(message->OpenAttach(1, nullptr, 0, pdf.Put()), S_OK);
    LPUNKNOWN unknown = nullptr;
    ASSERT_EQ(pdf->OpenProperty(PR_ATTACH_DATA_BIN, &IID_IStream, 0, 0, &unknown), S_OK);
    CComPtr<IStream> bytes(static_cast<IStream*>(unknown));
    EXPECT_EQ(ReadStream(bytes.get()), "%PDF-1.4\n");
}

TEST_F(MapiProvider, ReadFlagFollowsAFileRenamedAfterItWasOpened) {
    CComPtr<IMAPISession> session = Logon(L"Arbeit");
    CComPtr<IMsgStore> store = OpenStore(session.get(), 0);
    CComPtr<IMAPIFolder> inbox = Inbox(store.get());
    Deliver(m_mainPath, "1700000080.M1P1.host", kRichMessage);
    BackdateFolder(m_mainPath);
    CComPtr<IMessage> message = FindMessage(store.get(), inbox.get(), "<rich-1@example.org>");
    ASSERT_TRUE(message);

    // A sync tool takes the message to cur/ and flags it.
    fs::rename(m_mainPath / "new" / "1700000080.M1P1.host", m_mainPath / "cur" / "1700000080.M1P1.host:2,F");
    BackdateFolder(m_mainPath);

    LPUNKNOWN unknown = nullptr;
    ASSERT_EQ(message->OpenProperty(PR_BODY_W, &IID_IStream, 0, 0, &unknown), S_OK);
    CComPtr<IStream> body(static_cast<IStream*>(unknown));
    EXPECT_EQ(ReadStream(body.get()).size(), 5 * sizeof(wchar_t)) << "the body was read when it was opened";
    ASSERT_EQ(message->SetReadFlag(0), S_OK);
    EXPECT_TRUE(fs::exists(m_mainPath / "cur" / "1700000080.M1P1.host:2,FS")) << "its flag is kept";
    EXPECT_FALSE(fs::exists(m_mainPath / "cur" / "1700000080.M1P1.host:2,F"));
    EXPECT_FALSE(fs::exists(m_mainPath / "new" / "1700000080.M1P1.host"));
    EXPECT_EQ(LongProp(message.get(), PR_MESSAGE_FLAGS) & MSGFLAG_READ, static_cast<LONG>(MSGFLAG_READ));

    // Through the folder, on a file renamed once more.
    fs::rename(m_mainPath / "cur" / "1700000080.M1P1.host:2,FS",
               m_mainPath / "cur" / "1700000080.M1P1.host:2,S");
    const std::vector<BYTE> entryId = BinaryProp(message.get(), PR_ENTRYID);
    SBinary entry{static_cast<ULONG>(entryId.size()), const_cast<BYTE*>(entryId.data())};
    ENTRYLIST list{1, &entry};
    EXPECT_EQ(inbox->SetReadFlags(&list, 0, nullptr, CLEAR_READ_FLAG), S_OK);
    EXPECT_TRUE(fs::exists(m_mainPath / "cur" / "1700000080.M1P1.host:2,"));
    EXPECT_EQ(message->SetReadFlag(0), S_OK) << "the object's own name is stale again";
    EXPECT_TRUE(fs::exists(m_mainPath / "cur" / "1700000080.M1P1.host:2,S"));
}

TEST_F(MapiProvider, ReadFlagNeverReplacesAnotherFileOfItsKey) {
    CComPtr<IMAPISession> session = Logon(L"Arbeit");
    CComPtr<IMsgStore> store = OpenStore(session.get(), 0);
    CComPtr<IMAPIFolder> inbox = Inbox(store.get());
    // Two files of one key, as a sync tool or a crash leaves them: the names a flag change gives one of
    // them are taken by the other, in cur/ and on the way from new/ to cur/.
    const std::string texts[] = {"Message-ID: <twin@x>\nSubject: unread twin\n\nfirst\n",
                                 "Message-ID: <twin@x>\nSubject: read twin\n\nsecond\n",
                                 "Message-ID: <moved@x>\nSubject: new twin\n\nthird\n",
                                 "Message-ID: <moved@x>\nSubject: twin in cur\n\nfourth\n"};
    Deliver(m_mainPath, "1700000090.M1P1.host:2,", texts[0], "cur");
    Deliver(m_mainPath, "1700000090.M1P1.host:2,S", texts[1], "cur");
    Deliver(m_mainPath, "1700000091.M1P1.host", texts[2]);
    Deliver(m_mainPath, "1700000091.M1P1.host:2,S", texts[3], "cur");

    const std::vector<CListedMessage> listed = Listing(inbox.get());
    ASSERT_FALSE(listed.empty());
    for (const CListedMessage& row : listed) {
        CComPtr<IMessage> message = OpenById(store.get(), row.entryId);
        ASSERT_TRUE(message);
        EXPECT_EQ(message->SetReadFlag(0), S_OK);
        EXPECT_EQ(message->SetReadFlag(CLEAR_READ_FLAG), S_OK);
    }
    EXPECT_EQ(MessageFiles(m_mainPath), std::multiset<std::string>(std::begin(texts), std::end(texts)))
        << "every file is still there with its content";
    EXPECT_EQ(velmar::test::ReadFile(m_mainPath / "cur" / "1700000090.M1P1.host:2,"), texts[0]);
    EXPECT_EQ(velmar::test::ReadFile(m_mainPath / "cur" / "1700000090.M1P1.host:2,S"), texts[1]);
    EXPECT_EQ(velmar::test::ReadFile(m_mainPath / "cur" / "1700000091.M1P1.host:2,S"), texts[3]);
}

TEST_F(MapiProvider, EachFileOfOneKeyIsAMessageOfItsOwn) {
    CComPtr<IMAPISession> session = Logon(L"Arbeit");
    CComPtr<IMsgStore> store = OpenStore(session.get(), 0);
    CComPtr<IMAPIFolder> inbox = Inbox(store.get());
    const fs::path cur = m_mainPath / "cur";
    const std::string firstText = "Message-ID: <same@x>\nSubject: first copy\n\nfirst\n";
    const std::string secondText = "Message-ID: <same@x>\nSubject: second copy\n\nsecond\n";
    Deliver(m_mainPath, "1700000100.M1P1.host:2,F", firstText, "cur");
    Deliver(m_mainPath, "1700000100.M1P1.host:2,S", secondText, "cur");
    Deliver(m_mainPath, "1700000101.M1P1.host", "Message-ID: <other@x>\nSubject: other\n\nbody\n");

    const std::vector<CListedMessage> before = Listing(inbox.get(), "<same@x>");
    ASSERT_EQ(before.size(), 2u) << "both files are found by their Message-ID";
    EXPECT_NE(before[0].entryId, before[1].entryId);
    EXPECT_NE(before[0].instanceKey, before[1].instanceKey);
    EXPECT_EQ(std::set<std::wstring>({before[0].subject, before[1].subject}),
              std::set<std::wstring>({L"first copy", L"second copy"}));
    EXPECT_EQ(Listing(inbox.get()).size(), 3u);

    // Each entry id opens its own file.
    CComPtr<IMessage> first;
    CComPtr<IMessage> second;
    for (const CListedMessage& row : before) {
        CComPtr<IMessage> message = OpenById(store.get(), row.entryId);
        ASSERT_TRUE(message);
        EXPECT_EQ(WideProp(message.get(), PR_SUBJECT_W), row.subject);
        EXPECT_EQ(BinaryProp(message.get(), PR_ENTRYID), row.entryId);
        (row.subject == L"first copy" ? first : second) = std::move(message);
    }
    ASSERT_TRUE(first && second);

    // A flag change acts on the message's own file, also when another program renamed it meanwhile.
    fs::rename(cur / "1700000100.M1P1.host:2,F", cur / "1700000100.M1P1.host:2,FR");
    ASSERT_EQ(first->SetReadFlag(0), S_OK);
    EXPECT_EQ(velmar::test::ReadFile(cur / "1700000100.M1P1.host:2,FRS"), firstText);
    EXPECT_EQ(velmar::test::ReadFile(cur / "1700000100.M1P1.host:2,S"), secondText);
    fs::rename(cur / "1700000100.M1P1.host:2,S", cur / "1700000100.M1P1.host:2,ST");
    ASSERT_EQ(second->SetReadFlag(CLEAR_READ_FLAG), S_OK);
    EXPECT_EQ(velmar::test::ReadFile(cur / "1700000100.M1P1.host:2,T"), secondText);
    EXPECT_FALSE(fs::exists(cur / "1700000100.M1P1.host:2,ST"));
    EXPECT_EQ(velmar::test::ReadFile(cur / "1700000100.M1P1.host:2,FRS"), firstText);

    // The renamed files are the same two messages, in the same order, under the same entry ids.
    const std::vector<CListedMessage> after = Listing(inbox.get(), "<same@x>");
    ASSERT_EQ(after.size(), 2u);
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(after[i].entryId, before[i].entryId) << i;
        EXPECT_EQ(after[i].subject, before[i].subject) << i;
    }
    for (const CListedMessage& row : before) {
        CComPtr<IMessage> again = OpenById(store.get(), row.entryId);
        ASSERT_TRUE(again);
        EXPECT_EQ(WideProp(again.get(), PR_SUBJECT_W), row.subject);
    }

    // Two names of one file (a move by link() and unlink() under way) are one message, under its id.
    const std::vector<CListedMessage> other = Listing(inbox.get(), "<other@x>");
    ASSERT_EQ(other.size(), 1u);
    fs::create_hard_link(m_mainPath / "new" / "1700000101.M1P1.host", cur / "1700000101.M1P1.host:2,S");
    EXPECT_EQ(Listing(inbox.get()).size(), 3u);
    const std::vector<CListedMessage> linked = Listing(inbox.get(), "<other@x>");
    ASSERT_EQ(linked.size(), 1u);
    EXPECT_EQ(linked[0].entryId, other[0].entryId);

    // When one copy goes, the other still opens by its entry id; the gone one's opens nothing.
    fs::remove(cur / "1700000100.M1P1.host:2,T");
    const std::vector<BYTE>& firstId =
        before[0].subject == L"first copy" ? before[0].entryId : before[1].entryId;
    const std::vector<BYTE>& secondId =
        before[0].subject == L"first copy" ? before[1].entryId : before[0].entryId;
    CComPtr<IMessage> remaining = OpenById(store.get(), firstId);
    ASSERT_TRUE(remaining);
    EXPECT_EQ(WideProp(remaining.get(), PR_SUBJECT_W), L"first copy");
    EXPECT_FALSE(OpenById(store.get(), secondId));
    EXPECT_EQ(Listing(inbox.get(), "<same@x>").size(), 1u);
}

TEST_F(MapiProvider, SymbolicLinksBelowAStoreAreNotFollowed) {
    // Elsewhere: a Maildir folder with messages, an empty folder, a message file.
    const fs::path outside = m_dir / "outside";
    Deliver(outside, "1700000110.M1P1.host", "Message-ID: <outside-new@x>\nSubject: o\n\nbody\n");
    Deliver(outside, "1700000111.M1P1.host:2,S", "Message-ID: <outside-cur@x>\nSubject: o\n\nbody\n", "cur");
    fs::create_directories(outside / "tmp");
    const fs::path empty = m_dir / "empty";
    fs::create_directories(empty);
    velmar::test::WriteFile(m_dir / "linked.eml", "Message-ID: <linked@x>\nSubject: linked\n\nbody\n");
    // The store links to them: its new/, its .Sent and .Trash folders, and one message file.
    fs::create_directories(m_mainPath / "cur");
    fs::create_directories(m_mainPath / "tmp");
    fs::create_directory_symlink(outside / "new", m_mainPath / "new");
    fs::create_directory_symlink(outside, m_mainPath / ".Sent");
    fs::create_directory_symlink(empty, m_mainPath / ".Trash");
    fs::create_symlink(m_dir / "linked.eml", m_mainPath / "cur" / "1700000112.M1P1.host:2,");
    Deliver(m_mainPath, "1700000113.M1P1.host:2,S", "Message-ID: <inside@x>\nSubject: inside\n\nbody\n",
            "cur");

    CComPtr<IMAPISession> session = Logon(L"Arbeit");
    CComPtr<IMsgStore> store = OpenStore(session.get(), 0);
    ASSERT_TRUE(store);
    EXPECT_TRUE(fs::is_empty(empty)) << "nothing is made through a link";
    EXPECT_TRUE(fs::is_symlink(m_mainPath / "new"));

    CComPtr<IMAPIFolder> inbox = Inbox(store.get());
    const std::vector<CListedMessage> listed = Listing(inbox.get());
    ASSERT_EQ(listed.size(), 1u) << "only the message file inside the store";
    EXPECT_EQ(listed[0].subject, L"inside");
    EXPECT_FALSE(FindMessage(store.get(), inbox.get(), "<outside-new@x>"));
    EXPECT_FALSE(FindMessage(store.get(), inbox.get(), "<linked@x>"));

    // Linked folders are no subfolders of the inbox; the sent folder opens but lists nothing.
    CComPtr<IMAPITable> hierarchy;
    ASSERT_EQ(inbox->GetHierarchyTable(0, hierarchy.Put()), S_OK);
    CRowsHolder folders;
    ASSERT_EQ(HrQueryAllRows(hierarchy.get(), nullptr, nullptr, nullptr, 0, &folders.rows), S_OK);
    ASSERT_EQ(folders.rows->cRows, 1u);
    EXPECT_EQ(RowText(folders.rows->aRow[0], PR_DISPLAY_NAME_W), L"Outbox");
    const std::vector<BYTE> sentId = BinaryProp(store.get(), PR_IPM_SENTMAIL_ENTRYID);
    ULONG type = 0;
    LPUNKNOWN object = nullptr;
    ASSERT_EQ(store->OpenEntry(static_cast<ULONG>(sentId.size()),
                               reinterpret_cast<LPENTRYID>(const_cast<BYTE*>(sentId.data())), nullptr, 0,
                               &type, &object),
              S_OK);
    CComPtr<IMAPIFolder> sent(static_cast<IMAPIFolder*>(object));
    EXPECT_TRUE(Listing(sent.get()).empty());
    EXPECT_EQ(LongProp(sent.get(), PR_CONTENT_COUNT), 0);
}

// Header fields read as a careful reader reads them, in the message and in the contents table alike:
// adjacent encoded words each decoded on its own, RFC 2231 file names, the white space a subject holds.
TEST_F(MapiProvider, HeaderFieldsAndPartsAsACarefulReaderReadsThem) {
    CComPtr<IMAPISession> session = Logon(L"Arbeit");
    CComPtr<IMsgStore> store = OpenStore(session.get(), 0);
    CComPtr<IMAPIFolder> inbox = Inbox(store.get());
    const std::string words = "=?UTF-8?B?SGVsbG8=?= =?UTF-8?B?IFdvcmxk?=";
    Deliver(m_mainPath, "1700000130.M1P1.host",
            "From: " + words + " <a@example.org>\n" + "Subject: " + words +
                "\nMessage-ID: <careful@x>\nMIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=b\n\n"
                "--b\nContent-Type: text/plain; charset=utf-8\n\ntext\n"
                "--b\nContent-Type: application/pdf\nContent-Disposition: attachment;\n"
                " filename*0*=UTF-8''Gr%C3%BC; filename*1*=%C3%9Fe;\n filename*2=\".pdf\"\n"
                "Content-Transfer-Encoding: base64\n\nSGVsbG8\n"
                "--b\nContent-Type: application/octet-stream; name*0=\"=?UTF-8?B?SGVsbG8=?= =?UTF-8\";\n"
                " name*1=\"?B?IFdvcmxk?=.bin\"\n\nbytes\n"
                "--b\nContent-Type: message/rfc822; name=\"Fwd.eml\"\n\nSubject: " +
                words + "\n\ninner\n--b--\n");
    Deliver(m_mainPath, "1700000131.M1P1.host",
            "Message-ID: <spaces@x>\nSubject:  =?UTF-8?Q?_leading?= and trailing  \n\nbody\n");

    const std::vector<CListedMessage> listed = Listing(inbox.get(), "<careful@x>");
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0].subject, L"Hello World") << "the table's subject, from the index";
    ASSERT_EQ(Listing(inbox.get(), "<spaces@x>").size(), 1u);
    EXPECT_EQ(Listing(inbox.get(), "<spaces@x>")[0].subject, L" leading and trailing  ");
    CComPtr<IMessage> spaces = FindMessage(store.get(), inbox.get(), "<spaces@x>");
    ASSERT_TRUE(spaces);
    EXPECT_EQ(WideProp(spaces.get(), PR_SUBJECT_W), L" leading and trailing  ");

    CComPtr<IMessage> message = FindMessage(store.get(), inbox.get(), "<careful@x>");
    ASSERT_TRUE(message);
    EXPECT_EQ(WideProp(message.get(), PR_SUBJECT_W), L"Hello World");
    EXPECT_EQ(WideProp(message.get(), PR_SENDER_NAME_W), L"Hello World");
    EXPECT_EQ(WideProp(message.get(), PR_SENT_REPRESENTING_NAME_W), L"Hello World");

    const std::pair<std::wstring, std::wstring> names[] = {{L"Gr\u00fc\u00dfe.pdf", L"Gr\u00fc\u00dfe.pdf"},
                                                           {L"Hello World.bin", L"Hello World.bin"},
                                                           {L"Fwd.eml", L"Hello World"}};
    for (ULONG number = 0; number < 3; ++number) {
        CComPtr<IAttach> attach;
        ASSERT_EQ(message->OpenAttach(number, nullptr, 0, attach.Put()), S_OK);
        EXPECT_EQ(WideProp(attach.get(), PR_ATTACH_LONG_FILENAME_W), names[number].first) << number;
        EXPECT_EQ(WideProp(attach.get(), PR_DISPLAY_NAME_W), names[number].second) << number;
    }
    CComPtr<IAttach> pdf;
    ASSERT_EQ(message->OpenAttach(0, nullptr, 0, pdf.Put()), S_OK);
    EXPECT_EQ(LongProp(pdf.get(), PR_ATTACH_SIZE), 5) << "base64 without its padding loses no byte";
    LPUNKNOWN unknown = nullptr;
    ASSERT_EQ(pdf->OpenProperty(PR_ATTACH_DATA_BIN, &IID_IStream, 0, 0, &unknown), S_OK);
    CComPtr<IStream> data(static_cast<IStream*>(unknown));
    EXPECT_EQ(ReadStream(data.get()), "Hello");
    CComPtr<IAttach> embedded;
    ASSERT_EQ(message->OpenAttach(2, nullptr, 0, embedded.Put()), S_OK);
    EXPECT_EQ(LongProp(embedded.get(), PR_ATTACH_METHOD), static_cast<LONG>(ATTACH_EMBEDDED_MSG));
}

TEST_F(MapiProvider, HeaderFieldsAreFoundAnywhereInALongHeaderBlock) {
    CComPtr<IMAPISession> session = Logon(L"Arbeit");
    CComPtr<IMsgStore> store = OpenStore(session.get(), 0);
    CComPtr<IMAPIFolder> inbox = Inbox(store.get());
    // 300 KB of trace lines before the Message-ID and the subject.
    std::string trace;
    while (trace.size() < 300 * 1024)
        trace += "Received: from relay" + std::to_string(trace.size()) +
                 ".example.org by mx.example.org; Mon, 1 Jan 2024 10:00:00 +0000\n";
    Deliver(m_mainPath, "1700000120.M1P1.host", trace + "Subject: late\nMessage-ID: <late@x>\n\nbody\n");
    // A folded Message-ID in CRLF lines, starting at and around the points where a file is read in pieces.
    int count = 0;
    for (const size_t boundary : {size_t{8192}, size_t{16384}, size_t{65536}}) {
        for (const size_t offset : {boundary - 13, boundary - 11, boundary - 2, boundary - 1, boundary}) {
            std::string filler;
            while (filler.size() + 100 < offset) filler += "X-Filler: " + std::string(80, 'f') + "\r\n";
            filler += "X-Last: " + std::string(offset - filler.size() - 10, 'l') + "\r\n";
            const std::string id = "<edge-" + std::to_string(count) + "@x>";
            Deliver(m_mainPath, "1700000121.M" + std::to_string(count) + "P1.host",
                    filler + "Message-ID:\r\n " + id + "\r\nSubject: edge\r\n " + std::to_string(count) +
                        "\r\n\r\nbody\r\n");
            ASSERT_EQ(filler.size(), offset);
            CComPtr<IMessage> edge = FindMessage(store.get(), inbox.get(), id.c_str());
            ASSERT_TRUE(edge) << id;
            ++count;
        }
    }
    CComPtr<IMessage> late = FindMessage(store.get(), inbox.get(), "<late@x>");
    ASSERT_TRUE(late);
    EXPECT_EQ(WideProp(late.get(), PR_SUBJECT_W), L"late");
    const std::vector<CListedMessage> lateRows = Listing(inbox.get(), "<late@x>");
    ASSERT_EQ(lateRows.size(), 1u);
    EXPECT_EQ(lateRows[0].subject, L"late") << "the table's subject, from the index";
    const std::vector<CListedMessage> edges = Listing(inbox.get(), "<edge-3@x>");
    ASSERT_EQ(edges.size(), 1u);
    EXPECT_EQ(edges[0].subject, L"edge 3") << "folded lines are unfolded";

    // Header lines beyond 16 MB are not read, but the message is still listed with what came before.
    std::string huge = "Subject: huge\n";
    while (huge.size() < 17 * 1024 * 1024) huge += "X-Filler: " + std::string(1000, 'h') + "\n";
    Deliver(m_mainPath, "1700000122.M1P1.host", huge + "Message-ID: <huge@x>\n\nbody\n");
    EXPECT_FALSE(FindMessage(store.get(), inbox.get(), "<huge@x>"));
    const std::vector<CListedMessage> all = Listing(inbox.get());
    EXPECT_EQ(all.size(), static_cast<size_t>(count) + 2);
    EXPECT_EQ(std::count_if(all.begin(), all.end(),
                            [](const CListedMessage& row) { return row.subject == L"huge"; }),
              1);
}

}  // namespace
