// The spooler's pieces on their own: the envelope read off a queued message, the bytes that leave, the
// delivery report, and the system's mail program as a delivery (a script of the test's stands in for it).
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>

#include "harness/TestFiles.h"
#include "mapi/spool/DeliveryReport.h"
#include "mapi/spool/QueuedMessage.h"
#include "mapi/spool/SendmailDelivery.h"

namespace {

using namespace velmar::mapi;
namespace fs = std::filesystem;

constexpr char kQueued[] =
    "From: =?UTF-8?B?RXJpa2E=?= <one@x>\n"
    "To: Anna <anna@example.org>, \"Doe, John\" <john@example.org>\n"
    "Cc: anna@EXAMPLE.org, cc@example.org\n"
    "Bcc: hidden@example.org,\n"
    " second@example.org\n"
    "Subject: =?UTF-8?Q?Gr=C3=BC=C3=9Fe?=\n"
    "Message-Id: <id1@x>\n"
    "X-Velmar-Sent-Folder: .Gesendet\n"
    "\n"
    "Bcc: not a field, the body\n";

TEST(QueuedMessage, TheEnvelopeComesFromTheHeaderFields) {
    const CQueuedMessage message = ReadQueuedMessage(kQueued);
    EXPECT_EQ(message.from, "one@x");
    EXPECT_EQ(message.recipients,
              (std::vector<std::string>{"anna@example.org", "john@example.org", "cc@example.org",
                                        "hidden@example.org", "second@example.org"}))
        << "every To, Cc and Bcc address once (a domain's letter case aside), folded fields too";
    EXPECT_EQ(message.subject, "Grüße");
    EXPECT_EQ(message.messageId, "<id1@x>");
    EXPECT_EQ(message.sentFolder, ".Gesendet");
}

TEST(QueuedMessage, WhatLeavesHasNoBccAndNoFieldOfTheSpooler) {
    const std::string outgoing = WithoutFields(kQueued, {"Bcc", "X-Velmar-Sent-Folder"});
    EXPECT_EQ(outgoing.find("hidden@"), std::string::npos);
    EXPECT_EQ(outgoing.find("second@"), std::string::npos) << "the continuation line goes with its field";
    EXPECT_EQ(outgoing.find("X-Velmar"), std::string::npos);
    EXPECT_NE(outgoing.find("\n\nBcc: not a field, the body\n"), std::string::npos)
        << "the body is left alone";
    EXPECT_NE(outgoing.find("Subject: =?UTF-8?Q?Gr=C3=BC=C3=9Fe?=\nMessage-Id: <id1@x>\n\n"),
              std::string::npos);
}

TEST(QueuedMessage, LineEndsBecomeCrLfOnce) {
    EXPECT_EQ(ToCrlf("a\nb\r\nc"), "a\r\nb\r\nc");
    EXPECT_EQ(ToCrlf("\n\n"), "\r\n\r\n");
    EXPECT_EQ(ToCrlf("ohne"), "ohne");
    EXPECT_TRUE(SameAddress("Anna@Example.ORG", "Anna@example.org"));
    EXPECT_FALSE(SameAddress("anna@example.org", "Anna@example.org"))
        << "the local part is the server's to read";
}

TEST(DeliveryReport, SaysWhoWasRefusedInTheServersWords) {
    const CQueuedMessage message = ReadQueuedMessage(kQueued);
    const std::string original = WithoutFields(kQueued, {"Bcc", "X-Velmar-Sent-Folder"});
    const std::string report =
        MakeDeliveryReport(message,
                           {{"john@example.org", "550 5.1.1 <john@example.org>: unknown\nsecond line"},
                            {"cc@example.org", "554 transaction failed"}},
                           original);
    EXPECT_NE(report.find("To: <one@x>\n"), std::string::npos);
    EXPECT_NE(report.find("Subject: =?"), std::string::npos) << "the subject with its umlauts, encoded";
    EXPECT_NE(report.find("In-Reply-To: <id1@x>\n"), std::string::npos);
    EXPECT_NE(report.find("report-type=delivery-status"), std::string::npos);
    EXPECT_NE(report.find("> 550 5.1.1 <john@example.org>: unknown\n> second line"), std::string::npos);
    EXPECT_NE(report.find("Final-Recipient: rfc822; john@example.org\nAction: failed\nStatus: 5.1.1\n"
                          "Diagnostic-Code: smtp; 550 5.1.1 <john@example.org>: unknown second line\n"),
              std::string::npos);
    EXPECT_NE(report.find("Status: 5.0.0"), std::string::npos) << "a reply without an enhanced code";
    EXPECT_NE(report.find("Content-Type: message/rfc822\n\n" + original), std::string::npos);
}

class Sendmail : public ::testing::Test {
protected:
    // A stand-in for the mail program: it keeps its arguments and what it read, says something, and ends
    // with the given code (after reading all, or nothing).
    std::string Program(int exitCode, bool readsInput = true) {
        const fs::path script =
            m_dir / ("sendmail-" + std::to_string(exitCode) + (readsInput ? "" : "-deaf"));
        velmar::test::WriteFile(
            script, "#!/bin/sh\nprintf '%s\\n' \"$@\" > " + (m_dir / "arguments").string() + "\n" +
                        (readsInput ? "cat > " + (m_dir / "input").string() + "\n" : "") +
                        "echo 'said by the program' >&2\nexit " + std::to_string(exitCode) + "\n");
        chmod(script.c_str(), 0700);
        return script.string();
    }
    velmar::test::CTempDir m_dir;
};

TEST_F(Sendmail, AcceptedWhenTheProgramReadItAllAndEndedWell) {
    const std::string message = "Subject: x\n\n" + std::string(4 * 1024 * 1024, 'm') + "\n";
    const CSendmailResult result =
        SubmitBySendmail("one@x", {"a@example.org", "-b@example.org"}, message, Program(0).c_str());
    EXPECT_EQ(result.outcome, DeliveryOutcome::Accepted);
    EXPECT_EQ(velmar::test::ReadFile(m_dir / "input"), message) << "every byte, larger than a pipe holds";
    EXPECT_EQ(velmar::test::ReadFile(m_dir / "arguments"),
              "-i\n-f\none@x\n--\na@example.org\n-b@example.org\n")
        << "recipients after --: an address cannot pass for an option";
}

TEST_F(Sendmail, ExitCodesSayWhetherToTryAgain) {
    const CSendmailResult unknownUser = SubmitBySendmail("one@x", {"a@x"}, "m\n", Program(67).c_str());
    EXPECT_EQ(unknownUser.outcome, DeliveryOutcome::Permanent);
    EXPECT_EQ(unknownUser.text, "said by the program\n");
    EXPECT_EQ(SubmitBySendmail("one@x", {"a@x"}, "m\n", Program(75).c_str()).outcome,
              DeliveryOutcome::Temporary);
    EXPECT_EQ(SubmitBySendmail("one@x", {"a@x"}, "m\n", Program(1).c_str()).outcome,
              DeliveryOutcome::Temporary);
    const CSendmailResult missing = SubmitBySendmail("one@x", {"a@x"}, "m\n", (m_dir / "none").c_str());
    EXPECT_EQ(missing.outcome, DeliveryOutcome::Temporary);
    EXPECT_NE(missing.text.find("cannot run"), std::string::npos);
}

TEST_F(Sendmail, AProgramThatStopsReadingIsNoSuccessAndNoCrash) {
    const std::string message(8 * 1024 * 1024, 'x');
    const CSendmailResult result = SubmitBySendmail("one@x", {"a@x"}, message, Program(0, false).c_str());
    EXPECT_EQ(result.outcome, DeliveryOutcome::Temporary) << "ended well, but did not take the message";
}

}  // namespace
