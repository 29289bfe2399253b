// OpenEmail end to end: the real program with its window on a private X desktop opens a message of its
// Maildir store in our note form; the form is driven with xdotool as a person would (keys), and what it did
// is read where it lands: the test SMTP server, the Trash folder, the program's exit. Screenshots of the
// read and compose forms go to the build folder.
#include <gtest/gtest.h>

#include <optional>
#include <sstream>

#include "harness/DovecotServer.h"
#include "harness/SmtpTestServer.h"
#include "harness/XDesktop.h"
#include "tests/SendServiceFixture.h"

namespace {

using namespace velmar::test;
namespace fs = std::filesystem;

const fs::path kScreenshots = fs::path(VELMAR_BUILD_DIR) / "screenshots";

class FormTest : public CSendServiceTest {
protected:
    void SetUp() override {
        CSendServiceTest::SetUp();
        m_server.emplace(m_dir / "smtp");
        WriteProfile("smtp.url = " + m_server->Url() + "\n");
        Deliver(
            "one", "1700000100.M1P1.host",
            "From: Berta Absender <berta@example.org>\nTo: Erika Eins <one@x>\nCc: Carl <carl@example.org>\n"
            "Date: Tue, 24 Nov 2026 09:30:00 +0100\nMessage-ID: <angebot@example.org>\n"
            "Subject: Angebot 42\n\nGuten Tag,\nanbei das Angebot.\n");
    }
    // The program with its window (on a desktop with a tray), logged on to the test profile.
    void StartWithWindow() {
        m_desktop.emplace(true);
        ASSERT_TRUE(m_desktop->Ready()) << "Xvfb did not start";
        StartService({});
    }

    std::unique_ptr<CkJsonObject> OpenEmail(const std::string& messageId) {
        return Ask(R"({"command-target":"MAPI","command":"OpenEmail","messageId":")" + messageId +
                   R"(","outlookProfile":"Velmar","savedMessageStore":"Eins"})");
    }

    // The program's question box: a visible window of the program's name that is not the tray icon.
    std::string WaitForQuestion() {
        for (int i = 0; i < 200; ++i) {
            std::istringstream ids(
                m_desktop->Run("xdotool search --onlyvisible --name '^VelmarTaskScheduler$'"));
            for (std::string id; ids >> id;) {
                const std::string geometry = m_desktop->Run("xdotool getwindowgeometry --shell " + id);
                const size_t width = geometry.find("WIDTH=");
                if (width != std::string::npos && std::stoi(geometry.substr(width + 6)) >= 150) return id;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return {};
    }
    // Keys to a window as a person types them: the window gets the keyboard first.
    void Keys(const std::string& window, const std::string& keys) {
        m_desktop->Run("xdotool windowfocus --sync " + window);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        m_desktop->Run("xdotool key --delay 50 " + keys);
    }
    void Type(const std::string& window, const std::string& text) {
        m_desktop->Run("xdotool windowfocus --sync " + window);
        m_desktop->Run("xdotool type --delay 30 '" + text + "'");
    }
    void Screenshot(const std::string& window, const std::string& name) {
        fs::create_directories(kScreenshots);
        m_desktop->Run("import -window " + window + " '" + (kScreenshots / name).string() + "'");
        EXPECT_TRUE(fs::exists(kScreenshots / name)) << name;
    }

    std::optional<CXDesktop> m_desktop;
    std::optional<CSmtpTestServer> m_server;
};

TEST_F(FormTest, OpenEmailShowsTheMessageAndItsReplyGoesOutThroughTheSpooler) {
    StartWithWindow();
    EXPECT_STREQ(OpenEmail("<angebot@example.org>")->StringOf("status"), "OK");
    const std::string form = m_desktop->WaitForWindow("Angebot 42");
    ASSERT_FALSE(form.empty()) << "no form came up";
    Screenshot(form, "linux-read-form.png");

    Keys(form, "alt+a");
    const std::string reply = m_desktop->WaitForWindow("AW: Angebot 42");
    ASSERT_FALSE(reply.empty()) << "no reply form came up";
    Type(reply, "Vielen Dank, wir nehmen es an.");
    Screenshot(reply, "linux-compose-form.png");
    Keys(reply, "alt+s");
    EXPECT_TRUE(m_desktop->WaitUntilGone("AW: Angebot 42")) << "the reply form stays after Senden";

    // Through the spooler to the server: to the sender, with the subject and the text typed.
    std::vector<CReceivedMail> mails;
    for (int i = 0; i < 300 && mails.empty(); ++i) {
        mails = m_server->Messages();
        if (mails.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    ASSERT_EQ(mails.size(), 1u);
    EXPECT_EQ(mails[0].recipients, std::vector<std::string>{"berta@example.org"});
    EXPECT_EQ(Field(mails[0].data, "Subject"), "AW: Angebot 42");
    EXPECT_NE(mails[0].data.find("Vielen Dank, wir nehmen es an."), std::string::npos) << mails[0].data;
    EXPECT_NE(mails[0].data.find("anbei das Angebot."), std::string::npos) << "the original is quoted";
    EXPECT_EQ(WaitForMessages("one", ".Sent", 1).size(), 1u) << "the sent copy";
    // The read form stays until it is closed itself.
    EXPECT_FALSE(m_desktop->WaitForWindow("Angebot 42", 1).empty());
    Keys(form, "alt+c");
    EXPECT_TRUE(m_desktop->WaitUntilGone("Angebot 42"));
}

// A reply closed with "keep the changes" is kept as a draft: once its form is gone, the draft is a file of
// the outbox (flag D), with what was typed, and nothing is sent.
TEST_F(FormTest, AReplyClosedWithItsChangesKeptIsADraft) {
    StartWithWindow();
    EXPECT_STREQ(OpenEmail("<angebot@example.org>")->StringOf("status"), "OK");
    const std::string form = m_desktop->WaitForWindow("Angebot 42");
    ASSERT_FALSE(form.empty()) << "no form came up";
    Keys(form, "alt+a");
    const std::string reply = m_desktop->WaitForWindow("AW: Angebot 42");
    ASSERT_FALSE(reply.empty()) << "no reply form came up";
    Type(reply, "Nur ein Entwurf.");
    Keys(reply, "alt+c");
    const std::string question = WaitForQuestion();
    ASSERT_FALSE(question.empty()) << "no question";
    Keys(question, "Return");  // "Yes", keep the changes, is the default button
    EXPECT_TRUE(m_desktop->WaitUntilGone("AW: Angebot 42"));
    const std::vector<fs::path> drafts = WaitForMessages("one", ".Outbox", 1);
    ASSERT_EQ(drafts.size(), 1u) << "the draft is written once its form lets it go";
    EXPECT_NE(drafts[0].filename().string().find(":2,D"), std::string::npos) << drafts[0];
    EXPECT_NE(ReadFile(drafts[0]).find("Nur ein Entwurf."), std::string::npos);
    EXPECT_TRUE(m_server->Messages().empty()) << "a draft is not sent";
    Keys(form, "alt+c");
    EXPECT_TRUE(m_desktop->WaitUntilGone("Angebot 42"));
}

TEST_F(FormTest, LoeschenMovesTheMessageToTheTrash) {
    StartWithWindow();
    ASSERT_TRUE(Ask(R"({"command-target":"MAPI","command":"Logon","data_string":"Velmar"})"));
    ASSERT_TRUE(Ask(R"({"command-target":"MAPI","command":"OpenMessageStoreTable"})"));
    // FindMessage opens the form too: the main window is its parent.
    EXPECT_STREQ(
        Ask(R"({"command-target":"MAPI","command":"FindMessage","messageId":"<angebot@example.org>",)"
            R"("toEmailAddress":"","setReadIfMainMessageStore":false,"fetchEMailData":false})")
            ->StringOf("status"),
        "OK");
    const std::string form = m_desktop->WaitForWindow("Angebot 42");
    ASSERT_FALSE(form.empty()) << "no form came up";
    Keys(form, "alt+l");
    EXPECT_TRUE(m_desktop->WaitUntilGone("Angebot 42")) << "the form stays after Löschen";
    EXPECT_EQ(WaitForMessages("one", ".Trash", 1).size(), 1u);
    EXPECT_TRUE(MessageFiles("one").empty()) << "still in the inbox";
}

// The same on a store on an IMAP server, configured as other makers configure theirs too: the message moves
// to the server's Trash (made inside the namespace where there was none), and leaves the inbox.
class FormOnServers : public FormTest, public ::testing::WithParamInterface<EDovecotFlavour> {};

INSTANTIATE_TEST_SUITE_P(Kinds, FormOnServers, ::testing::ValuesIn(kServerKinds),
                         [](const auto& info) { return FlavourTestName(info.param); });

TEST_P(FormOnServers, LoeschenOfAMessageOnTheServerMovesItToTheServersTrash) {
    if (geteuid() != 0) GTEST_SKIP() << "the private Dovecot runs as root";
    CDovecotServer imap(m_dir / "dovecot", {"anna"}, GetParam());
    ASSERT_TRUE(imap.Ready());
    imap.Deliver(
        "anna", "INBOX",
        "From: Berta <berta@example.org>\r\nTo: anna@example.org\r\nMessage-ID: <server@example.org>\r\n"
        "Subject: Vom Server\r\n\r\nLiegt auf dem Server.\r\n");
    SetEnvironment("XDG_CACHE_HOME", (m_dir / "cache").string());
    SetEnvironment("XDG_DATA_HOME", (m_dir / "data").string());
    WriteProfile("smtp.url = " + m_server->Url() +
                 "\nstore4.name = Firma\nstore4.imap = imap://localhost:" + std::to_string(imap.Port()) +
                 "\nstore4.user = anna\nstore4.password = geheim\nstore4.cafile = " + imap.CaFile().string() +
                 "\nstore4.address = anna@example.org\n");
    fs::permissions(m_dir / "profiles.ini", fs::perms::owner_read | fs::perms::owner_write);
    StartWithWindow();
    ASSERT_TRUE(Ask(R"({"command-target":"MAPI","command":"Logon","data_string":"Velmar"})"));
    ASSERT_TRUE(Ask(R"({"command-target":"MAPI","command":"OpenMessageStoreTable"})"));
    EXPECT_STREQ(Ask(R"({"command-target":"MAPI","command":"FindMessage","messageId":"<server@example.org>",)"
                     R"("toEmailAddress":"","setReadIfMainMessageStore":false,"fetchEMailData":false})")
                     ->StringOf("status"),
                 "OK");
    const std::string form = m_desktop->WaitForWindow("Vom Server");
    ASSERT_FALSE(form.empty()) << "no form came up";
    if (GetParam() == EDovecotFlavour::Standard) Screenshot(form, "linux-read-form-imap.png");
    Keys(form, "alt+l");
    EXPECT_TRUE(m_desktop->WaitUntilGone("Vom Server")) << "the form stays after Löschen";
    EXPECT_EQ(imap.Count("anna", "Trash", "<server@example.org>"), 1u);
    EXPECT_EQ(imap.Count("anna", "INBOX", "<server@example.org>"), 0u);
}

TEST_F(FormTest, ClosingTheMainWindowAsksWhileAFormIsOpen) {
    StartWithWindow();
    EXPECT_STREQ(OpenEmail("<angebot@example.org>")->StringOf("status"), "OK");
    const std::string form = m_desktop->WaitForWindow("Angebot 42");
    ASSERT_FALSE(form.empty()) << "no form came up";

    // Asked to close, the window asks first; "No" keeps the program and the form.
    EXPECT_STREQ(Ask(R"({"command-target":"MAPI","command":"CloseVelmarTaskScheduler"})")->StringOf("status"),
                 "OK");
    const std::string question = WaitForQuestion();
    ASSERT_FALSE(question.empty()) << "no question";
    Screenshot(question, "linux-close-question.png");
    Keys(question, "Escape");
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_FALSE(m_service->WaitForExit(0));
    EXPECT_FALSE(m_desktop->WaitForWindow("Angebot 42", 1).empty());

    // The service stopped with the request; with the form closed, a stop signal ends the program without
    // a question.
    Keys(form, "alt+c");
    ASSERT_TRUE(m_desktop->WaitUntilGone("Angebot 42"));
    ASSERT_TRUE(m_service->Signal(SIGTERM));
    EXPECT_EQ(m_service->WaitForExit(10000), 0);
}

TEST_F(FormTest, ClosingWithAFormOpenShutsItDownWhenTheUserSaysYes) {
    StartWithWindow();
    EXPECT_STREQ(OpenEmail("<angebot@example.org>")->StringOf("status"), "OK");
    ASSERT_FALSE(m_desktop->WaitForWindow("Angebot 42").empty()) << "no form came up";
    EXPECT_STREQ(Ask(R"({"command-target":"MAPI","command":"CloseVelmarTaskScheduler"})")->StringOf("status"),
                 "OK");
    const std::string question = WaitForQuestion();
    ASSERT_FALSE(question.empty()) << "no question";
    Keys(question, "Return");  // "Yes" is the default button
    EXPECT_EQ(m_service->WaitForExit(10000), 0);
    EXPECT_EQ(MessageFiles("one").size(), 1u) << "the message stays where it was";
}

TEST_F(FormTest, HeadlessOpenEmailAnswersOkAndTracesThatNoFormCanOpen) {
    Start();
    EXPECT_STREQ(OpenEmail("<angebot@example.org>")->StringOf("status"), "OK");
    EXPECT_STREQ(OpenEmail("<unbekannt@example.org>")->StringOf("status"), "OK");
    const std::string activity = Activity();
    EXPECT_NE(activity.find("-> OpenEmail"), std::string::npos);
    EXPECT_NE(activity.find("OpenEmail: no window to show the message in"), std::string::npos) << activity;
    EXPECT_EQ(activity.find("MapiOpenMessageNonModal start"), std::string::npos) << activity;
}

}  // namespace
