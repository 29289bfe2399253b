// SMTP submission through libcurl against a real SMTP server on loopback (aiosmtpd, see
// tests/smtp/smtp_test_server.py): the bytes and the envelope that arrive, STARTTLS, TLS from the first
// byte and AUTH, each recipient's own reply, the replies that make a failure temporary or permanent, and a
// server that is down. Before them, the smtp.* settings of a profile and where the password comes from.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "harness/SmtpTestServer.h"
#include "harness/TestFiles.h"
#include "mapi/oauth/Endpoints.h"
#include "mapi/spool/SmtpSettings.h"
#include "mapi/spool/SmtpSubmission.h"

namespace {

namespace fs = std::filesystem;
using velmar::mapi::ApplySmtpSetting;
using velmar::mapi::COAuth2Endpoints;
using velmar::mapi::CSmtpResult;
using velmar::mapi::CSmtpSettings;
using velmar::mapi::EffectiveStartTls;
using velmar::mapi::EndpointsOf;
using velmar::mapi::ResolveSmtpPassword;
using velmar::mapi::SmtpOutcome;
using velmar::mapi::StartTlsPolicy;
using velmar::mapi::SubmitBySmtp;
using velmar::test::CReceivedMail;
using velmar::test::CSmtpTestServer;
using velmar::test::CTempDir;
using velmar::test::ReadFile;
using velmar::test::WriteFile;

const char* NameOf(SmtpOutcome outcome) {
    switch (outcome) {
        case SmtpOutcome::Accepted:
            return "Accepted";
        case SmtpOutcome::Temporary:
            return "Temporary";
        case SmtpOutcome::Permanent:
            return "Permanent";
    }
    return "?";
}

// Everything a failed expectation needs to be understood.
std::string Described(const CSmtpResult& result) {
    std::string text =
        std::string(NameOf(result.outcome)) + " " + std::to_string(result.code) + " " + result.text;
    for (const auto& recipient : result.recipients)
        text += "\n  " + recipient.address + ": " + std::to_string(recipient.code) + " " + recipient.text;
    return text;
}

// No child of this process is left unreaped (none is running in these cases).
bool NoZombies() {
    int status = 0;
    return waitpid(-1, &status, WNOHANG) < 0 && errno == ECHILD;
}

// ------------------------------------------------------------------------------------------- settings

TEST(SmtpSettings, KeysValuesAndTheStartTlsPolicy) {
    CSmtpSettings settings;
    EXPECT_TRUE(ApplySmtpSetting(settings, "SMTP.URL", "  smtp://mail.example.org:587 "));
    EXPECT_TRUE(ApplySmtpSetting(settings, "smtp.User", " anna "));
    EXPECT_TRUE(ApplySmtpSetting(settings, "smtp.passwordeval", " pass show mail "));
    EXPECT_TRUE(ApplySmtpSetting(settings, "smtp.password", " mit Leerzeichen "));
    EXPECT_TRUE(ApplySmtpSetting(settings, "smtp.cafile", "/etc/private-ca.pem"));
    EXPECT_EQ(settings.url, "smtp://mail.example.org:587");
    EXPECT_EQ(settings.user, "anna");
    EXPECT_EQ(settings.passwordEval, "pass show mail");
    EXPECT_EQ(settings.password, " mit Leerzeichen ") << "a password keeps its spaces";
    EXPECT_EQ(settings.caFile, "/etc/private-ca.pem");
    EXPECT_FALSE(settings.starttls.has_value());
    EXPECT_FALSE(ApplySmtpSetting(settings, "smtp.server", "x")) << "not a key of ours";
    EXPECT_FALSE(ApplySmtpSetting(settings, "store1.path", "x"));
    EXPECT_EQ(settings.url, "smtp://mail.example.org:587");

    // smtp.starttls takes three values; an unknown one changes nothing.
    const std::pair<const char*, StartTlsPolicy> values[] = {{"Optional", StartTlsPolicy::Optional},
                                                             {"no", StartTlsPolicy::No},
                                                             {"REQUIRED", StartTlsPolicy::Required},
                                                             {"maybe", StartTlsPolicy::Required}};
    for (const auto& [value, policy] : values) {
        EXPECT_EQ(ApplySmtpSetting(settings, "smtp.starttls", value), std::string(value) != "maybe") << value;
        EXPECT_EQ(settings.starttls, policy) << value;
    }

    // Unset, it is required unless the host is a loopback address; what is given wins.
    const auto policyFor = [](const std::string& url, std::optional<StartTlsPolicy> given = std::nullopt) {
        CSmtpSettings settings;
        settings.url = url;
        settings.starttls = given;
        return EffectiveStartTls(settings);
    };
    for (const char* loopback : {"smtp://127.0.0.1:2525", "smtp://127.200.3.4", "smtp://localhost:25",
                                 "smtp://LocalHost", "smtp://anna@localhost:587/", "smtp://[::1]:25"})
        EXPECT_EQ(policyFor(loopback), StartTlsPolicy::Optional) << loopback;
    for (const char* remote : {"smtp://mail.example.org:587", "smtp://127.example.org:25", "smtp://10.0.0.1",
                               "smtp://[2001:db8::1]:25", "smtp://localhost.example.org", ""})
        EXPECT_EQ(policyFor(remote), StartTlsPolicy::Required) << remote;
    EXPECT_EQ(policyFor("smtp://127.0.0.1:25", StartTlsPolicy::Required), StartTlsPolicy::Required);
    EXPECT_EQ(policyFor("smtp://mail.example.org", StartTlsPolicy::No), StartTlsPolicy::No);

    // OAuth2: a provider's endpoints and scopes, unless the profile names its own.
    for (const auto& [key, value] : {std::pair{"smtp.auth", "OAuth2"},
                                     {"smtp.oauth2.provider", " Microsoft "},
                                     {"smtp.oauth2.tenant", "contoso.example"},
                                     {"smtp.oauth2.client_id", "abc"}})
        EXPECT_TRUE(ApplySmtpSetting(settings, key, value)) << key;
    EXPECT_FALSE(ApplySmtpSetting(settings, "smtp.oauth2.store", "0"));
    EXPECT_TRUE(settings.SignsInWithOAuth2());
    const COAuth2Endpoints microsoft = EndpointsOf(settings.oauth2);
    EXPECT_EQ(microsoft.tokenUrl, "https://login.microsoftonline.com/contoso.example/oauth2/v2.0/token");
    EXPECT_NE(microsoft.scope.find("SMTP.Send"), std::string::npos);
    EXPECT_NE(microsoft.scope.find("offline_access"), std::string::npos);
    settings.oauth2.provider = "google";
    settings.oauth2.scope = "eigen";
    EXPECT_EQ(EndpointsOf(settings.oauth2).deviceUrl, "https://oauth2.googleapis.com/device/code");
    EXPECT_EQ(EndpointsOf(settings.oauth2).scope, "eigen");
}

class SmtpPassword : public ::testing::Test {
protected:
    // A profile file with the permissions given.
    std::string Profile(mode_t mode) {
        const fs::path path = m_dir / "profiles.ini";
        WriteFile(path, "[Velmar]\nsmtp.password = geheim\n");
        chmod(path.c_str(), mode);
        return path.string();
    }

    CTempDir m_dir;
    std::string m_error;
};

TEST_F(SmtpPassword, TheCommandsFirstLineIsThePassword) {
    CSmtpSettings settings;
    settings.passwordEval = "printf 'geheim\\r\\nzweite Zeile\\n'";
    settings.password = "aus der Datei";  // the command comes first
    EXPECT_EQ(ResolveSmtpPassword(settings, Profile(0600), m_error), "geheim") << m_error;

    settings.passwordEval = "printf 'ohne Zeilenende'";
    EXPECT_EQ(ResolveSmtpPassword(settings, Profile(0600), m_error), "ohne Zeilenende") << m_error;
    settings.passwordEval = "true";
    EXPECT_EQ(ResolveSmtpPassword(settings, Profile(0600), m_error), "") << "no output: an empty password";
    EXPECT_TRUE(NoZombies());
}

TEST_F(SmtpPassword, ACommandThatFailsIsAnErrorAndItsOutputIsNotRepeated) {
    CSmtpSettings settings;
    settings.passwordEval = "echo geheim; exit 3";
    EXPECT_EQ(ResolveSmtpPassword(settings, Profile(0600), m_error), std::nullopt);
    EXPECT_NE(m_error.find("exit status 3"), std::string::npos) << m_error;
    EXPECT_EQ(m_error.find("geheim"), std::string::npos) << "the output may be the password";

    settings.passwordEval = "kill -9 $$";
    EXPECT_EQ(ResolveSmtpPassword(settings, Profile(0600), m_error), std::nullopt);
    EXPECT_NE(m_error.find("signal 9"), std::string::npos) << m_error;

    settings.passwordEval = "/nonexistent/password-program 2>/dev/null";
    EXPECT_EQ(ResolveSmtpPassword(settings, Profile(0600), m_error), std::nullopt);
    EXPECT_FALSE(m_error.empty());
    EXPECT_TRUE(NoZombies()) << "every command is reaped";
}

// A command may start something that keeps its output open (an agent, say); the command's own end is what
// counts, not the pipe's.
TEST_F(SmtpPassword, ACommandThatLeavesAProcessBehindIsNotWaitedFor) {
    const fs::path pidFile = m_dir / "behind.pid";
    CSmtpSettings settings;
    settings.passwordEval = "sleep 60 2>/dev/null & echo $! > '" + pidFile.string() + "'; echo geheim";
    EXPECT_EQ(ResolveSmtpPassword(settings, Profile(0600), m_error), "geheim") << m_error;
    const int behind = std::atoi(ReadFile(pidFile).c_str());
    ASSERT_GT(behind, 0);
    kill(behind, SIGKILL);
}

TEST_F(SmtpPassword, APasswordInTheFileCountsOnlyWhenOthersCannotReadIt) {
    CSmtpSettings settings;
    settings.password = "geheim";
    EXPECT_EQ(ResolveSmtpPassword(settings, Profile(0600), m_error), "geheim") << m_error;
    EXPECT_EQ(ResolveSmtpPassword(settings, Profile(0400), m_error), "geheim") << m_error;

    for (const mode_t open : {0644, 0640, 0620, 0604, 0602}) {
        m_error.clear();
        EXPECT_EQ(ResolveSmtpPassword(settings, Profile(open), m_error), std::nullopt) << std::oct << open;
        EXPECT_NE(m_error.find("smtp.password is ignored"), std::string::npos) << m_error;
        EXPECT_NE(m_error.find("by others"), std::string::npos) << m_error;
    }

    m_error.clear();
    EXPECT_EQ(ResolveSmtpPassword(settings, (m_dir / "missing.ini").string(), m_error), std::nullopt);
    EXPECT_NE(m_error.find("smtp.password is ignored"), std::string::npos) << m_error;

    settings.password.clear();
    m_error.clear();
    EXPECT_EQ(ResolveSmtpPassword(settings, Profile(0644), m_error), "") << "no password configured";
    EXPECT_TRUE(m_error.empty()) << m_error;
}

// ------------------------------------------------------------------------------------------ submission

class SmtpSubmission : public ::testing::Test {
protected:
    // A server with the options in a folder of its own, started; the test stops when it did not start.
    CSmtpTestServer& Server(std::vector<std::string> options = {}) {
        m_servers.push_back(std::make_unique<CSmtpTestServer>(
            m_dir / ("smtp" + std::to_string(m_servers.size())), std::move(options)));
        EXPECT_TRUE(m_servers.back()->Running()) << m_servers.back()->StartError();
        return *m_servers.back();
    }

    static CSmtpSettings SettingsFor(const CSmtpTestServer& server, const char* scheme = "smtp") {
        CSmtpSettings settings;
        settings.url = server.Url(scheme);
        return settings;
    }

    // A message as the spooler hands it over: CR LF line ends, ending in one. It has the lines SMTP must
    // carry through dot-stuffing: one of a single dot, one that begins with a dot.
    static std::string Message(const std::string& subject, const std::string& body = "Hallo Anna,") {
        return "From: One <one@x.example>\r\nTo: Anna <anna@remote.example>\r\nSubject: " + subject +
               "\r\nMessage-ID: <" + subject +
               "@x.example>\r\nMIME-Version: 1.0\r\n"
               "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: 8bit\r\n\r\n" +
               body + "\r\n.\r\n..zwei Punkte\r\n.ein Punkt\r\nGrüße\r\n";
    }

    // A submission without a password, from one@x.example.
    static CSmtpResult Submit(const CSmtpSettings& settings, const std::vector<std::string>& to,
                              const std::string& mime, const std::atomic<bool>* cancel = nullptr) {
        return SubmitBySmtp(settings, "", "one@x.example", to, mime, cancel);
    }

    CTempDir m_dir;
    std::vector<std::unique_ptr<CSmtpTestServer>> m_servers;
};

// TLS from the first byte for smtps://, whatever smtp.starttls says; STARTTLS as the policy says.
TEST_F(SmtpSubmission, TlsAsTheSchemeAndThePolicySay) {
    CSmtpTestServer& smtps = Server({"--tls-dir", "--smtps", "--auth", "anna:geheim"});
    CSmtpSettings settings = SettingsFor(smtps, "smtps");
    settings.starttls = StartTlsPolicy::No;
    settings.caFile = smtps.CertificateFile();
    settings.user = "anna";
    const std::string mime = Message("Sofort verschluesselt");
    const CSmtpResult result =
        SubmitBySmtp(settings, "geheim", "one@x.example", {"anna@remote.example"}, mime);
    ASSERT_EQ(result.outcome, SmtpOutcome::Accepted) << Described(result);
    std::vector<CReceivedMail> mails = smtps.Messages();
    ASSERT_EQ(mails.size(), 1u);
    EXPECT_TRUE(mails[0].tls);
    EXPECT_EQ(mails[0].user, "anna");
    EXPECT_EQ(mails[0].data, mime);

    CSmtpTestServer& offering = Server({"--tls-dir"});  // offers STARTTLS, does not insist
    settings = SettingsFor(offering);
    settings.caFile = offering.CertificateFile();
    const std::pair<std::optional<StartTlsPolicy>, bool> policies[] = {
        {std::nullopt, true}, {StartTlsPolicy::No, false}, {StartTlsPolicy::Optional, true}};
    for (const auto& [policy, tls] : policies) {
        settings.starttls = policy;  // unset on loopback: used when offered
        ASSERT_EQ(Submit(settings, {"a@remote.example"}, Message("Eins")).outcome, SmtpOutcome::Accepted);
    }
    mails = offering.Messages();
    ASSERT_EQ(mails.size(), 3u);
    for (size_t i = 0; i < 3; ++i) EXPECT_EQ(mails[i].tls, policies[i].second) << i;
}

TEST_F(SmtpSubmission, NoTlsToBeHadIsTemporaryAndNothingIsSent) {
    // A server without STARTTLS, when it is required.
    CSmtpTestServer& plain = Server();
    CSmtpSettings settings = SettingsFor(plain);
    settings.starttls = StartTlsPolicy::Required;
    CSmtpResult result = Submit(settings, {"anna@remote.example"}, Message("Nie"));
    EXPECT_EQ(result.outcome, SmtpOutcome::Temporary) << Described(result);
    EXPECT_EQ(result.code, 0);
    EXPECT_NE(result.text.find("STARTTLS"), std::string::npos) << result.text;
    ASSERT_EQ(result.recipients.size(), 1u);
    EXPECT_EQ(result.recipients[0].code, 0) << "never asked";
    EXPECT_TRUE(plain.Messages().empty());

    // A server whose certificate nobody vouches for: verification is always on.
    CSmtpTestServer& unknown = Server({"--tls-dir", "--require-starttls"});
    settings = SettingsFor(unknown);
    result = Submit(settings, {"anna@remote.example"}, Message("Unbekannt"));
    EXPECT_EQ(result.outcome, SmtpOutcome::Temporary) << Described(result);
    EXPECT_EQ(result.code, 0);

    // A private CA that is not this server's.
    settings.caFile = Server({"--tls-dir"}).CertificateFile();
    result = Submit(settings, {"anna@remote.example"}, Message("Fremd"));
    EXPECT_EQ(result.outcome, SmtpOutcome::Temporary) << Described(result);
    EXPECT_TRUE(unknown.Messages().empty());
}

TEST_F(SmtpSubmission, RepliesToMailFromAndToTheDataDecide) {
    CSmtpTestServer& server = Server();
    struct CCase {
        const char* control;
        SmtpOutcome outcome;
        int code;
        const char* text;
    };
    const CCase cases[] = {
        {R"({"data": "452 4.3.1 Insufficient storage"})", SmtpOutcome::Temporary, 452,
         "4.3.1 Insufficient storage"},
        {R"({"data": "554 5.6.0 Message refused"})", SmtpOutcome::Permanent, 554, "5.6.0 Message refused"},
        {R"({"mail": "421 4.3.2 Not now"})", SmtpOutcome::Temporary, 421, "4.3.2 Not now"},
        {R"({"mail": "553 5.7.1 Sender refused"})", SmtpOutcome::Temporary, 553, "5.7.1 Sender refused"},
        {R"({"mail": "552 5.3.4 Message too big"})", SmtpOutcome::Permanent, 552, "5.3.4 Message too big"},
        {R"({"data": "535 5.7.8 Authentication credentials invalid"})", SmtpOutcome::Temporary, 535,
         "5.7.8 Authentication credentials invalid"},
        {R"({"rcpt": {"anna@remote.example": "530 5.7.0 Authentication required"}})", SmtpOutcome::Temporary,
         530, "5.7.0 Authentication required"},
    };
    for (const CCase& fault : cases) {
        server.SetControl(fault.control);
        const CSmtpResult result = Submit(SettingsFor(server), {"anna@remote.example"}, Message("Z"));
        EXPECT_EQ(result.outcome, fault.outcome) << fault.control << "\n" << Described(result);
        EXPECT_EQ(result.code, fault.code) << fault.control;
        EXPECT_EQ(result.text, fault.text) << fault.control;
    }
    EXPECT_TRUE(server.Messages().empty());
}

TEST_F(SmtpSubmission, WhatCannotBeSentIsRefusedBeforeAnyConnection) {
    CSmtpTestServer& server = Server();
    CSmtpResult result = Submit(SettingsFor(server), {}, Message("Niemand"));
    EXPECT_EQ(result.outcome, SmtpOutcome::Permanent) << Described(result);

    // A line break would smuggle in a recipient of its own.
    result = Submit(SettingsFor(server), {"anna@remote.example>\r\nRCPT TO:<evil@remote.example"},
                    Message("Eingeschmuggelt"));
    EXPECT_EQ(result.outcome, SmtpOutcome::Permanent) << Described(result);
    result = SubmitBySmtp(SettingsFor(server), "", "one@x.example\nRCPT TO:<evil@remote.example>",
                          {"anna@remote.example"}, Message("Eingeschmuggelt"));
    EXPECT_EQ(result.outcome, SmtpOutcome::Permanent) << Described(result);

    // Another protocol is not spoken, whatever the URL says.
    CSmtpSettings settings;
    settings.url = "file://" + (m_dir / "out.eml").string();
    result = Submit(settings, {"anna@remote.example"}, Message("Datei"));
    EXPECT_NE(result.outcome, SmtpOutcome::Accepted) << Described(result);
    EXPECT_FALSE(fs::exists(m_dir / "out.eml"));

    // A transfer the caller has given up on.
    const std::atomic<bool> cancel{true};
    result = Submit(SettingsFor(server), {"anna@remote.example"}, Message("Abbruch"), &cancel);
    EXPECT_EQ(result.outcome, SmtpOutcome::Temporary) << Described(result);
    EXPECT_TRUE(server.Messages().empty());
}

}  // namespace
