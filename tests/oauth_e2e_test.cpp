// Accounts that sign in with OAuth2, through the real service: a test authorization server (device flow,
// refresh, revocation, introspection), a Dovecot that takes its
// tokens by OAUTHBEARER and XOAUTH2, and a Postfix that takes mail only from clients signed in through that
// Dovecot. The test plays the user at the verification address.
#include <unistd.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <signal.h>

#include <cstdio>
#include <cstdlib>

#include "harness/DovecotServer.h"
#include "harness/OAuthTestServer.h"
#include "harness/PostfixServer.h"
#include "harness/ShellCommand.h"
#include "tests/SendServiceFixture.h"

namespace {

using namespace velmar::test;
namespace fs = std::filesystem;

// How long the access tokens live where a test waits for them to run out, and where it does not: a server
// delays the sign-in after a refused one (Dovecot's penalty, up to 15 s), which a token must outlive.
constexpr int kShortTokenSeconds = 4;
constexpr int kTokenSeconds = 60;

// A session bus of the test's own with an unlocked keyring on it (gnome-keyring-daemon's Secret Service),
// named to the processes the test starts from now on; gone with the object.
class CKeyringSession {
public:
    explicit CKeyringSession(const fs::path& folder) {
        fs::create_directories(folder);
        fs::permissions(folder, fs::perms::owner_all);
        const std::string started =
            CommandOutput("dbus-daemon --session --fork --print-address=1 --print-pid=1");
        const size_t line = started.find('\n');
        if (line == std::string::npos) return;
        m_address = started.substr(0, line);
        m_pid = std::atoi(started.c_str() + line + 1);
        CommandOutput("DBUS_SESSION_BUS_ADDRESS='" + m_address + "' XDG_RUNTIME_DIR='" + folder.string() +
                      "' sh -c 'echo -n velmar | gnome-keyring-daemon --unlock --components=secrets'");
        SetEnvironment("DBUS_SESSION_BUS_ADDRESS", m_address);
    }
    ~CKeyringSession() {
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
        // And no browser of the user's: the test is the browser.
        unsetenv("DISPLAY");
        unsetenv("WAYLAND_DISPLAY");
        if (m_pid > 0) kill(m_pid, SIGTERM);  // the keyring daemon leaves with its bus
    }
    bool Ready() const { return m_pid > 0; }
    // The labels of the refresh tokens kept there.
    std::string Items() const {
        return CommandOutput(
            "DBUS_SESSION_BUS_ADDRESS='" + m_address +
            "' secret-tool search --all xdg:schema de.velmar.TaskScheduler.RefreshToken 2>&1");
    }

private:
    std::string m_address;
    int m_pid = 0;
};

std::string Mail(const std::string& id, const std::string& subject) {
    return "From: Berta <berta@example.org>\r\nTo: Anna <anna@example.org>\r\nSubject: " + subject +
           "\r\nMessage-ID: " + id + "\r\n\r\nHallo.\r\n";
}

class OAuth2Accounts : public CSendServiceTest {
protected:
    void SetUp() override {
        if (geteuid() != 0 || !fs::exists("/usr/sbin/postfix"))
            GTEST_SKIP() << "needs Dovecot, Postfix and root";
        CSendServiceTest::SetUp();
        // No keyring of the user's: the refresh tokens go into files of the test's, unless a test starts
        // a keyring of its own.
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
        // And no browser of the user's: the test is the browser.
        unsetenv("DISPLAY");
        unsetenv("WAYLAND_DISPLAY");
        SetEnvironment("XDG_CACHE_HOME", (m_dir / "cache").string());
        SetEnvironment("XDG_DATA_HOME", (m_dir / "data").string());
    }

    // mechanisms: those the servers take tokens by.
    void StartServers(int tokenSeconds, const std::string& mechanisms = "oauthbearer xoauth2") {
        m_oauth.emplace(m_dir / "oauth", tokenSeconds);
        ASSERT_TRUE(m_oauth->Ready()) << m_oauth->StartError();
        m_dovecot.emplace(m_dir / "dovecot", std::vector<std::string>{"anna"}, EDovecotFlavour::Standard,
                          m_oauth->Url("/introspect"), mechanisms);
        ASSERT_TRUE(m_dovecot->Ready()) << ReadFile(m_dir / "dovecot/dovecot.log");
        m_postfix.emplace(m_dir / "postfix", std::vector<std::string>{"anna"},
                          "inet:127.0.0.1:" + std::to_string(m_dovecot->SaslPort()));
        ASSERT_TRUE(m_postfix->Ready());
    }

    // Eins on Maildir; Firma on the Dovecot, signed in with OAuth2 (the keys given); SMTP through the
    // Postfix, signed in as Firma is.
    void WriteOAuth2Profile(const std::string& signIn) {
        WriteFile(m_dir / "profiles.ini",
                  "[Velmar]\nstore1.name = Eins\nstore1.path = one\nstore1.address = one@x\n"
                  "store2.name = Firma\nstore2.imap = imap://localhost:" +
                      std::to_string(m_dovecot->Port()) +
                      "\nstore2.user = anna\nstore2.cafile = " + m_dovecot->CaFile().string() +
                      "\nstore2.address = anna@example.org\nstore2.auth = oauth2\n" + signIn +
                      "smtp.url = smtp://127.0.0.1:" + std::to_string(m_postfix->Port()) +
                      "\nsmtp.user = anna\nsmtp.oauth2.store = 2\n");
        fs::permissions(m_dir / "profiles.ini", fs::perms::owner_read | fs::perms::owner_write);
    }
    std::string OwnTokens() const {
        return "store2.oauth2.token_url = " + m_oauth->Url("/token") +
               "\nstore2.oauth2.device_url = " + m_oauth->Url("/device") +
               "\nstore2.oauth2.client_id = velmar-test\nstore2.oauth2.scope = mail\n";
    }

    // VelmarTaskScheduler --authorize Firma, with the test entering the code it shows; what it printed.
    std::string Authorize() {
        FILE* program = popen((std::string(VELMAR_SERVICE_PROGRAM) + " --authorize Firma 2>&1").c_str(), "r");
        if (!program) return "cannot run";
        std::string printed;
        char line[1024];
        while (std::fgets(line, sizeof line, program)) {
            printed += line;
            const std::string text = line;
            const size_t code = text.find("den Code ");
            const size_t browser = text.find("im Browser http");
            if (code != std::string::npos)
                m_oauth->Call("/verify",
                              {"user_code=" + text.substr(code + 9, text.find(' ', code + 9) - code - 9)});
            else if (browser != std::string::npos)
                m_browserPage =
                    m_oauth->Open(text.substr(browser + 11, text.find_last_not_of("\r\n") - browser - 10));
        }
        EXPECT_EQ(pclose(program), 0) << printed;
        return printed;
    }

    std::unique_ptr<CkJsonObject> DataOnceFound(const std::string& id, int seconds = 20) {
        std::unique_ptr<CkJsonObject> reply;
        for (int i = 0; i < seconds * 10; ++i) {
            reply = MessageData(id, "", 1, false);
            if (reply->StringOf("status") == std::string("OK")) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return reply;
    }

    // No token the authorization server handed out shows in the service's output or the tests' files.
    void ExpectNoTokenShown() {
        const std::string shown = Activity();
        for (const std::string& token : m_oauth->Tokens())
            EXPECT_EQ(shown.find(token), std::string::npos) << "a token in the activity list";
    }

    std::string m_browserPage;  // what the browser showed at the end of a sign-in in it
    std::optional<COAuthTestServer> m_oauth;
    std::optional<CDovecotServer> m_dovecot;
    std::optional<CPostfixServer> m_postfix;
};

// Before the sign-in the store says what to do and mail waits; after it, the server's mail is read and mail
// goes out through Postfix with the tokens, which renew themselves as they run out, without a failed
// request.
TEST_F(OAuth2Accounts, SignedInOnceMailIsReadAndSentWhileTokensRenewThemselves) {
    ASSERT_NO_FATAL_FAILURE(StartServers(kShortTokenSeconds));
    WriteOAuth2Profile(OwnTokens());
    m_dovecot->Deliver("anna", "INBOX", Mail("<erste@example.org>", "Erste"));
    Start();
    CSendRequest request{.subject = "Vor der Anmeldung", .to = {"anna@example.test"}, .forceSend = true};
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
    for (const char* who : {"Firma: ", "SMTP: "})
        EXPECT_NE(Activity().find(std::string(who) +
                                  "Anmeldung nötig: VelmarTaskScheduler --authorize \"Firma\" ausführen"),
                  std::string::npos)
            << who << Activity();
    EXPECT_EQ(MessageFiles("one", ".Outbox").size(), 1u) << "the message waits for the sign-in";

    const std::string printed = Authorize();
    EXPECT_NE(printed.find("öffnen Sie " + m_oauth->Url("/verify")), std::string::npos) << printed;
    EXPECT_NE(printed.find("Angemeldet: Firma"), std::string::npos) << printed;
    for (const auto& entry : fs::directory_iterator(m_dir / "data/velmar-mapi/oauth2"))
        EXPECT_EQ(entry.status().permissions() & (fs::perms::group_all | fs::perms::others_all),
                  fs::perms::none);

    EXPECT_STREQ(DataOnceFound("<erste@example.org>")->StringOf("subject"), "Erste");
    request.subject = "Nach der Anmeldung";
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
    EXPECT_EQ(m_postfix->Delivered("anna", 2).size(), 2u) << ReadFile(m_postfix->Log());
    EXPECT_TRUE(WaitForEmpty("one", ".Outbox"));

    // Past the tokens' lifetime: each send signs in anew and none is refused.
    const int refreshes = m_oauth->Count("refreshes");
    for (int i = 0; i < 2; ++i) {
        std::this_thread::sleep_for(std::chrono::seconds(kShortTokenSeconds + 1));
        request.subject = "Später " + std::to_string(i);
        EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
    }
    EXPECT_EQ(m_postfix->Delivered("anna", 4).size(), 4u) << Activity();
    EXPECT_GE(m_oauth->Count("refreshes"), refreshes + 2);
    EXPECT_EQ(Activity().find("abgelehnt"), std::string::npos) << "a token that ran out was never offered";
    ExpectNoTokenShown();
}

// A refresh token the server no longer takes: the store and the forced send say a sign-in is needed, the
// queued mail stays, nothing is reported undeliverable; after a new --authorize it goes, once.
TEST_F(OAuth2Accounts, ARevokedSignInKeepsMailQueuedUntilTheUserSignsInAgain) {
    ASSERT_NO_FATAL_FAILURE(StartServers(kTokenSeconds));
    WriteOAuth2Profile(OwnTokens());
    Authorize();
    Start();
    m_oauth->Call("/revoke");
    m_oauth->Call("/expire");
    std::this_thread::sleep_for(std::chrono::seconds(1));
    CSendRequest request{.subject = "Wartet", .to = {"anna@example.test"}, .forceSend = true};
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
    EXPECT_NE(Activity().find("SMTP: Anmeldung nötig: VelmarTaskScheduler --authorize \"Firma\""),
              std::string::npos)
        << Activity();
    EXPECT_EQ(MessageFiles("one", ".Outbox").size(), 1u);
    EXPECT_TRUE(MessageFiles("one").empty()) << "no delivery report";

    Authorize();
    request.subject = "Anstoß";
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
    EXPECT_EQ(m_postfix->Delivered("anna", 2).size(), 2u) << Activity();
    EXPECT_TRUE(WaitForEmpty("one", ".Outbox"));
    std::this_thread::sleep_for(std::chrono::seconds(1));
    EXPECT_EQ(m_postfix->Delivered("anna").size(), 2u) << "each message once";
    ExpectNoTokenShown();
}

// Where a Secret Service runs, the refresh token goes there and no file holds it.
TEST_F(OAuth2Accounts, TheRefreshTokenIsKeptInTheSecretServiceWhereOneRuns) {
    ASSERT_NO_FATAL_FAILURE(StartServers(kTokenSeconds));
    const CKeyringSession keyring(m_dir / "keyring");
    ASSERT_TRUE(keyring.Ready());
    WriteOAuth2Profile(OwnTokens());
    m_dovecot->Deliver("anna", "INBOX", Mail("<schluessel@example.org>", "Im Schlüsselbund"));
    EXPECT_NE(Authorize().find("Angemeldet: Firma"), std::string::npos);
    EXPECT_NE(keyring.Items().find("label = VelmarTaskScheduler OAuth2 imap-"), std::string::npos)
        << keyring.Items();
    EXPECT_FALSE(fs::exists(m_dir / "data/velmar-mapi/oauth2") &&
                 !fs::is_empty(m_dir / "data/velmar-mapi/oauth2"));
    Start();
    EXPECT_STREQ(DataOnceFound("<schluessel@example.org>")->StringOf("subject"), "Im Schlüsselbund");
    ExpectNoTokenShown();
}

// Without a device endpoint the sign-in is in the browser: the authorization code with PKCE comes back to a
// loopback port of the sign-in's own.
TEST_F(OAuth2Accounts, ASignInInTheBrowserComesBackToThisMachine) {
    ASSERT_NO_FATAL_FAILURE(StartServers(kTokenSeconds));
    WriteOAuth2Profile("store2.oauth2.token_url = " + m_oauth->Url("/token") +
                       "\nstore2.oauth2.authorize_url = " + m_oauth->Url("/authorize") +
                       "\nstore2.oauth2.client_id = velmar-test\nstore2.oauth2.scope = mail\n");
    m_dovecot->Deliver("anna", "INBOX", Mail("<browser@example.org>", "Aus dem Browser"));
    const std::string printed = Authorize();
    EXPECT_NE(printed.find("öffnen Sie im Browser " + m_oauth->Url("/authorize?response_type=code")),
              std::string::npos)
        << printed;
    EXPECT_NE(printed.find("Angemeldet: Firma"), std::string::npos) << printed;
    EXPECT_NE(m_browserPage.find("Sie können dieses Fenster schließen"), std::string::npos) << m_browserPage;
    Start();
    EXPECT_STREQ(DataOnceFound("<browser@example.org>")->StringOf("subject"), "Aus dem Browser");
    ExpectNoTokenShown();
}

// A token helper: its token signs in; one the server refuses (expired early) makes the service ask it again.
// Against servers that take tokens by both mechanisms, and by XOAUTH2 alone, as Outlook's IMAP does.
class OAuth2Mechanisms : public OAuth2Accounts, public ::testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(Offered, OAuth2Mechanisms, ::testing::Values("oauthbearer xoauth2", "xoauth2"),
                         [](const auto& info) {
                             return std::string(info.param).find(' ') == std::string::npos
                                        ? std::string("XOAuth2Only")
                                        : std::string("Both");
                         });

TEST_P(OAuth2Mechanisms, ATokenHelperIsAskedAgainWhenTheServerRefusesItsToken) {
    ASSERT_NO_FATAL_FAILURE(StartServers(kTokenSeconds, GetParam()));
    const fs::path asked = m_dir / "asked";
    WriteOAuth2Profile("store2.oauth2.tokeneval = echo >>'" + asked.string() + "'; " +
                       m_oauth->TokenCommand() + "\n");
    m_dovecot->Deliver("anna", "INBOX", Mail("<helfer@example.org>", "Vom Helfer"));
    Start();
    EXPECT_STREQ(DataOnceFound("<helfer@example.org>")->StringOf("subject"), "Vom Helfer");
    const size_t before = ReadFile(asked).size();
    m_oauth->Call("/expire");
    CSendRequest request{.subject = "Mit Helfer", .to = {"anna@example.test"}, .forceSend = true};
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
    EXPECT_EQ(m_postfix->Delivered("anna").size(), 1u) << Activity();
    EXPECT_GT(ReadFile(asked).size(), before) << "asked again after the refusal";
    ExpectNoTokenShown();
}

}  // namespace
