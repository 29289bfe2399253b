// SendEmail through the real service to a real SMTP server on loopback: the bytes and the envelope that
// arrive, STARTTLS and AUTH, a server that is down and comes back, refusals for one recipient (for good and
// for now), and a service killed while the server holds the data. No message is ever lost.
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>
#include <sys/stat.h>

#include <atomic>

#include <cstdlib>

#include <algorithm>
#include <map>
#include <optional>
#include <set>

#include "harness/FreePort.h"
#include "harness/PostfixServer.h"
#include "harness/SmtpTestServer.h"
#include "tests/SendServiceFixture.h"
#include "tests/TnefStream.h"

namespace {

namespace fs = std::filesystem;
using velmar::test::CReceivedMail;
using velmar::test::CSmtpTestServer;
using velmar::test::ReadFile;
using velmar::test::WriteFile;

class SmtpSending : public velmar::test::CSendServiceTest {
protected:
    void UseServer(const CSmtpTestServer& server, const std::string& more = "") {
        WriteProfile("smtp.url = " + server.Url() + "\n" + more);
    }
    // A server of the test's own, named in the profile.
    CSmtpTestServer& UsedServer() {
        UseServer(m_server.emplace(m_dir / "smtp"));
        return *m_server;
    }

    // The message's data without its line breaks, where a base64 body reads as one string.
    static std::string Unwrapped(const std::string& data) {
        std::string flat;
        for (char c : data)
            if (c != '\r' && c != '\n') flat += c;
        return flat;
    }

    static std::vector<std::string> Sorted(std::vector<std::string> items) {
        std::sort(items.begin(), items.end());
        return items;
    }

    std::optional<CSmtpTestServer> m_server;
};

TEST_F(SmtpSending, TheServerGetsTheBytesAndTheEnvelopeOverStartTlsWithAuth) {
    CSmtpTestServer server(m_dir / "smtp", {"--tls-dir", "--require-starttls", "--auth", "anna:geheim"});
    ASSERT_GT(server.Port(), 0);
    UseServer(server,
              "smtp.starttls = required\nsmtp.user = anna\nsmtp.passwordeval = printf 'geheim\\nrest'\n"
              "smtp.cafile = " +
                  server.CertificateFile() + "\n");
    constexpr char kBytes[] = "Inhalt \x00\x01\x02\xfe\xff der Anlage";
    const std::string bytes(kBytes, sizeof kBytes - 1);
    WriteFile(m_dir / "files" / "Bericht Übersicht.pdf", bytes);
    Start();
    CSendRequest request{.subject = "Grüße",
                         .body = "Hallo Anna",
                         .to = {"Anna \xc3\x84pfel <anna@remote.example>"},
                         .cc = {"cc@remote.example"},
                         .bcc = {"hidden@remote.example"},
                         .files = {(m_dir / "files" / "Bericht Übersicht.pdf").string()}};
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");

    const std::vector<CReceivedMail> mails = server.WaitForMessages(1);
    ASSERT_EQ(mails.size(), 1u) << Activity();
    const CReceivedMail& mail = mails[0];
    EXPECT_TRUE(mail.tls);
    EXPECT_EQ(mail.user, "anna");
    EXPECT_EQ(mail.from, "one@x");
    EXPECT_EQ(Sorted(mail.recipients), (std::vector<std::string>{"anna@remote.example", "cc@remote.example",
                                                                 "hidden@remote.example"}));
    EXPECT_EQ(Field(mail.data, "Bcc"), "") << "Bcc is in the envelope only";
    EXPECT_EQ(mail.data.find("X-Velmar"), std::string::npos);
    EXPECT_EQ(Field(mail.data, "Subject").rfind("=?UTF-8?", 0), 0u) << Field(mail.data, "Subject");
    EXPECT_NE(Field(mail.data, "To").find("<anna@remote.example>"), std::string::npos);
    EXPECT_NE(Field(mail.data, "To").find("=?UTF-8?"), std::string::npos)
        << "the name is an encoded word: " << Field(mail.data, "To");
    EXPECT_NE(mail.data.find("filename*="), std::string::npos) << "the file name in RFC 2231 form";
    EXPECT_NE(Unwrapped(mail.data).find(velmar::test::Base64(bytes)), std::string::npos)
        << "the attachment's bytes";
    EXPECT_EQ(mail.data.find("\n", 0) > 0 && mail.data[mail.data.find('\n') - 1] == '\r', true)
        << "CR LF on the wire";

    // The sent copy is the same message, with its Bcc.
    const auto sent = WaitForMessages("one", ".Sent", 1);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_TRUE(WaitForEmpty("one", ".Outbox"));
    const std::string copy = ReadFile(sent[0]);
    EXPECT_EQ(Field(copy, "Message-Id"), Field(mail.data, "Message-Id"));
    EXPECT_EQ(Field(copy, "Bcc"), "hidden@remote.example");
}

// A wrong password is the account's matter: the queue waits, the forced send says why, nothing is filed or
// reported, and once the profile file is right (no new logon) every message goes, once.
TEST_F(SmtpSending, AWrongPasswordKeepsTheQueueUntilTheProfileIsRight) {
    CSmtpTestServer server(m_dir / "smtp", {"--auth", "anna:geheim"});
    UseServer(server, "smtp.user = anna\nsmtp.password = falsch\n");
    chmod((m_dir / "profiles.ini").c_str(), 0600);
    Start();
    CSendRequest request{
        .subject = "Wartet", .to = {"x@remote.example", "y@remote.example"}, .forceSend = true};
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
    EXPECT_NE(Activity().find("1 message(s) queued: SMTP 535 5.7.8"), std::string::npos) << Activity();
    EXPECT_EQ(MessageFiles("one", ".Outbox").size(), 1u) << "the message stays queued";
    EXPECT_TRUE(MessageFiles("one", ".Sent").empty());
    EXPECT_TRUE(MessageFiles("one").empty()) << "no report of undeliverable mail";
    EXPECT_TRUE(server.Messages().empty());

    // A password in a file others may read is not used either: the queue still waits, and says why.
    UseServer(server, "smtp.user = anna\nsmtp.password = geheim\n");
    chmod((m_dir / "profiles.ini").c_str(), 0644);
    request.subject = "Auch";
    request.to = {"z@remote.example"};
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
    EXPECT_NE(Activity().find("2 message(s) queued: SMTP password: smtp.password is ignored"),
              std::string::npos)
        << Activity();
    EXPECT_TRUE(server.Messages().empty());

    chmod((m_dir / "profiles.ini").c_str(), 0600);
    request.subject = "Danach";
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
    const std::vector<CReceivedMail> mails = server.WaitForMessages(3);
    ASSERT_EQ(mails.size(), 3u) << Activity();
    EXPECT_TRUE(WaitForEmpty("one", ".Outbox"));
    EXPECT_EQ(WaitForMessages("one", ".Sent", 3).size(), 3u);
    std::map<std::string, std::vector<std::string>> recipientsBySubject;
    for (const CReceivedMail& mail : mails)
        recipientsBySubject[Field(mail.data, "Subject")] = mail.recipients;
    EXPECT_EQ(recipientsBySubject.size(), 3u) << "each once";
    EXPECT_EQ(Sorted(recipientsBySubject["Wartet"]),
              (std::vector<std::string>{"x@remote.example", "y@remote.example"}));
    EXPECT_TRUE(MessageFiles("one").empty()) << "no report of undeliverable mail";
}

// A command in a profile file that others may change is never run: the message waits and the forced send
// says why; with the file made private again it goes.
TEST_F(SmtpSending, ACommandOfAProfileOthersMayChangeIsNeverRun) {
    CSmtpTestServer server(m_dir / "smtp", {"--auth", "anna:geheim"});
    const fs::path ran = m_dir / "ran";
    UseServer(server, "smtp.user = anna\nsmtp.passwordeval = touch '" + ran.string() + "'; echo geheim\n");
    chmod((m_dir / "profiles.ini").c_str(), 0666);
    Start();
    CSendRequest request{.subject = "Befehl", .to = {"x@remote.example"}, .forceSend = true};
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
    EXPECT_NE(Activity().find("smtp.passwordeval is ignored: the profile file " +
                              (m_dir / "profiles.ini").string() + " may be changed by others"),
              std::string::npos)
        << Activity();
    EXPECT_FALSE(fs::exists(ran)) << "the command never ran";
    EXPECT_EQ(MessageFiles("one", ".Outbox").size(), 1u);

    chmod((m_dir / "profiles.ini").c_str(), 0644);
    request.subject = "Privat";
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
    EXPECT_EQ(server.WaitForMessages(2).size(), 2u) << Activity();
    EXPECT_TRUE(fs::exists(ran));
}

// Another client's message commands are never held up by a send: not by a server that takes the connection
// and never answers (the forced send waits for its pass), not by 2,000 recipients (each saved as it is
// added), not by a FIFO named as an attachment. Each GetMessageData answers within half a second.
class SmtpSendingBeside : public SmtpSending {
protected:
    void SetUp() override {
        SmtpSending::SetUp();
        Deliver("one", "1.M1.h", velmar::test::Message("<lesen@x>", "Lesen"));
    }
    static void ExpectNotHeldUp(const CAnotherClient& seen) {
        EXPECT_TRUE(seen.allAnswered);
        EXPECT_GE(seen.answered, 3);
        EXPECT_LT(seen.longestMilliseconds, 500);
    }
};

TEST_F(SmtpSendingBeside, AServerThatNeverAnswers) {
    velmar::test::CSilentLoopbackServer silent;
    ASSERT_GT(silent.Port(), 0);
    WriteProfile("smtp.url = smtp://127.0.0.1:" + std::to_string(silent.Port()) + "\n");
    Start();
    CSendRequest request{.subject = "Haengt", .to = {"x@remote.example"}, .forceSend = true};
    std::atomic<bool> replied{false};
    std::string status;
    std::thread sender([&] {
        status = Send(request)->StringOf("status");
        replied = true;
    });
    const CAnotherClient seen =
        AnotherClientReadsWhile("<lesen@x>", [] { std::this_thread::sleep_for(std::chrono::seconds(3)); });
    EXPECT_FALSE(replied) << "the forced send still waits for the server";
    silent.Stop();
    sender.join();
    EXPECT_EQ(status, "OK");
    ExpectNotHeldUp(seen);
    EXPECT_EQ(MessageFiles("one", ".Outbox").size(), 1u) << "queued for another try";
}

TEST_F(SmtpSendingBeside, TwoThousandRecipients) {
    CSmtpTestServer& server = UsedServer();
    Start();
    CSendRequest request{.subject = "Rundschreiben"};
    for (int i = 0; i < 2000; ++i) request.to.push_back("empfaenger" + std::to_string(i) + "@remote.example");
    const CAnotherClient seen =
        AnotherClientReadsWhile("<lesen@x>", [&] { EXPECT_STREQ(Send(request)->StringOf("status"), "OK"); });
    EXPECT_GE(MessageFiles("one", ".Outbox").size() + MessageFiles("one", ".Sent").size(), 1u)
        << "queued before the reply";
    ExpectNotHeldUp(seen);
    const std::vector<CReceivedMail> mails = server.WaitForMessages(1, std::chrono::seconds(60));
    ASSERT_EQ(mails.size(), 1u) << Activity();
    EXPECT_EQ(Sorted(mails[0].recipients), Sorted(request.to));
    EXPECT_TRUE(WaitForEmpty("one", ".Outbox")) << "sent, and no draft left behind";
}

TEST_F(SmtpSendingBeside, AFifoNamedAsAnAttachment) {
    CSmtpTestServer& server = UsedServer();
    ASSERT_EQ(mkfifo((m_dir / "pipe").c_str(), 0600), 0);
    WriteFile(m_dir / "echt.txt", "Inhalt");
    Start();
    CSendRequest request{.subject = "Anlagen",
                         .to = {"x@remote.example"},
                         .files = {(m_dir / "pipe").string(), (m_dir / "echt.txt").string()}};
    const CAnotherClient seen =
        AnotherClientReadsWhile("<lesen@x>", [&] { EXPECT_STREQ(Send(request)->StringOf("status"), "OK"); });
    ExpectNotHeldUp(seen);
    const std::vector<CReceivedMail> mails = server.WaitForMessages(1);
    ASSERT_EQ(mails.size(), 1u) << Activity();
    // The FIFO is an attachment without data, as a missing file is; the real file comes whole.
    EXPECT_NE(mails[0].data.find("filename=pipe"), std::string::npos) << mails[0].data;
    EXPECT_NE(mails[0].data.find("SW5oYWx0"), std::string::npos) << "Inhalt in base64";
}

// A line break in a file name or a content id stays inside its field: in a file SendEmail attaches, in a
// received attachment's name a forward takes over, in a content id inside a winmail.dat. None of it becomes
// a field of the sent part, a part of its own, or a recipient of the envelope.
TEST_F(SmtpSending, LineBreaksInNamesAndContentIdsStayInsideTheirFields) {
    CSmtpTestServer& server = UsedServer();
    const std::string injected = "\r\nBcc: evil@attacker.example\r\nX-Inj: 1";
    const fs::path file = m_dir / "files" / ("a.txt" + injected + ".txt");
    WriteFile(file, "Inhalt");
    Deliver("one", "1.M1.h",
            "From: x@example.org\nMessage-ID: <name@x>\nSubject: Name\nMIME-Version: 1.0\n"
            "Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: text/plain\n\nText\n--b\n"
            "Content-Type: application/pdf\nContent-Disposition: attachment; "
            "filename*=utf-8''b.pdf%0D%0ABcc%3A%20evil%40attacker.example%0D%0AX-Inj%3A%202.pdf\n"
            "Content-Transfer-Encoding: base64\n\nJVBERi0xLjQK\n--b--\n");
    const auto utf16 = [](const std::string& ascii) {
        std::string wide;
        for (const char c : ascii + '\0') wide += std::string{c, '\0'};
        return wide;
    };
    using namespace velmar::mapi::tnef;
    const velmar::test::CTnefStream winmail =
        velmar::test::CTnefStream()
            .Attribute(kLevelAttachment, kAttAttachRenddata, std::string(14, '\0'))
            .Attribute(kLevelAttachment, kAttAttachData, "Bild")
            .Attribute(kLevelAttachment, kAttAttachment,
                       velmar::test::CTnefStream::Properties(
                           {{0x3707001F /* PR_ATTACH_LONG_FILENAME_W */, utf16("c.png")},
                            {0x3712001F /* PR_ATTACH_CONTENT_ID_W */, utf16("bild" + injected)}}));
    Deliver("one", "2.M2.h",
            "From: x@example.org\nMessage-ID: <tnef@x>\nSubject: Winmail\nMIME-Version: 1.0\n"
            "Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: text/plain\n\nText\n--b\n"
            "Content-Type: application/ms-tnef; name=winmail.dat\nContent-Transfer-Encoding: base64\n\n" +
                velmar::test::Base64(winmail.Text()) + "\n--b--\n");
    Start();
    CSendRequest send{.subject = "Datei", .to = {"x@remote.example"}, .files = {file.string()}};
    EXPECT_STREQ(Send(send)->StringOf("status"), "OK");
    for (const char* id : {"<name@x>", "<tnef@x>"}) {
        CSendRequest forward{.command = "ForwardEmail",
                             .to = {"x@remote.example"},
                             .messageId = id,
                             .toEmailAddress = "one@x"};
        EXPECT_STREQ(Send(forward)->StringOf("status"), "OK");
    }
    const std::vector<CReceivedMail> mails = server.WaitForMessages(3);
    ASSERT_EQ(mails.size(), 3u) << Activity();
    for (const CReceivedMail& mail : mails) {
        EXPECT_EQ(mail.recipients, std::vector<std::string>{"x@remote.example"});
        size_t parts = 0;
        for (size_t at = 0; at < mail.data.size();) {
            const size_t end = std::min(mail.data.find("\r\n", at), mail.data.size());
            std::string line = mail.data.substr(at, end - at);
            std::transform(line.begin(), line.end(), line.begin(), [](char c) { return std::tolower(c); });
            EXPECT_NE(line.rfind("bcc:", 0), 0u) << mail.data;
            EXPECT_NE(line.rfind("x-inj", 0), 0u) << mail.data;
            if (line.rfind("content-disposition:", 0) == 0) ++parts;
            at = end + 2;
        }
        EXPECT_EQ(parts, 1u) << "one attachment, no part of its own:\n" << mail.data;
    }
}

TEST_F(SmtpSending, AServerThatIsDownAndComesBackGetsEveryMessageOnce) {
    CSmtpTestServer& server = UsedServer();
    server.Stop();
    Start();
    CSendRequest request{.subject = "Erste", .to = {"anna@remote.example"}};
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(MessageFiles("one", ".Outbox").size(), 1u) << "queued while the server is down";
    EXPECT_TRUE(MessageFiles("one", ".Sent").empty());

    ASSERT_TRUE(server.Start());
    request.subject = "Zweite";
    request.forceSend = true;
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
    // The forced send waits for its pass: both are out when the reply comes.
    const std::vector<CReceivedMail> mails = server.Messages();
    ASSERT_EQ(mails.size(), 2u) << Activity();
    EXPECT_NE(Field(mails[0].data, "Message-Id"), Field(mails[1].data, "Message-Id"));
    EXPECT_TRUE(WaitForEmpty("one", ".Outbox"));
    EXPECT_EQ(WaitForMessages("one", ".Sent", 2).size(), 2u);
    EXPECT_NE(Activity().find("CVelmarMapi::OutlookForceSend FlushQueues end"), std::string::npos);
}

TEST_F(SmtpSending, ARecipientRefusedForGoodIsReportedAndOneRefusedForNowIsTriedAgain) {
    CSmtpTestServer& server = UsedServer();
    server.SetControl(R"({"rcpt": {"bad@remote.example": "550 5.1.1 No such user here",
                                   "later@remote.example": "451 4.3.0 Try again later"}})");
    Start();
    CSendRequest request{.subject = "Teils",
                         .to = {"good@remote.example", "bad@remote.example", "later@remote.example"},
                         .forceSend = true};
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");

    std::vector<CReceivedMail> mails = server.Messages();
    ASSERT_EQ(mails.size(), 1u) << Activity();
    EXPECT_EQ(mails[0].recipients, std::vector<std::string>{"good@remote.example"});
    const auto reports = WaitForMessages("one", "", 1);
    ASSERT_EQ(reports.size(), 1u) << "the sender's inbox gets a delivery report";
    const std::string report = ReadFile(reports[0]);
    EXPECT_NE(report.find("multipart/report; report-type=delivery-status"), std::string::npos);
    EXPECT_NE(report.find("Final-Recipient: rfc822; bad@remote.example"), std::string::npos);
    EXPECT_NE(report.find("Status: 5.1.1"), std::string::npos);
    EXPECT_NE(report.find("> 550 5.1.1 No such user here"), std::string::npos)
        << "the server's words, quoted";
    EXPECT_EQ(report.find("Final-Recipient: rfc822; later@remote.example"), std::string::npos)
        << "a 4xx is no refusal";
    auto reportData = MessageData(Field(report, "Message-ID"), "", 0, false, false);
    EXPECT_STREQ(reportData->StringOf("subject"), "Unzustellbar: Teils");
    EXPECT_EQ(MessageFiles("one", ".Outbox").size(), 1u) << "still queued for the recipient refused for now";

    server.SetControl("{}");
    request.subject = "Anstoss";
    request.to = {"other@remote.example"};
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
    mails = server.Messages();
    ASSERT_EQ(mails.size(), 3u);
    std::vector<std::string> all;
    for (const CReceivedMail& mail : mails)
        all.insert(all.end(), mail.recipients.begin(), mail.recipients.end());
    EXPECT_EQ(Sorted(all), (std::vector<std::string>{"good@remote.example", "later@remote.example",
                                                     "other@remote.example"}))
        << "each recipient once";
    EXPECT_TRUE(WaitForEmpty("one", ".Outbox"));
}

// A connection lost after the data: the server may have the message, but never said so. It stays queued and
// goes again; the server sees it twice, with one Message-ID, which is the only safe way.
TEST_F(SmtpSending, AConnectionLostAfterTheDataKeepsTheMessageQueued) {
    CSmtpTestServer& server = UsedServer();
    server.SetControl(R"({"drop_after_data": true})");
    Start();
    CSendRequest request{.subject = "Verloren", .to = {"anna@remote.example"}, .forceSend = true};
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
    EXPECT_EQ(MessageFiles("one", ".Outbox").size(), 1u);
    EXPECT_TRUE(MessageFiles("one", ".Sent").empty());
    const std::string activity = Activity();
    EXPECT_NE(activity.find("CVelmarMapi::OutlookForceSend 1 message(s) queued: SMTP"), std::string::npos)
        << "the trace says what waits and why";

    server.SetControl("{}");
    request.subject = "Anstoss";
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
    // The submit's own pass and the forced one may both have tried while the server dropped the line: the
    // server holds one or more dropped copies, all with the lost message's id, then one good copy of each.
    std::map<std::string, int> good;
    std::set<std::string> lostIds;
    size_t dropped = 0;
    for (const CReceivedMail& mail : server.Messages()) {
        const std::string subject = Field(mail.data, "Subject");
        if (mail.dropped) {
            ++dropped;
            EXPECT_EQ(subject, "Verloren");
        } else {
            ++good[subject];
        }
        if (subject == "Verloren") lostIds.insert(Field(mail.data, "Message-Id"));
    }
    EXPECT_GE(dropped, 1u);
    EXPECT_EQ(good, (std::map<std::string, int>{{"Anstoss", 1}, {"Verloren", 1}}));
    EXPECT_EQ(lostIds.size(), 1u) << "every copy is the same message";
    EXPECT_TRUE(WaitForEmpty("one", ".Outbox"));
}

TEST_F(SmtpSending, AServiceKilledWhileTheServerHoldsTheDataSendsItAgainAfterRestart) {
    CSmtpTestServer& server = UsedServer();
    server.SetControl(R"({"stall_data_seconds": 2})");
    Start();
    CSendRequest request{.subject = "Unterwegs", .to = {"anna@remote.example"}};
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
    std::this_thread::sleep_for(std::chrono::milliseconds(800));  // the data is with the server now
    StopService(SIGKILL);
    EXPECT_EQ(MessageFiles("one", ".Outbox").size(), 1u) << "a message in transfer stays queued";

    server.SetControl("{}");
    Start();  // the logon starts the spooler, which takes up the queue
    EXPECT_TRUE(WaitForEmpty("one", ".Outbox"));
    const std::vector<CReceivedMail> mails = server.WaitForMessages(1);
    ASSERT_GE(mails.size(), 1u) << "never lost";
    ASSERT_LE(mails.size(), 2u) << "at worst twice";
    for (const CReceivedMail& mail : mails)
        EXPECT_EQ(Field(mail.data, "Message-Id"), Field(mails[0].data, "Message-Id"));
    EXPECT_EQ(WaitForMessages("one", ".Sent", 1).size(), 1u);
}

// A real mail server: a private Postfix on a loopback port, delivering into a Maildir the test reads.
TEST_F(SmtpSending, APrivatePostfixDeliversTheMessageIntoItsMaildir) {
    if (geteuid() != 0 || !fs::exists("/usr/sbin/postfix")) GTEST_SKIP() << "needs Postfix and root";
    const velmar::test::CPostfixServer postfix(m_dir / "postfix", {"anna", "bcc"});
    ASSERT_TRUE(postfix.Ready());
    WriteProfile("smtp.url = smtp://127.0.0.1:" + std::to_string(postfix.Port()) + "\n");
    Start();
    CSendRequest request{.subject = "Über Postfix",
                         .body = "Zeile eins\n.\nZeile nach einem Punkt",
                         .to = {"Anna <anna@example.test>"},
                         .bcc = {"bcc@example.test"}};
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
    const auto toAnna = postfix.Delivered("anna");
    const auto toBcc = postfix.Delivered("bcc");
    ASSERT_EQ(toAnna.size(), 1u) << ReadFile(postfix.Log());
    ASSERT_EQ(toBcc.size(), 1u) << "the Bcc recipient is in the envelope";
    const std::string mail = ReadFile(toAnna[0]);
    EXPECT_EQ(Field(mail, "Bcc"), "");
    EXPECT_EQ(Field(mail, "To"), "Anna <anna@example.test>");
    EXPECT_NE(mail.find("Zeile eins\n.\nZeile nach einem Punkt"), std::string::npos)
        << "a line of one dot arrives as it was (dot-stuffed on the way)";
    EXPECT_TRUE(WaitForEmpty("one", ".Outbox"));
}

}  // namespace
