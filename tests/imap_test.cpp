// The IMAP side of our MAPI against a real Dovecot: connections (STARTTLS, implicit TLS, a pre-authenticated
// tunnel) and the sentences their refusals give; the store's sync: an index kept current by IDLE, the
// folders of the roles found or made, the read flag, moves and appends on the server, a changed UIDVALIDITY,
// and an index and cached messages that serve a restart while the server is away.
#include <unistd.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <thread>

#include "harness/DovecotServer.h"
#include "harness/TestFiles.h"
#include "mapi/imap/ImapConnection.h"
#include "mapi/imap/ImapMailboxName.h"
#include "mapi/imap/ImapMessageParts.h"
#include "mapi/imap/ImapSync.h"
#include "mapi/mime/MimeContent.h"
#include "mapitags.h"
#include "support/Utf8.h"

namespace {

using namespace velmar::mapi;
using namespace velmar::test;
namespace fs = std::filesystem;

std::string Mail(const std::string& id, const std::string& subject, const std::string& body = "Hallo.") {
    return "From: Berta <berta@example.org>\r\nTo: anna@example.org\r\nSubject: " + subject +
           "\r\nMessage-ID: " + id + "\r\nDate: Tue, 24 Nov 2026 10:00:00 +0100\r\n\r\n" + body + "\r\n";
}

std::string WithLargeAttachment(const std::string& id, const std::string& base64) {
    return "From: berta@example.org\r\nSubject: Heil\r\nMessage-ID: " + id +
           "\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=\"b\"\r\n\r\n"
           "--b\r\nContent-Type: text/plain\r\n\r\nHallo\r\n"
           "--b\r\nContent-Type: application/octet-stream; name=\"daten.bin\"\r\n"
           "Content-Transfer-Encoding: base64\r\n\r\n" +
           base64 + "\r\n--b--\r\n";
}

bool Eventually(const std::function<bool()>& condition, int milliseconds = 15000) {
    for (int waited = 0; waited < milliseconds; waited += 20) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return condition();
}

// Folder names as the server writes them, for people: RFC 3501's examples, a character beyond the BMP, and
// what is not modified UTF-7 left as written.
TEST(ImapMailboxName, ModifiedUtf7ReadsAsItsCharacters) {
    EXPECT_EQ(DecodeMailboxName("Entw&APw-rfe"), L"Entw\u00FCrfe");
    EXPECT_EQ(DecodeMailboxName("~peter/mail/&U,BTFw-/&ZeVnLIqe-"),
              L"~peter/mail/\u53F0\u5317/\u65E5\u672C\u8A9E");
    EXPECT_EQ(DecodeMailboxName("Tom &- Jerry"), L"Tom & Jerry");
    EXPECT_EQ(DecodeMailboxName("&2D3eAA-"), L"\U0001F600");
    EXPECT_EQ(DecodeMailboxName("Rechnungen &2D3-"), L"Rechnungen &2D3-") << "a surrogate alone";
    EXPECT_EQ(DecodeMailboxName("A&B!-C"), L"A&B!-C") << "not base64";
    EXPECT_EQ(DecodeMailboxName("offen &APw"), L"offen &APw") << "never shifted back";
    EXPECT_EQ(DecodeMailboxName("a&AAA-b"), L"a&AAA-b") << "ASCII is never shifted";
    EXPECT_EQ(DecodeMailboxName("&APwA-"), L"&APwA-") << "a whole base64 character of padding";
    EXPECT_EQ(DecodeMailboxName("Gr\xC3\xBC\xC3\x9F"), L"Gr\u00FC\u00DF")
        << "UTF-8 of a server that sends it";
}

class ImapTest : public ::testing::Test {
protected:
    virtual EDovecotFlavour Flavour() const { return EDovecotFlavour::Standard; }

    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "the private Dovecot runs as root";
        m_server.emplace(m_dir / "dovecot", std::vector<std::string>{"anna"}, Flavour());
        ASSERT_TRUE(m_server->Ready()) << ReadFile(m_dir / "dovecot/dovecot.log");
        SetEnvironment("XDG_CACHE_HOME", (m_dir / "cache").string());
        // A password written in the profile counts only in a file nobody else can read.
        WriteFile(m_dir / "profiles.ini", "[Velmar]\n");
        fs::permissions(m_dir / "profiles.ini", fs::perms::owner_read | fs::perms::owner_write);
        SetEnvironment("VELMAR_MAPI_PROFILES", (m_dir / "profiles.ini").string());
    }
    void TearDown() override { CImapSync::StopAll(); }

    CImapAccount StartTls() const {
        CImapAccount account;
        account.host = "localhost";
        account.port = static_cast<std::uint16_t>(m_server->Port());
        account.url = "imap://localhost:" + std::to_string(m_server->Port());
        account.user = "anna";
        account.password = "geheim";
        account.caFile = m_server->CaFile().string();
        return account;
    }
    CStoreConfig Store(const CImapAccount& account) const {
        CStoreConfig store;
        store.displayName = L"Firma";
        store.path = (m_dir / "local").string();
        store.id = 0x1234;
        store.imap = account;
        return store;
    }

    // Whether the sync's inbox lists that many messages within a while.
    static bool InboxHolds(const std::shared_ptr<CImapSync>& sync, size_t rows) {
        return Eventually([&] {
            const auto snapshot = sync->Snapshot("INBOX");
            return snapshot && snapshot->RowCount() == rows;
        });
    }

    CTempDir m_dir;
    std::optional<CDovecotServer> m_server;
};

TEST_F(ImapTest, StartTlsImplicitTlsAndATunnelReadTheSameMailbox) {
    m_server->Deliver("anna", "INBOX", Mail("<eins@example.org>", "=?UTF-8?Q?Gr=C3=BC=C3=9Fe?="));
    const std::string second = Mail("<zwei@example.org>", "Zweite", "Der Text der zweiten.");
    // Received an hour after its Date field says it was written.
    m_server->Deliver("anna", "INBOX", second, "S", 1795514400);
    CImapAccount implicit = StartTls();
    implicit.port = static_cast<std::uint16_t>(m_server->TlsPort());
    implicit.implicitTls = true;
    CImapAccount tunnel;
    tunnel.tunnel = m_server->Tunnel("anna");
    tunnel.host = "localhost";
    for (const CImapAccount& account : {StartTls(), implicit, tunnel}) {
        SCOPED_TRACE(account.tunnel.empty() ? std::to_string(account.port) : "tunnel");
        CImapConnection connection;
        std::string error;
        ASSERT_TRUE(connection.Open(account, "geheim", error)) << error;
        std::vector<CImapMailbox> mailboxes;
        ASSERT_TRUE(connection.List(mailboxes, error)) << error;
        EXPECT_TRUE(std::any_of(mailboxes.begin(), mailboxes.end(),
                                [](const CImapMailbox& m) { return m.name == "INBOX"; }));
        CImapMailboxState state;
        ASSERT_TRUE(connection.Select("INBOX", state, error)) << error;
        EXPECT_EQ(state.exists, 2u);
        EXPECT_NE(state.uidValidity, 0u);
        EXPECT_NE(state.highestModSeq, 0u) << "Dovecot keeps modification sequences (CONDSTORE)";
        std::vector<CImapHeaderRow> rows;
        ASSERT_TRUE(connection.FetchHeaders(
            1, [&](CImapHeaderRow&& row) { rows.push_back(row); }, error));
        ASSERT_EQ(rows.size(), 2u);
        EXPECT_EQ(rows[0].messageId, "<eins@example.org>");
        EXPECT_EQ(rows[0].subjectField, " =?UTF-8?Q?Gr=C3=BC=C3=9Fe?=");
        EXPECT_EQ(rows[0].flags & kImapSeen, 0u);
        EXPECT_EQ(rows[1].flags & kImapSeen, static_cast<std::uint32_t>(kImapSeen));
        std::vector<CImapDetailsRow> details;
        ASSERT_TRUE(connection.FetchDetails(
            rows[1].uid, [&](const CImapDetailsRow& row) { details.push_back(row); }, error));
        ASSERT_EQ(details.size(), 1u);
        EXPECT_EQ(details[0].uid, rows[1].uid);
        EXPECT_EQ(details[0].internalDate, 1795514400) << "24-Nov-2026 11:00:00 +0100";
        EXPECT_EQ(details[0].size, second.size());
        std::int64_t internalDate = 0;
        ASSERT_TRUE(connection.FetchInternalDate(rows[1].uid, internalDate, error)) << error;
        EXPECT_EQ(internalDate, 1795514400) << "one message's alone";
        EXPECT_FALSE(connection.FetchInternalDate(rows[1].uid + 100, internalDate, error));
        std::string bytes;
        ASSERT_TRUE(connection.FetchMessage(rows[1].uid, bytes, error)) << error;
        EXPECT_NE(bytes.find("Der Text der zweiten."), std::string::npos);
        EXPECT_FALSE(connection.FetchMessage(rows[1].uid + 100, bytes, error));
    }
}

TEST_F(ImapTest, RefusalsSaySentencesAndNothingGoesOutUnverified) {
    std::string error;
    CImapConnection connection;
    CImapAccount wrong = StartTls();
    EXPECT_FALSE(connection.Open(wrong, "falsch", error));
    EXPECT_NE(error.find("Anmeldung von anna an localhost"), std::string::npos) << error;

    // The private CA is not in the system's store: the certificate is refused before the password goes.
    CImapAccount untrusted = StartTls();
    untrusted.caFile.clear();
    EXPECT_FALSE(connection.Open(untrusted, "geheim", error));
    EXPECT_NE(error.find("Zertifikat von localhost nicht vertrauenswürdig"), std::string::npos) << error;
    EXPECT_EQ(
        CommandOutput("grep -c 'Login: user=<anna>' '" + (m_dir / "dovecot/dovecot.log").string() + "'"),
        "0\n");

    // A certificate for another name is refused too.
    CImapAccount otherName = StartTls();
    otherName.host = "127.0.0.1";
    EXPECT_TRUE(connection.Open(otherName, "geheim", error))
        << "the certificate names 127.0.0.1 too: " << error;
    otherName.host = "127.0.0.2";
    EXPECT_FALSE(connection.Open(otherName, "geheim", error));

    m_server->Stop();
    EXPECT_FALSE(connection.Open(StartTls(), "geheim", error));
    EXPECT_NE(error.find("Verbindung zu localhost:" + std::to_string(m_server->Port())), std::string::npos)
        << error;
}

TEST_F(ImapTest, TheSyncKeepsTheIndexCurrentAndChangesTheServerOnlyWhenAsked) {
    m_server->Deliver("anna", "INBOX", Mail("<eins@example.org>", "Eins"));
    m_server->Deliver("anna", "INBOX", Mail("<zwei@example.org>", "Zwei"));
    const std::shared_ptr<CImapSync> sync = CImapSync::ForStore(Store(StartTls()));
    ASSERT_TRUE(InboxHolds(sync, 2)) << velmar::WideToUtf8(sync->Problem());
    // The roles' folders did not exist: they are made, and the server marks them by their special use.
    EXPECT_EQ(sync->FolderOfRole(EImapRole::Sent).value_or("-"), "Sent");
    EXPECT_EQ(sync->FolderOfRole(EImapRole::Trash).value_or("-"), "Trash");
    EXPECT_EQ(velmar::WideToUtf8(sync->Problem()), "") << "nothing goes without on this server";
    EXPECT_TRUE(fs::exists(m_server->MailboxPath("anna", "Sent")));
    EXPECT_TRUE(fs::exists(m_server->MailboxPath("anna", "Drafts")));
    EXPECT_EQ(m_server->FlagsOf("anna", "INBOX", "<eins@example.org>"), "") << "looking changes nothing";

    // New mail shows while the service waits in IDLE.
    const std::string thirdMail = Mail("<drei@example.org>", "=?ISO-8859-1?Q?Dr=E4i?=");
    m_server->Deliver("anna", "INBOX", thirdMail, "", 1795514400);
    ASSERT_TRUE(Eventually([&] { return sync->Snapshot("INBOX")->RowCount() == 3; }));
    // Its internal date and size follow the headers in a second fetch.
    ASSERT_TRUE(Eventually([&] { return sync->Snapshot("INBOX")->Message(2).size != 0; }));
    const auto snapshot = sync->Snapshot("INBOX");
    const CImapIndexed third = snapshot->Message(2);
    EXPECT_EQ(third.messageId, "<drei@example.org>");
    EXPECT_EQ(third.subject, "Dräi");
    EXPECT_EQ(third.internalDate, 1795514400);
    EXPECT_EQ(third.size, thirdMail.size());

    std::string error;
    ASSERT_TRUE(sync->SetSeen("INBOX", snapshot->State().uidValidity, third.uid, true, error)) << error;
    EXPECT_EQ(m_server->FlagsOf("anna", "INBOX", "<drei@example.org>"), "S");
    EXPECT_EQ(sync->Snapshot("INBOX")->Message(2).flags & kImapSeen, static_cast<std::uint32_t>(kImapSeen));

    const std::uint32_t first = snapshot->Message(0).uid;
    std::map<std::string, std::uint64_t> leftOut;
    const int fd = sync->OpenMessage("INBOX", snapshot->State().uidValidity, first, 0, leftOut, error);
    ASSERT_GE(fd, 0) << error;
    close(fd);
    ASSERT_TRUE(sync->Transfer("INBOX", snapshot->State().uidValidity, first, "Trash", true, error)) << error;
    EXPECT_EQ(m_server->Count("anna", "INBOX", "<eins@example.org>"), 0u);
    EXPECT_EQ(m_server->Count("anna", "Trash", "<eins@example.org>"), 1u);
    EXPECT_EQ(sync->Snapshot("INBOX")->RowCount(), 2u);
    EXPECT_EQ(sync->Snapshot("Trash")->RowCount(), 1u) << "another folder is read when asked for";

    ASSERT_TRUE(sync->Append("Sent", Mail("<gesendet@example.org>", "Gesendet"), kImapSeen, error)) << error;
    EXPECT_EQ(m_server->FlagsOf("anna", "Sent", "<gesendet@example.org>"), "S");

    // Another UIDVALIDITY: the old keys name nothing, the index is read anew.
    const std::uint32_t oldValidity = sync->Snapshot("INBOX")->State().uidValidity;
    m_server->ChangeUidValidity("anna", "INBOX", oldValidity + 7);
    sync->ResyncNow();
    ASSERT_EQ(sync->Snapshot("INBOX")->State().uidValidity, oldValidity + 7);
    EXPECT_EQ(sync->Snapshot("INBOX")->RowCount(), 2u);
    EXPECT_LT(sync->OpenMessage("INBOX", oldValidity, third.uid, 0, leftOut, error), 0);
}

// The same store on servers configured as other makers configure theirs.
class ImapServerKinds : public ImapTest, public ::testing::WithParamInterface<EDovecotFlavour> {
protected:
    EDovecotFlavour Flavour() const override { return GetParam(); }
};

// The roles' folders are found by their names or made inside the personal namespace, the status says what
// the store goes without, and a move without MOVE takes its message alone: another message the user's own
// client marked deleted is never expunged with it.
TEST_P(ImapServerKinds, FoldersOfTheRolesAndMovesOfOneMessage) {
    m_server->Deliver("anna", "INBOX", Mail("<eins@example.org>", "Eins"));
    m_server->Deliver("anna", "INBOX", Mail("<zwei@example.org>", "Zwei"));
    // A Trash the user's other client made by a usual name, in English or German, is found, not made anew.
    const bool german = Flavour() == EDovecotFlavour::InboxNamespace;
    m_server->Deliver("anna", german ? "Papierkorb" : "Deleted Items", Mail("<alt@example.org>", "Alt"));
    const std::shared_ptr<CImapSync> sync = CImapSync::ForStore(Store(StartTls()));
    ASSERT_TRUE(InboxHolds(sync, 2)) << velmar::WideToUtf8(sync->Problem());
    const std::string trash = m_server->ServerName(german ? "Papierkorb" : "Deleted Items");
    EXPECT_EQ(sync->FolderOfRole(EImapRole::Sent).value_or("-"), m_server->ServerName("Sent"));
    EXPECT_EQ(sync->FolderOfRole(EImapRole::Drafts).value_or("-"), m_server->ServerName("Drafts"));
    EXPECT_EQ(sync->FolderOfRole(EImapRole::Trash).value_or("-"), trash);
    EXPECT_TRUE(fs::exists(m_server->MailboxPath("anna", "Sent")));
    EXPECT_FALSE(fs::exists(m_server->MailboxPath("anna", "Trash"))) << "the user's trash was found";
    const bool idle = Flavour() != EDovecotFlavour::Trimmed;
    EXPECT_EQ(velmar::WideToUtf8(sync->Problem()).find("der Server kennt kein IDLE") != std::string::npos,
              !idle);

    std::string error;
    const auto snapshot = sync->Snapshot("INBOX");
    const std::uint32_t validity = snapshot->State().uidValidity;
    ASSERT_TRUE(sync->Transfer("INBOX", validity, snapshot->Message(0).uid, trash, true, error)) << error;
    EXPECT_EQ(m_server->Count("anna", "INBOX", "<eins@example.org>"), 0u);
    EXPECT_EQ(m_server->Count("anna", german ? "Papierkorb" : "Deleted Items", "<eins@example.org>"), 1u);

    // Another client has marked a message deleted and not yet expunged it.
    m_server->Deliver("anna", "INBOX", Mail("<markiert@example.org>", "Markiert"), "ST");
    sync->ResyncNow();
    ASSERT_TRUE(sync->Transfer("INBOX", validity, snapshot->Message(1).uid, trash, true, error)) << error;
    EXPECT_EQ(m_server->FlagsOf("anna", "INBOX", "<markiert@example.org>"), "ST") << "never expunged by us";
    const bool movesAlone = Flavour() != EDovecotFlavour::Trimmed;
    EXPECT_EQ(m_server->FlagsOf("anna", "INBOX", "<zwei@example.org>"), movesAlone ? "?" : "T")
        << "without MOVE and UIDPLUS ours stays beside it, marked deleted";
    ASSERT_TRUE(sync->Append(*sync->FolderOfRole(EImapRole::Sent), Mail("<gesendet@example.org>", "Gesendet"),
                             kImapSeen, error))
        << error;
    EXPECT_EQ(m_server->FlagsOf("anna", "Sent", "<gesendet@example.org>"), "S");
}

INSTANTIATE_TEST_SUITE_P(Servers, ImapServerKinds, ::testing::ValuesIn(kServerKinds),
                         [](const auto& info) { return FlavourTestName(info.param); });

TEST_F(ImapTest, ARestartAnswersFromDiskWhileTheServerIsAway) {
    for (int i = 0; i < 5; ++i)
        m_server->Deliver("anna", "INBOX",
                          Mail("<m" + std::to_string(i) + "@example.org>", "Nummer " + std::to_string(i)));
    std::uint32_t validity = 0, cachedUid = 0, uncachedUid = 0;
    {
        const std::shared_ptr<CImapSync> sync = CImapSync::ForStore(Store(StartTls()));
        ASSERT_TRUE(InboxHolds(sync, 5));
        const auto snapshot = sync->Snapshot("INBOX");
        validity = snapshot->State().uidValidity;
        cachedUid = snapshot->Message(1).uid;
        uncachedUid = snapshot->Message(3).uid;
        std::string error;
        std::map<std::string, std::uint64_t> leftOut;
        const int fd = sync->OpenMessage("INBOX", validity, cachedUid, 0, leftOut, error);
        ASSERT_GE(fd, 0) << error;
        close(fd);
        CImapSync::StopAll();
    }
    m_server->Stop();
    const std::shared_ptr<CImapSync> sync = CImapSync::ForStore(Store(StartTls()));
    const auto snapshot = sync->Snapshot("INBOX");
    ASSERT_TRUE(snapshot) << "the index is read from disk";
    EXPECT_EQ(snapshot->RowCount(), 5u);
    EXPECT_EQ(snapshot->State().uidValidity, validity);
    std::string error;
    std::map<std::string, std::uint64_t> leftOut;
    const int fd = sync->OpenMessage("INBOX", validity, cachedUid, 0, leftOut, error);
    EXPECT_GE(fd, 0) << "a message fetched before is served from the cache";
    if (fd >= 0) close(fd);
    EXPECT_LT(sync->OpenMessage("INBOX", validity, uncachedUid, 0, leftOut, error), 0);
    EXPECT_FALSE(error.empty());
    EXPECT_TRUE(Eventually([&] { return !sync->Problem().empty(); }));
    EXPECT_NE(velmar::WideToUtf8(sync->Problem()).find("Firma: "), std::string::npos);

    // Back again: the sync finds the server by itself.
    ASSERT_TRUE(m_server->Start());
    m_server->Deliver("anna", "INBOX", Mail("<neu@example.org>", "Neu"));
    EXPECT_TRUE(Eventually([&] { return sync->Snapshot("INBOX")->RowCount() == 6; }, 30000));
    // The new message is published while the pass that found it still runs; the pass then clears the problem.
    EXPECT_TRUE(Eventually([&] { return sync->Problem().empty(); }));
}

// Broken mail whose part GMime reads otherwise than the server (two Content-Type fields: the server takes
// the first, GMime the last) is fetched whole: left out, that body would have been read as an empty text.
TEST_F(ImapTest, BrokenMailReadOtherwiseByGMimeIsFetchedWhole) {
    const std::string data = Base64(std::string(100000, 'x'));
    m_server->Deliver("anna", "INBOX",
                      "From: berta@example.org\r\nSubject: Kaputt\r\nMessage-ID: <kaputt@example.org>\r\n"
                      "MIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=\"b\"\r\n\r\n"
                      "--b\r\nContent-Type: text/plain\r\n\r\nHallo\r\n"
                      "--b\r\nContent-Type: application/octet-stream; name=\"daten.bin\"\r\n"
                      "Content-Type: text/plain\r\nContent-Transfer-Encoding: base64\r\n\r\n" +
                          data + "\r\n--b--\r\n");
    m_server->Deliver("anna", "INBOX", WithLargeAttachment("<heil@example.org>", data));
    const std::shared_ptr<CImapSync> sync = CImapSync::ForStore(Store(StartTls()));
    ASSERT_TRUE(InboxHolds(sync, 2));
    const auto snapshot = sync->Snapshot("INBOX");
    for (size_t row = 0; row < 2; ++row) {
        const bool broken = snapshot->Message(row).messageId == "<kaputt@example.org>";
        SCOPED_TRACE(broken ? "broken" : "sound");
        std::string error;
        std::map<std::string, std::uint64_t> leftOut;
        const int fd = sync->OpenMessage("INBOX", snapshot->State().uidValidity, snapshot->Message(row).uid,
                                         0, leftOut, error);
        ASSERT_GE(fd, 0) << error;
        EXPECT_EQ(leftOut.size(), broken ? 0u : 1u);
        // Whole, the broken message's second part is an attachment of its own with all its bytes.
        const auto content = ReadMessageFile({fd, nullptr}, {});
        if (broken) {
            ASSERT_EQ(content->attachments.size(), 1u);
            EXPECT_EQ(DecodedBytes(content->attachments[0]).value_or(std::vector<BYTE>()).size(), 100000u);
        }
    }
}

}  // namespace
