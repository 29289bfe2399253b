// SendEmail and ForwardEmail through the real service into the real Maildir stores of a profile: mail to a
// store owner arrives in that store's inbox, the sent copy is filed, the trace follows the mail layer's
// steps, and a submit that cannot be written leaves nothing behind.
#include <gtest/gtest.h>

#include <unistd.h>
#include <sys/mount.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "tests/SendServiceFixture.h"
#include "tests/TraceLines.h"
#include "tools/ClientChannel.h"

namespace {

namespace fs = std::filesystem;
using velmar::test::ReadFile;
using velmar::test::WriteFile;

class SendCommands : public velmar::test::CSendServiceTest {};

using velmar::test::Joined;
using velmar::test::Steps;

const std::vector<std::string> kAddRecipientTrace = Joined<std::string>(
    {Steps("AddRecipient", {"start", "OpenAddressBook start", "HrAllocAdrList start"}),
     Steps("HrAllocAdrList", {"start", "MAPIAllocateBuffer 1 start", "MAPIAllocateBuffer 1 end",
                              "MAPIAllocateBuffer 2 start", "MAPIAllocateBuffer 2 end", "end"}),
     Steps("AddRecipient", {"HrAllocAdrList end", "", "ModifyRecipients", "SaveChanges start",
                            "SaveChanges end", "FreePadrlist", "end"})});

const std::vector<std::string> kOpenOutboxTrace =
    Steps("OpenOutbox", {"start", "OpenMsgStore start Eins", "OpenMsgStore end", "OpenEntry start",
                         "OpenEntry end", "MAPIFreeBuffer start", "MAPIFreeBuffer end", "end"});

TEST_F(SendCommands, MailToAStoreOwnerArrivesInItsInboxAndIsFiledAsSent) {
    WriteProfile("");
    Start();
    CSendRequest request{.subject = "Grüße aus Köln",
                         .body = "Erste Zeile\nZweite Zeile: \xc3\xa4\xc3\xb6\xc3\xbc",
                         .to = {"two@x"}};
    auto reply = Send(request);
    EXPECT_STREQ(reply->StringOf("status"), "OK");

    const auto delivered = WaitForMessages("two", "", 1);
    ASSERT_EQ(delivered.size(), 1u) << "the message reaches the inbox of the store two@x owns";
    const auto sent = WaitForMessages("one", ".Sent", 1);
    ASSERT_EQ(sent.size(), 1u) << "the sender's copy is filed";
    EXPECT_NE(sent[0].filename().string().find(":2,S"), std::string::npos) << "filed as read";
    EXPECT_TRUE(WaitForEmpty("one", ".Outbox")) << "and leaves the queue";

    const std::string message = ReadFile(delivered[0]);
    EXPECT_EQ(Field(message, "From"), "Erika Eins <one@x>");
    EXPECT_EQ(Field(message, "To"), "two@x");
    EXPECT_EQ(Field(message, "X-Velmar-Sent-Folder"), "") << "the spooler's own field never leaves";
    const std::string messageId = Field(message, "Message-ID");
    ASSERT_FALSE(messageId.empty()) << message;
    EXPECT_EQ(Field(ReadFile(sent[0]), "Message-ID"), messageId) << "the sent copy is the same message";

    auto data = MessageData(messageId, "two@x", 1, false);
    EXPECT_STREQ(data->StringOf("status"), "OK");
    EXPECT_STREQ(data->StringOf("subject"), request.subject.c_str());
    // A text body is lines: the last one ends with its line break, as SMTP would end it anyway; read back,
    // its lines end in CR LF, as MAPI bodies do.
    EXPECT_EQ(std::string(data->StringOf("body")),
              "Erste Zeile\r\nZweite Zeile: \xC3\xA4\xC3\xB6\xC3\xBC\r\n")
        << message;
    EXPECT_STREQ(data->StringOf("from"), "Erika Eins");
    EXPECT_STREQ(data->StringOf("fromAddress"), "one@x");
    EXPECT_STREQ(data->StringOf("to"), "two@x");

    const std::vector<std::string> expected = Joined<std::string>({
        Steps("SendMail", {"start bOutlookForceSend = false", "OpenOutbox"}),
        kOpenOutboxTrace,
        Steps("SendMail", {"CreateMessage", "HrGetOnePropSent", "AddRecipients"}),
        Steps("AddRecipients", {"start"}),
        kAddRecipientTrace,
        Steps("AddRecipients", {"end"}),
        Steps("SendMail",
              {"SetProps", "HrGetOnePropSent PR_MAILBOX_OWNER_ENTRYID", "SetProps Representing", "SetBody"}),
        Steps("SetBody", {"start", "SetProps", "end"}),
        Steps("SendMail", {"SubmitMessage", "CloseOutbox"}),
        Steps("CloseOutbox", {"start", "end"}),
        Steps("SendMail", {"end"}),
    });
    EXPECT_EQ(TraceBetween(expected.front(), expected.back()), expected);
    EXPECT_NE(Activity().find("-> SendEmail"), std::string::npos);
}

TEST_F(SendCommands, RecipientsByKindAttachmentsAndAMissingFile) {
    WriteProfile("contact1.name = Zweite Person\ncontact1.address = two@x\n");
    WriteFile(m_dir / "files" / "Bericht.pdf", std::string("%PDF-1.4\n\x00\x01\x02\xff binary", 20));
    Start();
    CSendRequest request{
        .subject = "Anlagen",
        .body = "Siehe Anlage",
        .to = {"Zweite Person"},                // resolved from the profile's contacts
        .cc = {"Archiv Kopie <archive@x>"},     // an address with a name
        .bcc = {"one@x", "Niemand Bekanntes"},  // the second cannot be resolved
        .files = {(m_dir / "files" / "Bericht.pdf").string(), (m_dir / "files" / "fehlt.txt").string()}};
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");

    const auto toTwo = WaitForMessages("two", "", 1);
    const auto toArchive = WaitForMessages("archive", "", 1);
    const auto toOne = WaitForMessages("one", "", 1);
    ASSERT_EQ(toTwo.size(), 1u);
    ASSERT_EQ(toArchive.size(), 1u);
    ASSERT_EQ(toOne.size(), 1u) << "Bcc recipients get the message";
    const std::string received = ReadFile(toTwo[0]);
    EXPECT_EQ(Field(received, "To"), "Zweite Person <two@x>");
    EXPECT_EQ(Field(received, "Cc"), "Archiv Kopie <archive@x>");
    EXPECT_EQ(Field(received, "Bcc"), "") << "Bcc goes in the envelope only";
    const auto sent = WaitForMessages("one", ".Sent", 1);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(Field(ReadFile(sent[0]), "Bcc"), "one@x") << "the sender's copy keeps its Bcc";

    const std::string id = Field(received, "Message-ID");
    auto data = MessageData(id, "two@x", 1, false);
    ASSERT_STREQ(data->StringOf("status"), "OK");
    std::unique_ptr<CkJsonArray> attachments = data->ArrayOf("attachments");
    ASSERT_TRUE(attachments);
    ASSERT_EQ(attachments->Count(), 2);
    std::unique_ptr<CkJsonObject> first = attachments->ObjectAt(0);
    std::unique_ptr<CkJsonObject> second = attachments->ObjectAt(1);
    EXPECT_STREQ(first->StringOf("fileName"), "Bericht.pdf");
    EXPECT_STREQ(second->StringOf("fileName"), "fehlt.txt")
        << "a missing file leaves an attachment without data";

    CkJsonObject open;
    open.AppendString("command-target", "MAPI");
    open.AppendString("command", "OpenAttachment");
    open.AppendString("messageId", id.c_str());
    open.AppendString("mailBox", "two@x");
    open.AddIntAt(-1, "attachmentIndex", first->IntOf("attachmentIndex"));
    auto exported = Ask(open.Emit());
    EXPECT_EQ(ReadFile(exported->StringOf("fileName")), ReadFile(m_dir / "files" / "Bericht.pdf"))
        << "the attachment's bytes arrive exactly";
}

TEST_F(SendCommands, ForwardKeepsBodiesAndAttachmentsWithTheNoteOnTop) {
    WriteProfile("");
    Deliver(
        "one", "1.M1.h",
        "From: Quelle <source@example.org>\nTo: one@x\nMessage-ID: <fwd1@x>\nSubject: Urspr\xc3\xbcnglich\n"
        "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=b\n\n"
        "--b\nContent-Type: multipart/alternative; boundary=a\n\n"
        "--a\nContent-Type: text/plain; charset=utf-8\n\nText der Quelle\n"
        "--a\nContent-Type: text/html; charset=utf-8\n\n"
        "<HTML><BODY class=\"x\" style=\"a:b\"><p>HTML der Quelle</p></BODY></HTML>\n--a--\n"
        "--b\nContent-Type: application/octet-stream\nContent-Disposition: attachment; "
        "filename=\"daten.bin\"\n"
        "Content-Transfer-Encoding: base64\n\n" +
            velmar::test::Base64("Anlagenbytes\x01\x02") + "\n--b--\n");
    Start();
    CSendRequest request{.command = "ForwardEmail",
                         .to = {"two@x"},
                         .messageId = "<fwd1@x>",
                         .toEmailAddress = "one@x",
                         .brandingSubject = "[Marke]",
                         .sendNote = "Zeile eins\r\nZeile zwei"};
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");

    const auto delivered = WaitForMessages("two", "", 1);
    ASSERT_EQ(delivered.size(), 1u) << Activity();
    const std::string id = Field(ReadFile(delivered[0]), "Message-ID");
    auto data = MessageData(id, "two@x", 1, false);
    ASSERT_STREQ(data->StringOf("status"), "OK");
    EXPECT_STREQ(data->StringOf("subject"), "[Marke]") << "the branding subject stands for an empty subject";
    const std::string html = data->StringOf("htmlBody");
    EXPECT_NE(html.find("<BODY class=\"x\" style=\"a:b\">Zeile eins<br>Zeile zwei<hr><p>HTML der Quelle</p>"),
              std::string::npos)
        << html;
    EXPECT_EQ(std::string(data->StringOf("body")).rfind("Zeile eins<br>Zeile zwei", 0), 0u)
        << "the note leads the plain body, <br> and all";
    std::unique_ptr<CkJsonArray> attachments = data->ArrayOf("attachments");
    ASSERT_TRUE(attachments);
    ASSERT_EQ(attachments->Count(), 1);
    EXPECT_STREQ(attachments->ObjectAt(0)->StringOf("fileName"), "daten.bin");
    EXPECT_TRUE(fs::is_empty(m_dir / "tmp" / "Velmar")) << "the copy and its folder are removed";

    EXPECT_NE(Activity().find("-> OpenAttachment"), std::string::npos);
    // The forward's own steps and those of its attachment copy, in order (the building blocks it calls
    // have theirs, tested with SendMail).
    std::vector<std::string> steps;
    for (const std::string& line : TraceBetween("CVelmarMapi::ForwardMail start bOutlookForceSend = false",
                                                "CVelmarMapi::ForwardMail end"))
        for (const char* prefix : {"CVelmarMapi::ForwardMail ", "CVelmarMapi::CopyAttachments ",
                                   "CVelmarMapi::AddAttachements ", "CVelmarMapi::SendMail "})
            if (line.rfind(prefix, 0) == 0) steps.push_back(line);
    const std::vector<std::string> expected = Joined<std::string>({
        Steps("ForwardMail",
              {"start bOutlookForceSend = false", "GetpMessage", "OpenOutbox", "CreateMessage", "FetchBody",
               "EmailDate FetchBody", "GetProps", "GetSubject: Urspr\xc3\xbcnglich", "CopyProps",
               "GetSendNote", "InsertTextIntoHTMLBodyBegin", "SetBody", "SetProps", "HrGetOneProp",
               "SetProps", "AddRecipients", "CopyAttachments"}),
        Steps("CopyAttachments", {"start", "FetchAttachments start", "FetchAttachments end"}),
        Steps("AddAttachements", {"start", "searchAttachementIndex", "addAttachments", "end"}),
        Steps("CopyAttachments", {"end"}),
        Steps("SendMail", {"HrGetOnePropSent PR_MAILBOX_OWNER_ENTRYID", "SetProps Representing"}),
        Steps("ForwardMail", {"SubmitMessage start", "SubmitMessage end", "RemoveFiles start",
                              "RemoveFiles end", "MAPIFreeBuffer start", "MAPIFreeBuffer end", "CloseOutbox",
                              "MAPIFreeBuffer start", "MAPIFreeBuffer end", "releases", "end"}),
    });
    EXPECT_EQ(steps, expected);
}

// A forward copies its source's attachments through files of its own: another client exporting a file of the
// same name at the same moment never has its bytes sent in the forward, nor its file removed by it.
TEST_F(SendCommands, AForwardSendsItsOwnAttachmentWhateverAnotherClientExports) {
    WriteProfile("");
    const std::string ours(512 * 1024, 'Q');
    const std::string theirs(512 * 1024, 'T');
    Deliver("one", "1.M1.h",
            velmar::test::WithAttachment("<quelle@x>", "Vertrag.pdf", velmar::test::Base64(ours)));
    Deliver("one", "2.M2.h",
            velmar::test::WithAttachment("<andere@x>", "Vertrag.pdf", velmar::test::Base64(theirs)));
    Start();
    std::atomic<bool> done{false};
    std::atomic<int> exported{0}, lost{0}, changed{0};
    std::thread other([&] {
        std::string error;
        const auto channel = velmar::tools::ConnectToService(error);
        const std::string request =
            R"({"command-target":"MAPI","command":"OpenAttachment","messageId":"<andere@x>","attachmentIndex":0})";
        while (!done && channel) {
            std::string reply;
            CkJsonObject json;
            if (!channel->Send(request) || !channel->Receive(reply, 60000) || !json.LoadText(reply)) break;
            const std::string path = json.StringOf("fileName") ? json.StringOf("fileName") : "";
            // What the reply names is the other client's file, with its bytes, until it exports again.
            if (!fs::exists(path))
                ++lost;
            else if (ReadFile(path) != theirs)
                ++changed;
            ++exported;
        }
    });
    CSendRequest request{
        .command = "ForwardEmail", .to = {"two@x"}, .messageId = "<quelle@x>", .toEmailAddress = "one@x"};
    // Forwards go on until ten of them and ten exports of the other client have run beside each other.
    constexpr int kAtLeast = 10;
    int forwards = 0;
    for (; forwards < kAtLeast || (exported < kAtLeast && forwards < 20 * kAtLeast); ++forwards)
        EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
    done = true;
    other.join();
    EXPECT_GE(exported, kAtLeast) << "the exports ran beside the forwards";
    EXPECT_EQ(lost, 0) << "no file of the other client was removed";
    EXPECT_EQ(changed, 0);
    const auto delivered = WaitForMessages("two", "", static_cast<size_t>(forwards));
    ASSERT_EQ(delivered.size(), static_cast<size_t>(forwards)) << Activity();
    for (const fs::path& file : delivered)
        EXPECT_NE(ReadFile(file).find(velmar::test::Base64(ours).substr(0, 76)), std::string::npos)
            << "each forward carries its source's bytes: " << file;
    for (const fs::path& file : delivered)
        EXPECT_EQ(ReadFile(file).find(velmar::test::Base64(theirs).substr(0, 76)), std::string::npos) << file;
}

TEST_F(SendCommands, ForwardSubjectRules) {
    WriteProfile("");
    Deliver("one", "1.M1.h",
            "From: q@example.org\nTo: one@x\nMessage-ID: <plain@x>\nSubject: Alt\n\nNur Text\n");
    Start();
    const struct {
        std::string subject, branding, expected;
    } cases[] = {{"", "", " Alt"}, {"", "Marke", "Marke"}, {"Neu", "Marke", "Neu"}};
    size_t count = 0;
    for (const auto& rule : cases) {
        CSendRequest request{.command = "ForwardEmail",
                             .subject = rule.subject,
                             .to = {"two@x"},
                             .messageId = "<plain@x>",
                             .brandingSubject = rule.branding};
        EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
        const auto delivered = WaitForMessages("two", "", ++count);
        ASSERT_EQ(delivered.size(), count);
    }
    std::vector<std::string> subjects;
    for (const fs::path& file : MessageFiles("two")) {
        auto data = MessageData(Field(ReadFile(file), "Message-ID"), "two@x", 1, false);
        subjects.push_back(data->StringOf("subject"));
        EXPECT_EQ(std::string(data->StringOf("body")), "Nur Text\r\n") << "a plain source stays plain";
    }
    std::sort(subjects.begin(), subjects.end());
    // The source subject is kept behind one blank; readers drop blanks after a field's colon, so on the
    // wire it reads as the source subject.
    EXPECT_EQ(subjects, (std::vector<std::string>{"Alt", "Marke", "Neu"}));
    EXPECT_NE(Activity().find("CVelmarMapi::ForwardMail GetSubject: Alt"), std::string::npos);
}

// A source whose rich body is RTF (Outlook's winmail.dat, beside a plain text part): the RTF is copied, the
// forward goes out as the plain body with the note on top.
TEST_F(SendCommands, ForwardOfAnRtfOnlySource) {
    const fs::path tnef = fs::path(VELMAR_CORPORA_DIR) / "MimeKit/tnef";
    if (!fs::is_directory(tnef)) GTEST_SKIP() << "no corpora";
    WriteProfile("");
    Deliver("one", "1.M1.h",
            velmar::test::WithAttachment("<rtf@x>", "winmail.dat",
                                         velmar::test::Base64(ReadFile(tnef / "rtf.tnef")),
                                         "application/ms-tnef"));
    Start();
    auto source = MessageData("<rtf@x>", "", 0, false);
    ASSERT_STREQ(source->StringOf("status"), "OK");
    const std::string sourceBody = source->StringOf("body");

    CSendRequest request{.command = "ForwardEmail",
                         .subject = "Weiter",
                         .to = {"two@x"},
                         .messageId = "<rtf@x>",
                         .sendNote = "Bitte lesen\r\n"};
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
    const auto delivered = WaitForMessages("two", "", 1);
    ASSERT_EQ(delivered.size(), 1u) << Activity();
    auto data = MessageData(Field(ReadFile(delivered[0]), "Message-ID"), "two@x", 1, false);
    EXPECT_STREQ(data->StringOf("subject"), "Weiter");
    EXPECT_EQ(std::string(data->StringOf("body")), "Bitte lesen<br>" + sourceBody + "\r\n");
    EXPECT_EQ(ReadFile(delivered[0]).find("text/html"), std::string::npos) << "no HTML made up";
}

TEST_F(SendCommands, AnUnknownMessageIsNotForwarded) {
    WriteProfile("");
    Start();
    CSendRequest request{.command = "ForwardEmail", .to = {"two@x"}, .messageId = "<nicht-da@x>"};
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
    EXPECT_TRUE(MessageFiles("one", ".Outbox").empty());
    EXPECT_TRUE(MessageFiles("two").empty());
    const std::vector<std::string> trace = TraceBetween(
        "CVelmarMapi::ForwardMail start bOutlookForceSend = false", "CVelmarMapi::ForwardMail end");
    ASSERT_GE(trace.size(), 3u);
    EXPECT_EQ(trace[1], "CVelmarMapi::ForwardMail GetpMessage");
    EXPECT_EQ(trace.back(), "CVelmarMapi::ForwardMail end");
    EXPECT_EQ(std::count(trace.begin(), trace.end(), "CVelmarMapi::ForwardMail CreateMessage"), 0);
}

// The files of the Outbox that the spooler would send (drafts aside), and what is left in its tmp/.
std::vector<fs::path> QueuedOrHalfWritten(const fs::path& outbox) {
    std::vector<fs::path> files;
    for (const char* sub : {"new", "cur", "tmp"}) {
        if (!fs::is_directory(outbox / sub)) continue;
        for (const auto& entry : fs::directory_iterator(outbox / sub)) {
            const std::string name = entry.path().filename().string();
            const size_t flags = name.find(":2,");
            if (flags == std::string::npos || name.find('D', flags) == std::string::npos)
                files.push_back(entry.path());
        }
    }
    return files;
}

TEST_F(SendCommands, ASubmitOnAFullOrReadOnlyDiskFailsAndLeavesNothingBehind) {
    if (geteuid() != 0) GTEST_SKIP() << "the store needs a small file system of its own (mount), so root";
    WriteProfile("");
    const fs::path store = m_dir / "one";
    fs::create_directories(store);
    ASSERT_EQ(mount("tmpfs", store.c_str(), "tmpfs", 0, "size=256k,mode=0700"), 0) << std::strerror(errno);
    struct CUnmount {
        fs::path path;
        ~CUnmount() { umount2(path.c_str(), MNT_DETACH); }
    } unmount{store};
    WriteFile(m_dir / "files" / "gross.bin", std::string(200 * 1024, 'x'));
    Start();
    WriteFile(store / "filler", std::string(150 * 1024, 'f'));

    CSendRequest request{
        .subject = "Passt nicht", .to = {"two@x"}, .files = {(m_dir / "files" / "gross.bin").string()}};
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
    EXPECT_NE(Activity().find("CVelmarMapi::SendMail error Submit Message 0x"), std::string::npos);
    EXPECT_TRUE(QueuedOrHalfWritten(store / ".Outbox").empty()) << "no half-written or queued file";

    fs::remove(store / "filler");
    ASSERT_EQ(mount("tmpfs", store.c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, "size=256k"), 0)
        << std::strerror(errno);
    request.subject = "Nur lesbar";
    request.files.clear();
    EXPECT_STREQ(Send(request)->StringOf("status"), "OK");
    EXPECT_EQ(velmar::test::CountOf(Activity(), "CVelmarMapi::SendMail error Submit Message 0x"), 2u);
    EXPECT_TRUE(QueuedOrHalfWritten(store / ".Outbox").empty());
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_TRUE(MessageFiles("two").empty()) << "nothing was sent";
}

}  // namespace
