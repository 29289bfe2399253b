// Our MAPI and the files of its Maildir folders: files renamed by other programs, two files of one key,
// and moves and copies between the folders of one store.
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

TEST_F(MapiProvider, MessageRenamedAfterTheTableWasReadStillHasItsContent) {
    auto [session, store, inbox] = OpenMain();
    Deliver(m_mainPath, "1700000070.M1P1.host", kRichMessage);
    BackdateFolder(m_mainPath);

    const std::vector<CListedMessage> listed = Listing(inbox.get());
    ASSERT_EQ(listed.size(), 1u);
    ASSERT_FALSE(listed[0].entryId.empty());

    // A mail client takes the message to cur/ and marks it read, within the tick the index saw.
    fs::rename(m_mainPath / "new" / "1700000070.M1P1.host", m_mainPath / "cur" / "1700000070.M1P1.host:2,S");
    BackdateFolder(m_mainPath);

    CComPtr<IMessage> message = OpenById(store.get(), listed[0].entryId);
    ASSERT_TRUE(message);
    EXPECT_EQ(WideProp(message.get(), PR_BODY_W), L"Gr\u00fc\u00dfe");
    EXPECT_EQ(LongProp(message.get(), PR_MESSAGE_FLAGS) & MSGFLAG_READ, static_cast<LONG>(MSGFLAG_READ));
    CComPtr<IMAPITable> attachments;
    ASSERT_EQ(message->GetAttachmentTable(0, attachments.Put()), S_OK);
    ULONG count = 0;
    ASSERT_EQ(attachments->GetRowCount(0, &count), S_OK);
    EXPECT_EQ(count, 2u);
    CComPtr<IAttach> pdf;
    ASSERT_EQ(message->OpenAttach(1, nullptr, 0, pdf.Put()), S_OK);
    EXPECT_EQ(StreamProp(pdf.get(), PR_ATTACH_DATA_BIN), "%PDF-1.4\n");
}

TEST_F(MapiProvider, ReadFlagFollowsAFileRenamedAfterItWasOpened) {
    auto [session, store, inbox] = OpenMain();
    Deliver(m_mainPath, "1700000080.M1P1.host", kRichMessage);
    BackdateFolder(m_mainPath);
    CComPtr<IMessage> message = FindMessage(store.get(), inbox.get(), "<rich-1@example.org>");
    ASSERT_TRUE(message);

    // A sync tool takes the message to cur/ and flags it.
    fs::rename(m_mainPath / "new" / "1700000080.M1P1.host", m_mainPath / "cur" / "1700000080.M1P1.host:2,F");
    BackdateFolder(m_mainPath);

    EXPECT_EQ(StreamProp(message.get(), PR_BODY_W).size(), 5 * sizeof(wchar_t))
        << "the body was read when it was opened";
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

TEST_F(MapiProvider, EachFileOfOneKeyIsAMessageOfItsOwn) {
    auto [session, store, inbox] = OpenMain();
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
    EXPECT_EQ(ReadFile(cur / "1700000100.M1P1.host:2,FRS"), firstText);
    EXPECT_EQ(ReadFile(cur / "1700000100.M1P1.host:2,S"), secondText);
    fs::rename(cur / "1700000100.M1P1.host:2,S", cur / "1700000100.M1P1.host:2,ST");
    ASSERT_EQ(second->SetReadFlag(CLEAR_READ_FLAG), S_OK);
    EXPECT_EQ(ReadFile(cur / "1700000100.M1P1.host:2,T"), secondText);
    EXPECT_FALSE(fs::exists(cur / "1700000100.M1P1.host:2,ST"));
    EXPECT_EQ(ReadFile(cur / "1700000100.M1P1.host:2,FRS"), firstText);

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

}  // namespace

namespace {

size_t FilesIn(const fs::path& folder) {
    size_t count = 0;
    for (const char* sub : {"cur", "new"})
        if (fs::exists(folder / sub)) count += std::distance(fs::directory_iterator(folder / sub), {});
    return count;
}

}  // namespace

TEST_F(MapiProvider, MessagesMoveAndCopyBetweenFoldersOfTheirStoreOnly) {
    auto [session, store, inbox] = OpenMain();
    Deliver(m_mainPath, "1700000080.M1P1.host", kRichMessage);
    CComPtr<IMessage> message = FindMessage(store.get(), inbox.get(), "<rich-1@example.org>");
    ASSERT_TRUE(message);
    const std::vector<BYTE> id = BinaryProp(message.get(), PR_ENTRYID);
    SBinary entry{static_cast<ULONG>(id.size()), const_cast<LPBYTE>(id.data())};
    ENTRYLIST list{1, &entry};

    // A copy to the sent items leaves the message where it is.
    CComPtr<IMAPIFolder> sent = StoreFolder(store.get(), PR_IPM_SENTMAIL_ENTRYID);
    EXPECT_EQ(inbox->CopyMessages(&list, nullptr, sent.get(), 0, nullptr, 0), S_OK);
    EXPECT_EQ(FilesIn(m_mainPath / ".Sent"), 1u);
    EXPECT_EQ(FilesIn(m_mainPath), 1u);

    // A move takes the very file, name and all, to the deleted items.
    CComPtr<IMAPIFolder> trash = StoreFolder(store.get(), PR_IPM_WASTEBASKET_ENTRYID);
    EXPECT_EQ(inbox->CopyMessages(&list, nullptr, trash.get(), 0, nullptr, MESSAGE_MOVE), S_OK);
    EXPECT_EQ(FilesIn(m_mainPath), 0u);
    EXPECT_TRUE(fs::exists(m_mainPath / ".Trash" / "new" / "1700000080.M1P1.host"));
    CComPtr<IMAPITable> table;
    ASSERT_EQ(trash->GetContentsTable(0, table.Put()), S_OK);
    ULONG rows = 0;
    ASSERT_EQ(table->GetRowCount(0, &rows), S_OK);
    EXPECT_EQ(rows, 1u);

    // Gone from the inbox now: moved again, nothing is found.
    EXPECT_EQ(inbox->CopyMessages(&list, nullptr, trash.get(), 0, nullptr, MESSAGE_MOVE),
              MAPI_W_PARTIAL_COMPLETION);
    EXPECT_EQ(FilesIn(m_mainPath / ".Trash"), 1u);

    // Another store's folder is declined: that is not this store's to do.
    CComPtr<IMsgStore> archive = OpenStore(session.get(), 1);
    CComPtr<IMAPIFolder> archiveInbox = Inbox(archive.get());
    EXPECT_EQ(trash->CopyMessages(&list, nullptr, archiveInbox.get(), 0, nullptr, MESSAGE_MOVE),
              MAPI_E_DECLINE_COPY);
    EXPECT_EQ(FilesIn(m_archivePath), 0u);
    ULONG status = 7;
    EXPECT_EQ(inbox->GetMessageStatus(static_cast<ULONG>(id.size()), reinterpret_cast<LPENTRYID>(entry.lpb),
                                      0, &status),
              S_OK);
    EXPECT_EQ(status, 0u);
}
