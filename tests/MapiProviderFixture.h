// Our MAPI over Maildir folders the tests write: the fixture (a profile file and its stores) and the
// helpers the provider tests share.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "harness/TestFiles.h"
#include "mapix.h"
#include "tests/MapiTestSupport.h"

namespace velmar::test {

using velmar::CComPtr;
namespace fs = std::filesystem;

inline constexpr char kRichMessage[] =
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

// Sets the times of a folder's new/ and cur/ to one second long past, as the index sees them when another
// program renames a file within the same tick of the folder's clock: the index then trusts its old listing.
inline void BackdateFolder(const fs::path& folder) {
    const timespec past[2] = {{1700000000, 0}, {1700000000, 0}};
    for (const char* sub : {"new", "cur"})
        ASSERT_EQ(utimensat(AT_FDCWD, (folder / sub).c_str(), past, 0), 0) << sub;
}

// The text of a row's value, or "<error>" when the row lacks it.
inline std::wstring RowText(const SRow& row, ULONG tag) {
    const SPropValue* value = PpropFindProp(row.lpProps, row.cValues, tag);
    return value ? value->Value.lpszW : L"<error>";
}

inline std::vector<BYTE> RowBytes(const SRow& row, ULONG tag) {
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
inline std::vector<CListedMessage> Listing(IMAPIFolder* folder, const char* messageId = nullptr) {
    CComPtr<IMAPITable> table;
    EXPECT_EQ(folder->GetContentsTable(0, table.Put()), S_OK);
    SizedSPropTagArray(3, columns) = {3, {PR_ENTRYID, PR_INSTANCE_KEY, PR_SUBJECT_W}};
    EXPECT_EQ(table->SetColumns(reinterpret_cast<LPSPropTagArray>(&columns), 0), S_OK);
    if (messageId) {
        EXPECT_EQ(table->Restrict(CMessageIdRestriction(messageId).Get(), 0), S_OK);
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
inline CComPtr<IMessage> OpenById(IMsgStore* store, const std::vector<BYTE>& entryId) {
    return OpenEntryAs<IMessage>(store, entryId, 0, MAPI_MESSAGE);
}

// Opens the store's folder whose entry id the store keeps in idTag (PR_IPM_OUTBOX_ENTRYID, say).
inline CComPtr<IMAPIFolder> StoreFolder(IMsgStore* store, ULONG idTag, ULONG flags = MAPI_MODIFY) {
    CComPtr<IMAPIFolder> folder =
        OpenEntryAs<IMAPIFolder>(store, BinaryProp(store, idTag), flags, MAPI_FOLDER);
    EXPECT_TRUE(folder) << "folder of tag " << std::hex << idTag;
    return folder;
}

inline void SetWideProp(IMAPIProp* object, ULONG tag, const wchar_t* text) {
    SPropValue value{};
    value.ulPropTag = tag;
    value.Value.lpszW = const_cast<LPWSTR>(text);
    ASSERT_EQ(object->SetProps(1, &value, nullptr), S_OK);
}

// A message's recipient table, each row as "name|type|address".
inline std::vector<std::wstring> RecipientRows(IMessage* message) {
    CComPtr<IMAPITable> table;
    EXPECT_EQ(message->GetRecipientTable(MAPI_UNICODE, table.Put()), S_OK);
    CRowsHolder rows;
    EXPECT_EQ(HrQueryAllRows(table.get(), nullptr, nullptr, nullptr, 0, &rows.rows), S_OK);
    std::vector<std::wstring> lines;
    for (ULONG r = 0; r < rows.rows->cRows; ++r) {
        const SRow& row = rows.rows->aRow[r];
        const SPropValue* type = PpropFindProp(row.lpProps, row.cValues, PR_RECIPIENT_TYPE);
        lines.push_back(RowText(row, PR_DISPLAY_NAME_W) + L"|" + std::to_wstring(type ? type->Value.l : -1) +
                        L"|" + RowText(row, PR_EMAIL_ADDRESS_W));
    }
    return lines;
}

// The contents of every file in a Maildir folder's new/ and cur/.
inline std::multiset<std::string> MessageFiles(const fs::path& folder) {
    std::multiset<std::string> files;
    for (const char* sub : {"new", "cur"})
        for (const auto& entry : fs::directory_iterator(folder / sub))
            files.insert(velmar::test::ReadFile(entry.path()));
    return files;
}

class CMapiProviderTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(MAPIInitialize(nullptr), S_OK);
        m_mainPath = m_dir / "main";
        m_archivePath = m_dir / "archive";
        velmar::test::WriteFile(
            m_dir / "profiles.ini",
            "[Arbeit]\nstore1.name = Postfach\nstore1.path = main\nstore1.address = me@example.org\n"
            "store2.name = Archiv\nstore2.path = " +
                m_archivePath.string() +
                "\nstore2.address = archive@example.org\nstore2.default = yes\n"
                "[Privat]\ndefault = yes\nstore1.path = private\n");
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

    // The session of profile Arbeit, its first store (Postfach) and that store's inbox.
    struct CMain {
        CComPtr<IMAPISession> session;
        CComPtr<IMsgStore> store;
        CComPtr<IMAPIFolder> inbox;
    };
    CMain OpenMain() {
        CMain main;
        main.session = Logon(L"Arbeit");
        main.store = OpenStore(main.session.get(), 0);
        main.inbox = Inbox(main.store.get());
        return main;
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
        EXPECT_EQ(table->Restrict(CMessageIdRestriction(messageId).Get(), 0), S_OK);
        CRowsHolder rows;
        EXPECT_EQ(table->QueryRows(1, 0, &rows.rows), S_OK);
        if (!rows.rows || rows.rows->cRows == 0) return CComPtr<IMessage>();
        const std::vector<BYTE> id = RowBytes(rows.rows->aRow[0], PR_ENTRYID);
        EXPECT_FALSE(id.empty());
        CComPtr<IMessage> message = OpenEntryAs<IMessage>(store, id, MAPI_BEST_ACCESS, MAPI_MESSAGE);
        EXPECT_TRUE(message);
        return message;
    }

    void Deliver(const fs::path& store, const std::string& name, std::string_view text,
                 const char* sub = "new") {
        velmar::test::WriteFile(store / sub / name, text);
    }

    velmar::test::CTempDir m_dir;
    fs::path m_mainPath;
    fs::path m_archivePath;
};

}  // namespace velmar::test
