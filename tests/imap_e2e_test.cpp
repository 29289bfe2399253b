// A profile with a Maildir store and a store on a real Dovecot side by side, asked through the real service:
// every message command on the server's mail, both search orders across the two stores, the read flag on
// the server, large attachments fetched only when opened, a sent copy filed in the server's Sent, a server
// that goes away and comes back, mail that arrives while the service runs, a UIDVALIDITY changed under the
// service, a wrong password, and the corpus read the same from the server as from Maildir.
#include <pwd.h>
#include <unistd.h>
#include <utime.h>
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "harness/DovecotServer.h"
#include "json/CkJsonArray.h"
#include "tests/SendServiceFixture.h"

namespace {

using namespace velmar::test;
namespace fs = std::filesystem;

const fs::path kCorpora = VELMAR_CORPORA_DIR;

std::string Mail(const std::string& id, const std::string& subject, const std::string& body = "Hallo.\r\n") {
    return "From: Berta <berta@example.org>\r\nTo: Anna <anna@example.org>\r\nSubject: " + subject +
           "\r\nMessage-ID: " + id + "\r\nDate: Tue, 24 Nov 2026 10:00:00 +0100\r\n\r\n" + body;
}

class ImapService : public CSendServiceTest {
protected:
    virtual EDovecotFlavour Flavour() const { return EDovecotFlavour::Standard; }

    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "the private Dovecot runs as root";
        CSendServiceTest::SetUp();
        m_server.emplace(m_dir / "dovecot", std::vector<std::string>{"anna"}, Flavour());
        ASSERT_TRUE(m_server->Ready()) << ReadFile(m_dir / "dovecot/dovecot.log");
        SetEnvironment("XDG_CACHE_HOME", (m_dir / "cache").string());
        SetEnvironment("XDG_DATA_HOME", (m_dir / "data").string());
        WriteImapProfile("geheim");
    }

    // Eins on Maildir (one@x), Firma on the server (anna@example.org) with this password.
    void WriteImapProfile(const std::string& password) {
        WriteFile(
            m_dir / "profiles.ini",
            "[Velmar]\n"
            "store1.name = Eins\nstore1.path = one\nstore1.address = one@x\n"
            "store2.name = Firma\nstore2.imap = imap://localhost:" +
                std::to_string(m_server->Port()) + "\nstore2.user = anna\nstore2.password = " + password +
                "\nstore2.cafile = " + m_server->CaFile().string() + "\nstore2.address = anna@example.org\n");
        // A password written in the profile counts only in a file nobody else can read.
        fs::permissions(m_dir / "profiles.ini", fs::perms::owner_read | fs::perms::owner_write);
    }

    std::unique_ptr<CkJsonObject> Data(const std::string& id, int store) {
        return MessageData(id, "", store, false);
    }

    // Asks until the message is found, for at most a while; its reply.
    std::unique_ptr<CkJsonObject> DataOnceFound(const std::string& id, int store, int seconds = 15) {
        std::unique_ptr<CkJsonObject> reply;
        for (int i = 0; i < seconds * 10; ++i) {
            reply = Data(id, store);
            if (reply->StringOf("status") == std::string("OK")) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return reply;
    }

    // The Outbox of this machine's from which the server's store sends, as a folder of the test's.
    std::string ServerStoresOutbox() const {
        std::vector<fs::path> outboxes;
        for (const auto& entry : fs::directory_iterator(m_dir / "data/velmar-mapi/imap"))
            outboxes.push_back(entry.path());
        EXPECT_EQ(outboxes.size(), 1u);
        return outboxes.empty() ? std::string() : fs::relative(outboxes.front(), m_dir.Path()).string();
    }

    std::optional<CDovecotServer> m_server;
};

// The same against servers configured as other makers configure theirs: folders under the inbox with "."
// and none made yet; only IMAP4rev1 and LITERAL+ offered, with "/".
class ImapServers : public ImapService, public ::testing::WithParamInterface<EDovecotFlavour> {
protected:
    EDovecotFlavour Flavour() const override { return GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(Kinds, ImapServers, ::testing::ValuesIn(kServerKinds),
                         [](const auto& info) { return FlavourTestName(info.param); });

// A server that lets no folder be made.
class ImapServerRefusingFolders : public ImapService {
protected:
    EDovecotFlavour Flavour() const override { return EDovecotFlavour::NoCreate; }
};

TEST_P(ImapServers, EveryMessageCommandServesTheServersMailBesideMaildir) {
    m_server->Deliver("anna", "INBOX",
                      Mail("<gruss@example.org>", "=?UTF-8?Q?Gr=C3=BC=C3=9Fe?= vom Server",
                           "Hallo Anna,\r\ndies liegt auf dem Server.\r\n"));
    m_server->Deliver("anna", "INBOX",
                      WithAttachment("<anhang@example.org>", "bericht.pdf", "JVBERi0xLjQKdGVzdAo="));
    m_server->Deliver("anna", "Trash", Mail("<nur-papierkorb@example.org>", "Weg"));
    m_server->Deliver("anna", "INBOX", Mail("<beide@example.org>", "Im Posteingang"));
    m_server->Deliver("anna", "Trash", Mail("<beide@example.org>", "Im Papierkorb"));
    Deliver("one", "1700000000.M1P1.host", Mail("<lokal@example.org>", "Lokal"));
    Start();

    const auto stores = Ask(R"({"command-target":"MAPI","command":"OpenMessageStoreTable"})");
    EXPECT_STREQ(stores->StringOf("messageStoreEntries[0].displayName"), "Eins");
    EXPECT_STREQ(stores->StringOf("messageStoreEntries[1].displayName"), "Firma");
    EXPECT_STREQ(stores->StringOf("messageStoreEntries[1].emailAddress"), "anna@example.org");

    const auto greeting = Data("<gruss@example.org>", 1);
    ASSERT_STREQ(greeting->StringOf("status"), "OK") << Activity();
    EXPECT_STREQ(greeting->StringOf("subject"), "Grüße vom Server");
    EXPECT_STREQ(greeting->StringOf("fromAddress"), "berta@example.org");
    EXPECT_NE(std::string(greeting->StringOf("body")).find("dies liegt auf dem Server."), std::string::npos);
    EXPECT_STREQ(Data("<lokal@example.org>", 0)->StringOf("subject"), "Lokal");

    // An attachment exported from the server's message, byte for byte.
    const auto attachment = OpenAttachment("<anhang@example.org>", 0);
    ASSERT_STREQ(attachment->StringOf("status"), "OK") << Activity();
    EXPECT_EQ(ReadFile(attachment->StringOf("fileName")), "%PDF-1.4\ntest\n");

    // All stores from the one chosen: Eins first, then Firma.
    const auto across = Data("<gruss@example.org>", 0);
    EXPECT_STREQ(across->StringOf("status"), "OK");
    // The receiving mailbox only: the store whose owner the message was sent to.
    EXPECT_STREQ(MessageData("<gruss@example.org>", "anna@example.org", 0, false, true)->StringOf("status"),
                 "OK");
    EXPECT_STREQ(MessageData("<gruss@example.org>", "one@x", 1, false, true)->StringOf("status"), "FAILED");
    EXPECT_STREQ(MessageData("<lokal@example.org>", "anna@example.org", 0, false, true)->StringOf("status"),
                 "FAILED");

    // Only the inbox is searched.
    EXPECT_STREQ(Data("<nur-papierkorb@example.org>", 1)->StringOf("status"), "FAILED");
    EXPECT_STREQ(Data("<beide@example.org>", 1)->StringOf("subject"), "Im Posteingang");

    // The read flag goes to the server only when asked, and only for the chosen store.
    EXPECT_EQ(m_server->FlagsOf("anna", "INBOX", "<gruss@example.org>"), "");
    EXPECT_STREQ(MessageData("<gruss@example.org>", "", 0, true)->StringOf("status"), "OK");
    EXPECT_EQ(m_server->FlagsOf("anna", "INBOX", "<gruss@example.org>"), "")
        << "found in another store than chosen";
    EXPECT_STREQ(MessageData("<gruss@example.org>", "", 1, true)->StringOf("status"), "OK");
    EXPECT_EQ(m_server->FlagsOf("anna", "INBOX", "<gruss@example.org>"), "S");
}

// Bytes that do not repeat, so that a part put together wrongly cannot pass for the original.
std::string Noise(size_t size, unsigned state) {
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        state = state * 1103515245u + 12345u;
        byte = static_cast<char>(state >> 16);
    }
    return bytes;
}

// The files of the store's cache of messages, by name.
std::map<std::string, std::uintmax_t> CachedMessages(const fs::path& cache) {
    std::map<std::string, std::uintmax_t> files;
    for (const auto& entry : fs::recursive_directory_iterator(cache))
        if (entry.is_regular_file() && entry.path().parent_path().filename() == "messages")
            files[entry.path().filename().string()] = entry.file_size();
    return files;
}

size_t CountEnding(const std::map<std::string, std::uintmax_t>& files, const std::string& end) {
    size_t count = 0;
    for (const auto& [name, size] : files) count += name.ends_with(end);
    return count;
}

// Opening a message fetches its headers, bodies and small parts; a large attachment stays on the server
// until it is opened, and once fetched is served while the server is away.
TEST_F(ImapService, LargeAttachmentsAreFetchedWhenOpened) {
    const std::string report = Noise(300000, 1);
    const std::string archive = Noise(200000, 2);
    const std::string logo = Noise(900, 3);
    m_server->Deliver(
        "anna", "INBOX",
        "From: Berta <berta@example.org>\r\nTo: anna@example.org\r\nSubject: Quartalsbericht\r\n"
        "Message-ID: <gross@example.org>\r\nMIME-Version: 1.0\r\n"
        "Content-Type: multipart/mixed; boundary=\"aussen\"\r\n\r\nVorspann\r\n"
        "--aussen\r\nContent-Type: multipart/related; boundary=\"innen\"\r\n\r\n"
        "--innen\r\nContent-Type: text/html; charset=utf-8\r\n\r\n"
        "<p>Der Bericht f\xC3\xBCr Anna</p><img src=\"cid:logo@example.org\">\r\n"
        "--innen\r\nContent-Type: image/png\r\nContent-ID: <logo@example.org>\r\n"
        "Content-Transfer-Encoding: base64\r\n\r\n" +
            Base64(logo) +
            "\r\n--innen--\r\n"
            "--aussen\r\nContent-Type: application/pdf; name=\"bericht.pdf\"\r\n"
            "Content-Disposition: attachment; filename=\"bericht.pdf\"\r\n"
            "Content-Transfer-Encoding: base64\r\n\r\n" +
            Base64(report) +
            "\r\n--aussen\r\nContent-Type: application/zip\r\n"
            "Content-Disposition: attachment; filename=\"daten.zip\"\r\n"
            "Content-Transfer-Encoding: base64\r\n\r\n" +
            Base64(archive) + "\r\n--aussen--\r\n");
    Start();
    const fs::path cache = m_dir / "cache";

    const auto data = Data("<gross@example.org>", 1);
    ASSERT_STREQ(data->StringOf("status"), "OK") << Activity();
    EXPECT_NE(std::string(data->StringOf("htmlBody")).find("Der Bericht für Anna"), std::string::npos);
    std::unique_ptr<CkJsonArray> embedded = data->ArrayOf("strEmbeddedAttachments");
    ASSERT_EQ(embedded->Count(), 1);
    EXPECT_EQ(ReadFile(embedded->StringAt(0)), logo) << "the small inline image came with the message";
    std::unique_ptr<CkJsonArray> attachments = data->ArrayOf("attachments");
    ASSERT_EQ(attachments->Count(), 2);
    EXPECT_STREQ(attachments->ObjectAt(0)->StringOf("fileName"), "bericht.pdf");
    EXPECT_STREQ(attachments->ObjectAt(1)->StringOf("fileName"), "daten.zip");
    std::map<std::string, std::uintmax_t> cached = CachedMessages(cache);
    ASSERT_EQ(cached.size(), 1u) << "the message alone, without its large attachments";
    EXPECT_LT(cached.begin()->second, 10000u);

    const auto opened = OpenAttachment("<gross@example.org>", 1);
    ASSERT_STREQ(opened->StringOf("status"), "OK") << Activity();
    EXPECT_EQ(ReadFile(opened->StringOf("fileName")), report);
    cached = CachedMessages(cache);
    EXPECT_EQ(cached.size(), 2u);
    EXPECT_EQ(CountEnding(cached, ".2"), 1u) << "the report's body, section 2";

    m_server->Stop();
    // Served from the cache; the archive never fetched cannot be had: as for any attachment that cannot be
    // read, the reply names the file it would have been, and no file is written.
    EXPECT_STREQ(Data("<gross@example.org>", 1)->StringOf("status"), "OK");
    const auto again = OpenAttachment("<gross@example.org>", 1);
    ASSERT_STREQ(again->StringOf("status"), "OK") << Activity();
    EXPECT_EQ(ReadFile(again->StringOf("fileName")), report);
    const std::string archiveRequest =
        R"({"command-target":"MAPI","command":"OpenAttachment","messageId":"<gross@example.org>","attachmentIndex":2})";
    const auto away = Ask(archiveRequest);
    ASSERT_STREQ(away->StringOf("status"), "OK");
    const fs::path archivePath = away->StringOf("fileName");
    EXPECT_EQ(archivePath.filename(), "daten.zip");
    EXPECT_FALSE(fs::exists(archivePath));
    EXPECT_EQ(CountEnding(CachedMessages(cache), ".3"), 0u);

    ASSERT_TRUE(m_server->Start());
    for (int i = 0; i < 300 && !fs::exists(archivePath); ++i) {
        Ask(archiveRequest);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_EQ(ReadFile(archivePath), archive) << Activity();
}

TEST_P(ImapServers, SendingFromTheServersStoreFilesTheSentCopyOnTheServer) {
    Start();
    EXPECT_STREQ(Ask(R"({"command-target":"MAPI","command":"SetMessageStore","data_string":"Firma"})")
                     ->StringOf("status"),
                 "OK");
    CSendRequest request{.subject = "Von Firma an Eins", .body = "Ein Gruß.", .to = {"one@x"}};
    ASSERT_STREQ(Send(request)->StringOf("status"), "OK") << Activity();
    ASSERT_EQ(WaitForMessages("one", "", 1).size(), 1u) << "delivered to the Maildir store's owner";
    for (int i = 0; i < 300 && m_server->Count("anna", "Sent", "Von Firma an Eins") == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    if (m_server->Count("anna", "Sent", "Von Firma an Eins") != 1u) {
        request.forceSend = true;
        request.subject = "Anstoß";
        Send(request);
        ADD_FAILURE() << "no sent copy on the server\n"
                      << Activity() << ReadFile(m_dir / "dovecot/dovecot.log");
    }
    EXPECT_EQ(m_server->FlagsOf("anna", "Sent", "Von Firma an Eins"), "S");
    EXPECT_TRUE(MessageFiles("one", ".Sent").empty()) << "the copy goes to the sender's store only";
    // The server's store sends from an Outbox of this machine's, empty again.
    EXPECT_TRUE(WaitForEmpty(ServerStoresOutbox(), ".Outbox"));
}

// No folder can be made on the server: the inbox is read all the same, the status says what is missing,
// and the sent copy waits in the queue, its recipients served.
TEST_F(ImapServerRefusingFolders, TheInboxIsReadAndTheSentCopyWaits) {
    m_server->Deliver("anna", "INBOX", Mail("<gruss@example.org>", "Gruß"));
    Start();
    EXPECT_STREQ(Data("<gruss@example.org>", 1)->StringOf("subject"), "Gruß") << Activity();
    EXPECT_STREQ(MessageData("<gruss@example.org>", "", 1, true)->StringOf("status"), "OK");
    EXPECT_EQ(m_server->FlagsOf("anna", "INBOX", "<gruss@example.org>"), "S");

    EXPECT_STREQ(Ask(R"({"command-target":"MAPI","command":"SetMessageStore","data_string":"Firma"})")
                     ->StringOf("status"),
                 "OK");
    CSendRequest request{.subject = "Ohne Ordner", .to = {"one@x"}, .forceSend = true};
    ASSERT_STREQ(Send(request)->StringOf("status"), "OK") << Activity();
    EXPECT_EQ(WaitForMessages("one", "", 1).size(), 1u) << "delivered all the same";
    EXPECT_NE(Activity().find("Firma: Ordner für gesendete Nachrichten fehlt auf dem Server und lässt sich "
                              "nicht anlegen"),
              std::string::npos)
        << Activity();
    EXPECT_EQ(MessageFiles(ServerStoresOutbox(), ".Outbox").size(), 1u) << "the sent copy waits";
    EXPECT_FALSE(fs::exists(m_server->MailboxPath("anna", "Sent")));
}

// A tunnel's server that says something before its PREAUTH is logged in already all the same: no LOGIN goes
// to it, what it said shows in the status, and the store works.
TEST_F(ImapService, ATunnelWhoseServerSpeaksBeforeItsGreetingIsNeverLoggedInto) {
    m_server->Deliver("anna", "INBOX", Mail("<tunnel@example.org>", "Durch den Tunnel"));
    // The server keeps what its clients said (Dovecot's raw log), in a folder the mail user may write.
    const fs::path rawlog = m_dir / "rawlog";
    fs::create_directories(rawlog);
    const passwd* mailUser = getpwnam("nobody");
    ASSERT_TRUE(mailUser && chown(rawlog.c_str(), mailUser->pw_uid, mailUser->pw_gid) == 0);
    WriteFile(m_dir / "profiles.ini",
              "[Velmar]\nstore1.name = Eins\nstore1.path = one\nstore1.address = one@x\n"
              "store2.name = Firma\nstore2.imaptunnel = printf '* OK [ALERT] Wartung heute Nacht\\r\\n'; " +
                  m_server->Tunnel("anna") + " -o rawlog_dir=" + rawlog.string() +
                  "\nstore2.address = anna@example.org\n");
    fs::permissions(m_dir / "profiles.ini", fs::perms::owner_read | fs::perms::owner_write);
    Start();
    EXPECT_STREQ(DataOnceFound("<tunnel@example.org>", 1)->StringOf("subject"), "Durch den Tunnel")
        << Activity();
    CSendRequest request{.to = {"one@x"}, .forceSend = true};
    Send(request);
    EXPECT_NE(Activity().find("Firma: Hinweis des Servers: Wartung heute Nacht"), std::string::npos)
        << Activity();
    std::string commands;
    for (const auto& entry : fs::directory_iterator(rawlog))
        if (entry.path().extension() == ".in") commands += ReadFile(entry.path());
    EXPECT_NE(commands.find("SELECT"), std::string::npos) << commands;
    EXPECT_EQ(commands.find("LOGIN"), std::string::npos) << commands;
}

TEST_P(ImapServers, AServerThatGoesAwayAndComesBack) {
    m_server->Deliver("anna", "INBOX", Mail("<gelesen@example.org>", "Schon gelesen"));
    m_server->Deliver("anna", "INBOX", Mail("<ungelesen@example.org>", "Nie geholt"));
    Start();
    ASSERT_STREQ(Data("<gelesen@example.org>", 1)->StringOf("status"), "OK");

    m_server->Stop();
    // The forced send and receive looks for the server and says what keeps the store from it.
    CSendRequest request{.subject = "Nur ein Anstoß", .to = {"one@x"}, .forceSend = true};
    Send(request);
    EXPECT_NE(Activity().find("Firma: Verbindung zu localhost:" + std::to_string(m_server->Port())),
              std::string::npos)
        << Activity();
    // The index answers lookups and the cache the message fetched before; the rest fails, and the service
    // goes on.
    EXPECT_STREQ(Data("<gelesen@example.org>", 1)->StringOf("subject"), "Schon gelesen");
    EXPECT_STREQ(Data("<ungelesen@example.org>", 1)->StringOf("status"), "FAILED");
    EXPECT_STREQ(Ask(R"({"command-target":"MAPI","command":"IsMAPIDllInitialized"})")->StringOf("status"),
                 "OK");

    ASSERT_TRUE(m_server->Start());
    EXPECT_STREQ(DataOnceFound("<ungelesen@example.org>", 1, 30)->StringOf("subject"), "Nie geholt");
    // Mail that arrives while the service runs is there at once (IDLE); a server without IDLE is asked
    // every minute, and at once by a forced send and receive, which the status says.
    m_server->Deliver("anna", "INBOX", Mail("<frisch@example.org>", "Frisch eingetroffen"));
    if (Flavour() == EDovecotFlavour::Trimmed) {
        Send(request);
        EXPECT_NE(Activity().find("der Server kennt kein IDLE"), std::string::npos) << Activity();
        EXPECT_STREQ(Data("<frisch@example.org>", 1)->StringOf("subject"), "Frisch eingetroffen");
    } else {
        EXPECT_STREQ(DataOnceFound("<frisch@example.org>", 1)->StringOf("subject"), "Frisch eingetroffen");
    }
}

TEST_F(ImapService, AChangedUidValidityNeverGivesAnotherMessage) {
    m_server->Deliver("anna", "INBOX", Mail("<erste@example.org>", "Erste"));
    m_server->Deliver("anna", "INBOX", Mail("<zweite@example.org>", "Zweite"));
    Start();
    ASSERT_STREQ(Data("<zweite@example.org>", 1)->StringOf("subject"), "Zweite");
    m_server->ChangeUidValidity("anna", "INBOX", 4242);
    // What is found is the message asked for or nothing, until the index is read anew.
    for (int i = 0; i < 5; ++i) {
        const auto reply = Data("<erste@example.org>", 1);
        if (reply->StringOf("status") == std::string("OK")) {
            EXPECT_STREQ(reply->StringOf("subject"), "Erste");
        }
    }
    EXPECT_STREQ(DataOnceFound("<erste@example.org>", 1)->StringOf("subject"), "Erste");
    EXPECT_STREQ(DataOnceFound("<zweite@example.org>", 1)->StringOf("subject"), "Zweite");
}

TEST_F(ImapService, AWrongPasswordFindsNothingAndSaysWhy) {
    m_server->Deliver("anna", "INBOX", Mail("<gruss@example.org>", "Gruß"));
    WriteImapProfile("falsch");
    Start();
    EXPECT_STREQ(Data("<gruss@example.org>", 1)->StringOf("status"), "FAILED");
    CSendRequest request{.subject = "Anstoß", .to = {"one@x"}, .forceSend = true};
    Send(request);
    EXPECT_NE(Activity().find("Firma: Anmeldung von anna an localhost:" + std::to_string(m_server->Port())),
              std::string::npos)
        << Activity();
}

// A tunnel command in a profile file that others may change is never run: the store says why.
TEST_F(ImapService, ATunnelOfAProfileOthersMayChangeIsNeverRun) {
    const fs::path ran = m_dir / "ran";
    WriteFile(m_dir / "profiles.ini",
              "[Velmar]\nstore1.name = Eins\nstore1.path = one\nstore1.address = one@x\n"
              "store2.name = Firma\nstore2.imaptunnel = touch '" +
                  ran.string() + "'; " + m_server->Tunnel("anna") + "\nstore2.address = anna@example.org\n");
    fs::permissions(m_dir / "profiles.ini", fs::perms::all);
    Start();
    CSendRequest request{.to = {"one@x"}, .forceSend = true};
    Send(request);
    EXPECT_NE(Activity().find("Firma: imaptunnel is ignored: the profile file " +
                              (m_dir / "profiles.ini").string() + " may be changed by others"),
              std::string::npos)
        << Activity();
    EXPECT_FALSE(fs::exists(ran)) << "the tunnel never ran";
}

// The replies to GetMessageData of every corpus message are the same from the server as from Maildir, to the
// line ends of the bodies (CR LF from either) and the delivery date (a file's time, the server's internal
// date: here the same).
TEST_P(ImapServers, TheCorpusReadsTheSameFromTheServerAsFromMaildir) {
    if (!fs::is_directory(kCorpora)) GTEST_SKIP() << "no corpora at " << kCorpora;
    std::map<std::string, std::string> byId;  // Message-ID → corpus file, each id once
    std::set<std::string> seen;
    int number = 0;
    for (const char* folder : {"mail-parser/resources/eml", "MimeKit/messages"}) {
        for (const auto& entry : fs::recursive_directory_iterator(kCorpora / folder)) {
            const std::string extension = entry.path().extension().string();
            if (!entry.is_regular_file() || (extension != ".eml" && extension != ".txt")) continue;
            const std::string bytes = ReadFile(entry.path());
            const std::string id = Field(bytes, "Message-ID");
            if (id.empty() || id.find('"') != std::string::npos || !seen.insert(id).second) continue;
            byId[id] = entry.path().string();
            const std::string name = "1600000000.M" + std::to_string(++number) + "P1.corpus";
            Deliver("one", name, bytes);
            const time_t received = 1600000000 + number * 60;
            const utimbuf times{received, received};
            utime((m_dir / "one/new" / name).c_str(), &times);
            m_server->Deliver("anna", "INBOX", bytes, "", received);
        }
    }
    ASSERT_GT(byId.size(), 50u);
    Start();
    size_t compared = 0;
    for (const auto& [id, source] : byId) {
        const auto local = MessageData(id, "", 0, false);
        const auto remote = MessageData(id, "", 1, false);
        if (local->StringOf("status") != std::string("OK")) continue;  // not findable by its id at all
        ASSERT_STREQ(remote->StringOf("status"), "OK") << source;
        // Exported files are named by their message: the same names in the same folder either way.
        EXPECT_EQ(std::string(local->Emit()), std::string(remote->Emit())) << source;
        ++compared;
    }
    EXPECT_GT(compared, 50u);
}

}  // namespace
