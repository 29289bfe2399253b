// Our MAPI's write side: a message made with CreateMessage, filled through SetProps, ModifyRecipients,
// CreateAttach and property streams, kept as a draft by SaveChanges and read back from its file as the same
// message; ResolveName in the address book.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <optional>
#include <tuple>

#include "tests/MapiProviderFixture.h"

namespace {

using namespace velmar::test;
using velmar::CComPtr;
namespace fs = std::filesystem;

class MapiWrite : public CMapiProviderTest {
protected:
    static void Write(IMAPIProp* object, ULONG tag, const void* bytes, size_t size) {
        LPUNKNOWN opened = nullptr;
        ASSERT_EQ(object->OpenProperty(tag, &IID_IStream, STGM_CREATE | STGM_WRITE, MAPI_CREATE | MAPI_MODIFY,
                                       &opened),
                  S_OK);
        CComPtr<IStream> stream(static_cast<IStream*>(opened));
        ULONG written = 0;
        ASSERT_EQ(stream->Write(bytes, static_cast<ULONG>(size), &written), S_OK);
        ASSERT_EQ(stream->Commit(0), S_OK);
    }
    // One entry of an address list, in MAPI buffers as ModifyRecipients and ResolveName take it.
    static LPADRLIST OneEntry(const wchar_t* name, LONG type, std::optional<LONG> rowId = std::nullopt) {
        LPVOID list = nullptr;
        MAPIAllocateBuffer(CbNewADRLIST(1), &list);
        std::memset(list, 0, CbNewADRLIST(1));
        LPVOID values = nullptr;
        MAPIAllocateBuffer(3 * sizeof(SPropValue), &values);
        auto* entry = &static_cast<LPADRLIST>(list)->aEntries[0];
        entry->rgPropVals = static_cast<LPSPropValue>(values);
        entry->cValues = rowId ? 3 : 2;
        entry->rgPropVals[0].ulPropTag = PR_DISPLAY_NAME_W;
        entry->rgPropVals[0].Value.lpszW = const_cast<LPWSTR>(name);
        entry->rgPropVals[1].ulPropTag = PR_RECIPIENT_TYPE;
        entry->rgPropVals[1].Value.l = type;
        if (rowId) {
            entry->rgPropVals[2].ulPropTag = PR_ROWID;
            entry->rgPropVals[2].Value.l = *rowId;
        }
        static_cast<LPADRLIST>(list)->cEntries = 1;
        return static_cast<LPADRLIST>(list);
    }
    static void AddrBookResolve(IMAPISession* session, LPADRLIST list) {
        CComPtr<IAddrBook> book;
        ASSERT_EQ(session->OpenAddressBook(0, nullptr, 0, book.Put()), S_OK);
        EXPECT_EQ(book->ResolveName(0, MAPI_UNICODE, nullptr, list), S_OK);
    }
};

TEST_F(MapiWrite, ADraftIsSavedInItsFolderAndReadsBackAsTheSameMessage) {
    auto [session, store, inbox] = OpenMain();
    CComPtr<IMessage> message;
    ASSERT_EQ(inbox->CreateMessage(nullptr, 0, message.Put()), S_OK);
    SetWideProp(message.get(), PR_SUBJECT_W, L"Entwurf \u00fcber alles");
    SetWideProp(message.get(), PR_MESSAGE_CLASS_W, L"IPM.Note");
    SetWideProp(message.get(), PR_COMMENT_W, L"wieder weg");
    SizedSPropTagArray(1, comment) = {1, {PR_COMMENT_W}};
    ASSERT_EQ(message->DeleteProps(reinterpret_cast<LPSPropTagArray>(&comment), nullptr), S_OK);
    EXPECT_EQ(WideProp(message.get(), PR_COMMENT_W), L"<missing>");
    EXPECT_EQ(WideProp(message.get(), PR_SUBJECT_W), L"Entwurf \u00fcber alles");

    // Recipients: added, one changed by its row id, one removed.
    for (auto [name, type] : {std::pair{L"Erste <first@example.org>", MAPI_TO},
                              {L"cc@example.org", MAPI_CC},
                              {L"weg@example.org", MAPI_BCC}}) {
        LPADRLIST list = OneEntry(name, type);
        AddrBookResolve(session.get(), list);
        ASSERT_EQ(message->ModifyRecipients(MODRECIP_ADD, list), S_OK);
        FreePadrlist(list);
    }
    LPADRLIST changed = OneEntry(L"bcc@example.org", MAPI_BCC, 1);
    AddrBookResolve(session.get(), changed);
    EXPECT_EQ(message->ModifyRecipients(MODRECIP_MODIFY, changed), S_OK);
    FreePadrlist(changed);
    LPADRLIST removed = OneEntry(L"", MAPI_BCC, 2);
    EXPECT_EQ(message->ModifyRecipients(MODRECIP_REMOVE, removed), S_OK);
    FreePadrlist(removed);
    EXPECT_EQ(
        RecipientRows(message.get()),
        (std::vector<std::wstring>{L"Erste|1|first@example.org", L"bcc@example.org|3|bcc@example.org"}));

    // Bodies through streams, the RTF one compressed by its wrapper.
    const std::wstring body = L"Text mit \u00e4\r\n";
    Write(message.get(), PR_BODY_W, body.data(), body.size() * sizeof(wchar_t));
    const std::string html = "<html><body><p>HTML \xc3\xa4</p><img src=\"cid:bild1\"></body></html>";
    Write(message.get(), PR_HTML, html.data(), html.size());

    // An attachment, its data written through a stream, and one referenced by the HTML.
    const std::string bytes("PDF\x00\x01\xff", 6);
    for (auto [name, contentId, data] : {std::tuple{L"Bericht.pdf", L"", bytes},
                                         std::tuple{L"bild.png", L"bild1", std::string("\x89PNG")}}) {
        CComPtr<IAttach> attach;
        ULONG number = 0;
        ASSERT_EQ(message->CreateAttach(nullptr, 0, &number, attach.Put()), S_OK);
        SetWideProp(attach.get(), PR_ATTACH_FILENAME_W, name);
        SetWideProp(attach.get(), PR_ATTACH_CONTENT_ID_W, contentId);
        Write(attach.get(), PR_ATTACH_DATA_BIN, data.data(), data.size());
        ASSERT_EQ(attach->SaveChanges(0), S_OK);
    }
    const auto drafts = [&] {
        std::vector<fs::path> files;
        for (const auto& entry : fs::directory_iterator(m_mainPath / "cur")) files.push_back(entry.path());
        return files;
    };
    ASSERT_EQ(message->SaveChanges(KEEP_OPEN_READWRITE), S_OK);
    SetWideProp(message.get(), PR_SUBJECT_W, L"Entwurf, zweite Fassung");
    ASSERT_EQ(message->SaveChanges(KEEP_OPEN_READWRITE), S_OK);
    EXPECT_TRUE(drafts().empty()) << "saves kept open are written once the file is wanted";

    // Asked for its entry id, the message is written: one draft file, the second version, flagged D.
    LPSPropValue entryId = nullptr;
    ASSERT_EQ(HrGetOneProp(message.get(), PR_ENTRYID, &entryId), S_OK);
    ASSERT_EQ(drafts().size(), 1u);
    EXPECT_NE(drafts()[0].filename().string().find(":2,D"), std::string::npos);
    const std::string file = ReadFile(drafts()[0]);
    EXPECT_NE(file.find("multipart/related"), std::string::npos) << "the image the HTML names";
    EXPECT_NE(file.find("multipart/alternative"), std::string::npos);
    EXPECT_NE(file.find("zweite Fassung"), std::string::npos);
    CComPtr<IMessage> reread =
        OpenById(store.get(),
                 std::vector<BYTE>(entryId->Value.bin.lpb, entryId->Value.bin.lpb + entryId->Value.bin.cb));
    MAPIFreeBuffer(entryId);
    ASSERT_TRUE(reread);
    EXPECT_EQ(WideProp(reread.get(), PR_SUBJECT_W), L"Entwurf, zweite Fassung");
    EXPECT_EQ(WideProp(reread.get(), PR_BODY_W), body);
    EXPECT_EQ(RecipientRows(reread.get()), (std::vector<std::wstring>{L"Erste|1|first@example.org",
                                                                      L"bcc@example.org|3|bcc@example.org"}));
    LPSPropValue htmlValue = nullptr;
    ASSERT_EQ(HrGetOneProp(reread.get(), PR_HTML, &htmlValue), S_OK);
    const std::string htmlRead(reinterpret_cast<char*>(htmlValue->Value.bin.lpb), htmlValue->Value.bin.cb);
    MAPIFreeBuffer(htmlValue);
    EXPECT_NE(htmlRead.find("<p>HTML \xc3\xa4</p>"), std::string::npos);

    CComPtr<IMAPITable> attachments;
    ASSERT_EQ(reread->GetAttachmentTable(MAPI_UNICODE, attachments.Put()), S_OK);
    CRowsHolder rows;
    ASSERT_EQ(HrQueryAllRows(attachments.get(), nullptr, nullptr, nullptr, 0, &rows.rows), S_OK);
    ASSERT_EQ(rows.rows->cRows, 2u);
    std::vector<std::wstring> names;
    for (ULONG r = 0; r < rows.rows->cRows; ++r)
        names.push_back(RowText(rows.rows->aRow[r], PR_ATTACH_LONG_FILENAME_W) + L"|" +
                        RowText(rows.rows->aRow[r], PR_ATTACH_CONTENT_ID_W));
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::wstring>{L"Bericht.pdf|<error>", L"bild.png|bild1"}));

    // Saved again and released: the new version replaces the file. A last save (not kept open) writes at
    // once; a message never saved leaves nothing.
    SetWideProp(message.get(), PR_SUBJECT_W, L"Entwurf, dritte Fassung");
    ASSERT_EQ(message->SaveChanges(KEEP_OPEN_READONLY), S_OK);
    message.Reset();
    ASSERT_EQ(drafts().size(), 1u) << "a draft saved again replaces its file";
    EXPECT_NE(ReadFile(drafts()[0]).find("dritte Fassung"), std::string::npos);
    CComPtr<IMessage> closing;
    ASSERT_EQ(inbox->CreateMessage(nullptr, 0, closing.Put()), S_OK);
    SetWideProp(closing.get(), PR_SUBJECT_W, L"Zuletzt");
    ASSERT_EQ(closing->SaveChanges(0), S_OK);
    EXPECT_EQ(drafts().size(), 2u);
    CComPtr<IMessage> unsaved;
    ASSERT_EQ(inbox->CreateMessage(nullptr, 0, unsaved.Put()), S_OK);
    SetWideProp(unsaved.get(), PR_SUBJECT_W, L"Verworfen");
    unsaved.Reset();
    EXPECT_EQ(drafts().size(), 2u);
}

TEST_F(MapiWrite, ResolveNameKnowsAddressesOwnersAndContacts) {
    WriteFile(m_dir / "profiles.ini",
              "[Arbeit]\nstore1.name = Postfach\nstore1.path = main\nstore1.address = me@example.org\n"
              "store1.owner = Maria Muster\ncontact1.name = Anna Beispiel\n"
              "contact1.address = anna@example.org\ncontact2.name = Doppelt\ncontact2.address = a@x\n"
              "contact3.name = doppelt\ncontact3.address = b@x\n");
    CComPtr<IMAPISession> session = Logon(L"Arbeit");
    const std::pair<const wchar_t*, const wchar_t*> cases[] = {
        {L"plain@example.org", L"plain@example.org|plain@example.org"},
        {L"Hans Wurst <hans@example.org>", L"Hans Wurst|hans@example.org"},
        {L"maria muster", L"Maria Muster|me@example.org"},
        {L"Anna Beispiel", L"Anna Beispiel|anna@example.org"},
        {L"Doppelt", L"<unresolved>"},
        {L"Niemand", L"<unresolved>"}};
    CComPtr<IAddrBook> book;
    ASSERT_EQ(session->OpenAddressBook(0, nullptr, 0, book.Put()), S_OK);
    for (const auto& [text, expected] : cases) {
        LPADRLIST list = OneEntry(text, MAPI_TO);
        const HRESULT hr = book->ResolveName(0, MAPI_UNICODE, nullptr, list);
        const ADRENTRY& entry = list->aEntries[0];
        const SPropValue* address = PpropFindProp(entry.rgPropVals, entry.cValues, PR_EMAIL_ADDRESS_W);
        const SPropValue* name = PpropFindProp(entry.rgPropVals, entry.cValues, PR_DISPLAY_NAME_W);
        const SPropValue* type = PpropFindProp(entry.rgPropVals, entry.cValues, PR_RECIPIENT_TYPE);
        const std::wstring got =
            address ? std::wstring(name->Value.lpszW) + L"|" + address->Value.lpszW : L"<unresolved>";
        EXPECT_EQ(got, expected) << text;
        EXPECT_EQ(hr, address ? S_OK : MAPI_E_NOT_FOUND) << text;
        ASSERT_NE(type, nullptr) << "the entry's own values stay";
        EXPECT_EQ(type->Value.l, MAPI_TO);
        if (address) {
            EXPECT_NE(PpropFindProp(entry.rgPropVals, entry.cValues, PR_ENTRYID), nullptr)
                << "a one-off entry id";
        }
        FreePadrlist(list);
    }
}

}  // namespace
