// Our MAPI and the files of its Maildir folders: files renamed by other programs, flag changes that never
// replace a file, two files of one key, links below a store, long header blocks, and header fields read as
// a careful reader reads them.
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

TEST_F(MapiProvider, ReadFlagNeverReplacesAnotherFileOfItsKey) {
    auto [session, store, inbox] = OpenMain();
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
    EXPECT_EQ(ReadFile(m_mainPath / "cur" / "1700000090.M1P1.host:2,"), texts[0]);
    EXPECT_EQ(ReadFile(m_mainPath / "cur" / "1700000090.M1P1.host:2,S"), texts[1]);
    // Which of the two moved@x files ends under which name depends on the order the folder lists them in;
    // that both are there, each with its own content, does not.
    std::multiset<std::string> moved;
    for (const char* sub : {"new", "cur"})
        for (const auto& file : fs::directory_iterator(m_mainPath / sub))
            if (file.path().filename().string().rfind("1700000091.", 0) == 0)
                moved.insert(ReadFile(file.path()));
    EXPECT_EQ(moved, (std::multiset<std::string>{texts[2], texts[3]}));
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

TEST_F(MapiProvider, SymbolicLinksBelowAStoreAreNotFollowed) {
    // Elsewhere: a Maildir folder with messages, an empty folder, a message file.
    const fs::path outside = m_dir / "outside";
    Deliver(outside, "1700000110.M1P1.host", "Message-ID: <outside-new@x>\nSubject: o\n\nbody\n");
    Deliver(outside, "1700000111.M1P1.host:2,S", "Message-ID: <outside-cur@x>\nSubject: o\n\nbody\n", "cur");
    fs::create_directories(outside / "tmp");
    const fs::path empty = m_dir / "empty";
    fs::create_directories(empty);
    WriteFile(m_dir / "linked.eml", "Message-ID: <linked@x>\nSubject: linked\n\nbody\n");
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
    CComPtr<IMAPIFolder> sent = StoreFolder(store.get(), PR_IPM_SENTMAIL_ENTRYID, 0);
    ASSERT_TRUE(sent);
    EXPECT_TRUE(Listing(sent.get()).empty());
    EXPECT_EQ(LongProp(sent.get(), PR_CONTENT_COUNT), 0);
}

// Header fields read as a careful reader reads them, in the message and in the contents table alike:
// adjacent encoded words each decoded on its own, RFC 2231 file names, the white space a subject holds.
TEST_F(MapiProvider, HeaderFieldsAndPartsAsACarefulReaderReadsThem) {
    auto [session, store, inbox] = OpenMain();
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
    EXPECT_EQ(StreamProp(pdf.get(), PR_ATTACH_DATA_BIN), "Hello");
    CComPtr<IAttach> embedded;
    ASSERT_EQ(message->OpenAttach(2, nullptr, 0, embedded.Put()), S_OK);
    EXPECT_EQ(LongProp(embedded.get(), PR_ATTACH_METHOD), static_cast<LONG>(ATTACH_EMBEDDED_MSG));
}

TEST_F(MapiProvider, HeaderFieldsAreFoundAnywhereInALongHeaderBlock) {
    auto [session, store, inbox] = OpenMain();
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
