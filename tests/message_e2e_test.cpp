// The message commands of the real service on Maildir stores: lookup in both search orders and the
// archive store, the read flag, message data as JSON, inline images and attachments exported to files.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>

#include "harness/ProcessStatus.h"
#include "json/CkJsonArray.h"
#include "json/CkJsonObject.h"
#include "tests/MessageServiceFixture.h"

namespace {

namespace fs = std::filesystem;
using velmar::test::Message;
using velmar::test::WithAttachment;

class MessageCommands : public velmar::test::CMessageServiceTest {};

TEST_F(MessageCommands, FoundAndNotFound) {
    Deliver("one", "1.M1.h", Message("<m1@x>", "Betreff eins"));
    Start();
    auto found = MessageData("<m1@x>", "", 0, false);
    EXPECT_STREQ(found->StringOf("status"), "OK");
    EXPECT_STREQ(found->StringOf("emailConnection"), "MAPI");
    EXPECT_STREQ(found->StringOf("messageId"), "<m1@x>");
    EXPECT_STREQ(found->StringOf("subject"), "Betreff eins");
    EXPECT_STREQ(found->StringOf("from"), "Absender");
    EXPECT_STREQ(found->StringOf("fromAddress"), "from@example.org");
    EXPECT_STREQ(found->StringOf("to"), "A; B; C");
    EXPECT_STREQ(found->StringOf("body"), "Hallo\r\n");
    EXPECT_STREQ(found->StringOf("htmlBody"), "Hallo\r\n") << "without HTML the plain body stands in";

    auto missing = MessageData("<unknown@x>", "", 0, false);
    EXPECT_STREQ(missing->StringOf("status"), "FAILED");
    EXPECT_STREQ(missing->StringOf("messageId"), "");
    EXPECT_EQ(missing->Count(), 18) << "every member is there";
    EXPECT_STREQ(Ask(R"({"command-target":"MAPI","command":"FindMessage","messageId":"<unknown@x>"})")
                     ->StringOf("status"),
                 "OK");
    EXPECT_NE(Activity().find("-> SendEmail"), std::string::npos);

    // A message request's profile name is not the one Logon compares with: the open session stays.
    Ask(R"({"command-target":"MAPI","command":"GetMessageData","messageId":"<m1@x>","profileName":"Anderes"})");
    Ask(R"({"command-target":"MAPI","command":"Logon","data_string":"Velmar"})");
    const std::string activity = Activity();
    EXPECT_EQ(velmar::test::CountOf(activity, "MAPILogonEx start"), 1u);
}

TEST_F(MessageCommands, TextEndsAtItsFirstNul) {
    Deliver("one", "1.M1.h",
            Message("<nul@x>", "mit NUL", "Content-Transfer-Encoding: quoted-printable\n", "Hallo=00Welt\n"));
    Start();
    std::string reply;
    ASSERT_TRUE(
        m_channel->Send(R"({"command-target":"MAPI","command":"GetMessageData","messageId":"<nul@x>",)"
                        R"("profileName":"Velmar","storeIndex":0})"));
    ASSERT_TRUE(m_channel->Receive(reply, 60000));
    EXPECT_NE(reply.find("\"body\": \"Hallo\","), std::string::npos) << reply;
    EXPECT_EQ(reply.find("Welt"), std::string::npos) << "nothing after the NUL reaches the reply";
    EXPECT_NE(reply.find("\"status\": \"OK\""), std::string::npos);
}

TEST_F(MessageCommands, StoreOwnersFollowTheSessionNotAMessageRequest) {
    velmar::test::WriteFile(m_dir / "profiles.ini",
                            "[Velmar]\n"
                            "store1.name = Eins\nstore1.path = one\nstore1.address = one@x\n"
                            "[Andere]\n"
                            "store1.name = Eins\nstore1.path = other\nstore1.address = other@x\n");
    Deliver("one", "1.M1.h", Message("<own@x>", "Besitzer"));
    Start();
    // A message request naming another profile changes no owner of the session's stores.
    auto data = MessageData("<own@x>", "", 0, false);
    ASSERT_TRUE(Ask(R"({"command-target":"MAPI","command":"GetMessageData","messageId":"<none@x>",)"
                    R"("profileName":"Andere","storeIndex":0})"));
    auto stores = Ask(R"({"command-target":"MAPI","command":"OpenMessageStoreTable"})");
    std::unique_ptr<CkJsonArray> entries = stores->ArrayOf("messageStoreEntries");
    ASSERT_TRUE(entries);
    ASSERT_EQ(entries->Count(), 1);
    EXPECT_STREQ(entries->ObjectAt(0)->StringOf("emailAddress"), "one@x");
    // So a search by receiving mailbox still finds the store of that address.
    auto byMailbox = MessageData("<own@x>", "one@x", 0, false, true);
    EXPECT_STREQ(byMailbox->StringOf("status"), "OK");
}

// Whoever watches the headless service's output sees a mail's control characters as text: a subject that
// would set the terminal's title and clear its screen reaches it escaped (the forward traces the subject, a
// request may carry raw control bytes too).
TEST_F(MessageCommands, ControlCharactersOfAMailReachTheTerminalAsText) {
    Deliver("one", "1.M1.h",
            Message("<titel@x>",
                    "Rechnung\x1b]0;PWNED\x07\x1b[2J\xc2\x9b"
                    "31m"));
    Start();
    Ask(R"({"command-target":"MAPI","command":"ForwardEmail","messageId":"<titel@x>","recipientsTo":["a@x"]})");
    // Not for the service: never answered, but its text is in the list before the next request's.
    ASSERT_TRUE(m_channel->Send("{\"command-target\":\"none\",\"x\":\"\x1b[2J\r\x08\"}"));
    Ask(R"({"command-target":"MAPI","command":"IsMAPIDllInitialized"})");
    const std::string output = Activity();
    EXPECT_EQ(output.find_first_of("\x1b\x07\x08"), std::string::npos) << "no raw control character";
    EXPECT_NE(output.find("GetSubject: Rechnung\\x1b]0;PWNED\\x07\\x1b[2J\\x9b31m"), std::string::npos)
        << output;
    EXPECT_NE(output.find("\"x\":\"\\x1b[2J\\x0d\\x08\"}"), std::string::npos) << output;
    EXPECT_NE(output.find("Write Back Json\n{\r\n"), std::string::npos) << "line breaks of a line stay";
}

TEST_F(MessageCommands, MemoryStaysBoundedOverManyLargeReplies) {
    // Each reply carries a body of 1 MB, and the activity list shows each reply whole.
    std::string body;
    while (body.size() < 1024 * 1024) body += "Eine Zeile eines langen Textes, immer wieder.\n";
    Deliver("one", "1.M1.h", Message("<gross@x>", "gross", "", body));
    Start();
    const auto ask = [&] {
        auto data = MessageData("<gross@x>", "", 0, false);
        ASSERT_STREQ(data->StringOf("status"), "OK");
    };
    for (int i = 0; i < 10; ++i) ask();
    const long long before = velmar::test::ProcessStatusKilobytes(m_service->Id(), "VmRSS");
    for (int i = 0; i < 60; ++i) ask();
    const long long grown = velmar::test::ProcessStatusKilobytes(m_service->Id(), "VmRSS") - before;
    // 60 replies kept whole would be some 250 MB of text; the list keeps the newest within 32 MB.
    EXPECT_LT(grown, 96 * 1024) << "grew by " << grown << " kB";
}

// A message whose HTML names one inline image many times: each name exports the image anew, so its data
// takes a long while. Requests of other clients are not held up by it.
TEST_F(MessageCommands, ASlowMessageHoldsUpNobody) {
    std::string html = "<html><body>";
    for (int i = 0; i < 1000; ++i) html += "<img src=\"cid:bild@x\">";
    html += "</body></html>";
    const std::string image(256 * 1024, '\x89');
    Deliver("one", "1.M1.h",
            "From: a@x\nMessage-ID: <langsam@x>\nSubject: langsam\nMIME-Version: 1.0\nContent-Type: "
            "multipart/related; boundary=r\n\n--r\nContent-Type: text/html; charset=utf-8\n\n" +
                html +
                "\n--r\nContent-Type: image/png; name=\"bild.png\"\nContent-ID: <bild@x>\n"
                "Content-Transfer-Encoding: base64\n\n" +
                velmar::test::Base64(image) + "\n--r--\n");
    Deliver("two", "2.M1.h", Message("<schnell@x>", "schnell"));
    Start();
    std::string error;
    std::unique_ptr<velmar::tools::IClientChannel> other = velmar::tools::ConnectToService(error);
    ASSERT_TRUE(other);
    const auto otherAsks = [&](const std::string& request) {
        std::string reply;
        return other->Send(request) && other->Receive(reply, 60000) ? reply : std::string("(no reply)");
    };
    ASSERT_TRUE(
        m_channel->Send(R"({"command-target":"MAPI","command":"GetMessageData","messageId":"<langsam@x>",)"
                        R"("profileName":"Velmar","storeIndex":0})"));
    // Once the slow request writes its images, the other client is answered meanwhile.
    for (int wait = 0; wait < 2000 && !fs::exists(m_dir / "tmp" / "Velmar" / "bild.png"); ++wait)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_NE(otherAsks(R"({"command-target":"MAPI","command":"IsMAPIDllInitialized"})").find("\"OK\""),
              std::string::npos);
    EXPECT_NE(otherAsks(R"({"command-target":"MAPI","command":"IsInitialized"})").find("\"OK\""),
              std::string::npos);
    const std::string quick =
        otherAsks(R"({"command-target":"MAPI","command":"GetMessageData",)"
                  R"("messageId":"<schnell@x>","profileName":"Velmar","storeIndex":0})");
    EXPECT_NE(quick.find("\"subject\": \"schnell\""), std::string::npos) << quick;
    std::string slow;
    EXPECT_FALSE(m_channel->Receive(slow, 0)) << "the slow request was still at work meanwhile";
    ASSERT_TRUE(m_channel->Receive(slow, 120000));
    EXPECT_NE(slow.find("\"subject\": \"langsam\""), std::string::npos);
    EXPECT_NE(slow.find("\"status\": \"OK\""), std::string::npos);
}

// Two files of one Maildir key, as a sync tool or a crash leaves them: marking one read never destroys the
// other, and both stay messages of their own.
TEST_F(MessageCommands, MarkingReadNeverDestroysAnotherFileOfItsKey) {
    velmar::test::WriteFile(m_dir / "one" / "cur" / "1700000000.M1P1.host:2,", Message("<erst@x>", "erste"));
    velmar::test::WriteFile(m_dir / "one" / "cur" / "1700000000.M1P1.host:2,S",
                            Message("<zweit@x>", "zweite"));
    Start();
    auto first = MessageData("<erst@x>", "", 0, true);
    EXPECT_STREQ(first->StringOf("subject"), "erste");
    auto second = MessageData("<zweit@x>", "", 0, true);
    EXPECT_STREQ(second->StringOf("subject"), "zweite") << "the other file is still there and still found";
    std::vector<std::string> contents;
    for (const auto& entry : fs::directory_iterator(m_dir / "one" / "cur"))
        contents.push_back(velmar::test::ReadFile(entry.path()));
    std::sort(contents.begin(), contents.end());
    EXPECT_EQ(contents,
              (std::vector<std::string>{Message("<erst@x>", "erste"), Message("<zweit@x>", "zweite")}));
}

TEST_F(MessageCommands, LinkedFoldersAreNotFollowedAndLongHeadersAreRead) {
    // A new/ that is a link to a folder somewhere else: what lies there is no message of this store.
    velmar::test::WriteFile(m_dir / "elsewhere" / "1.M1.h", Message("<fremd@x>", "fremd"));
    fs::create_directories(m_dir / "two" / "cur");
    fs::create_directories(m_dir / "two" / "tmp");
    fs::create_symlink(m_dir / "elsewhere", m_dir / "two" / "new");
    // 300 KB of headers before the Message-ID.
    std::string headers;
    for (int i = 0; headers.size() < 300 * 1024; ++i)
        headers += "X-Trace-" + std::to_string(i) + ": " + std::string(60, 't') + "\n";
    Deliver("one", "1.M1.h", headers + Message("<tief@x>", "tief"));
    Start();
    auto deep = MessageData("<tief@x>", "", 0, false);
    EXPECT_STREQ(deep->StringOf("subject"), "tief");
    auto foreign = MessageData("<fremd@x>", "", 1, false);
    EXPECT_STREQ(foreign->StringOf("status"), "FAILED");
}

TEST_F(MessageCommands, SearchOrdersArchiveStoreAndReadFlag) {
    Deliver("two", "2.M1.h", Message("<shared@x>", "in zwei"));
    Deliver("archive", "3.M1.h", Message("<shared@x>", "im Archiv"));
    Deliver("one", "4.M1.h", Message("<only-one@x>", "in eins"));
    Start();
    // All stores, the chosen one first: found in store 1 (Zwei) when it is chosen...
    auto chosen = MessageData("<shared@x>", "", 1, true);
    EXPECT_STREQ(chosen->StringOf("subject"), "in zwei");
    EXPECT_TRUE(fs::exists(m_dir / "two" / "cur" / "2.M1.h:2,S")) << "read: it is in the chosen store";
    // ...and in the first store that has it when another is chosen; no read flag then.
    auto other = MessageData("<only-one@x>", "", 2, true);
    EXPECT_STREQ(other->StringOf("subject"), "in eins");
    EXPECT_TRUE(fs::exists(m_dir / "one" / "new" / "4.M1.h")) << "found elsewhere: left unread";

    // Receiving mailbox only: the archive store first, then the stores of the addresses.
    auto archive = MessageData("<shared@x>", "two@x", 0, true, true);
    EXPECT_STREQ(archive->StringOf("subject"), "im Archiv");
    EXPECT_TRUE(fs::exists(m_dir / "archive" / "new" / "3.M1.h")) << "never marked read on this path";
    auto byAddress = MessageData("<only-one@x>", " nobody@x , one@x,", 2, false);
    EXPECT_STREQ(byAddress->StringOf("subject"), "in eins") << "the flag stays from the last request";
    auto noMatch = MessageData("<only-one@x>", "two@x", 2, false, true);
    EXPECT_STREQ(noMatch->StringOf("status"), "FAILED") << "no store of these addresses has it";
    const std::string activity = Activity();
    EXPECT_NE(activity.find("searching in defined Archive Store: Archiv"), std::string::npos);
    EXPECT_NE(activity.find("CVelmarMapi::GetpMessage DeTokonized: \nnobody@x\none@x\n\n"),
              std::string::npos);
}

TEST_F(MessageCommands, InlineImagesAndAttachmentFiles) {
    const std::string related =
        "From: x@y\nMessage-ID: <rel@x>\nSubject: Bilder\nMIME-Version: 1.0\n"
        "Content-Type: multipart/related; boundary=r\n\n--r\nContent-Type: text/html; charset=utf-8\n\n"
        "<html><body><img src=\"cid:pic@x\"><img src=\"cid:pic@x\"><img src=\"cid:none@x\"></body></html>\n"
        "--r\nContent-Type: image/png; name=\"pic.png\"\nContent-ID: <pic@x>\nContent-Transfer-Encoding: "
        "base64\n\n"
        "iVBORw0KGgo=\n--r\nContent-Type: application/pdf; name=\"a-b+c.pdf\"\nContent-Disposition: "
        "attachment\n"
        "Content-Transfer-Encoding: base64\n\nJVBERi0xLjQK\n--r--\n";
    Deliver("one", "5.M1.h", related);
    Deliver("one", "6.M1.h", WithAttachment("<long@x>", std::string(300, 'n') + ".txt", "aGVsbG8="));
    Deliver("one", "7.M1.h", WithAttachment("<odd@x>", "?*:<>|", "aGVsbG8="));
    Start();
    auto data = MessageData("<rel@x>", "", 0, false);
    const std::string exported = (m_dir / "tmp" / "Velmar" / "pic.png").string();
    std::unique_ptr<CkJsonArray> embedded = data->ArrayOf("strEmbeddedAttachments");
    ASSERT_EQ(embedded->Count(), 1) << "one entry per distinct file";
    EXPECT_EQ(std::string(embedded->StringAt(0)), exported);
    const std::string html = data->StringOf("htmlBody");
    EXPECT_NE(html.find("<img src=\"" + exported + "\"><img src=\"" + exported + "\">"), std::string::npos)
        << html;
    EXPECT_NE(html.find("cid:none@x"), std::string::npos) << "an unknown content id stays";
    std::unique_ptr<CkJsonArray> attachments = data->ArrayOf("attachments");
    ASSERT_EQ(attachments->Count(), 1) << "inline images are not listed as attachments";
    EXPECT_STREQ(attachments->ObjectAt(0)->StringOf("fileName"), "a-b+c.pdf");

    auto opened = OpenAttachment("<rel@x>", 1);
    const fs::path pdf = m_dir / "tmp" / "Velmar" / "a_b_c.pdf";
    EXPECT_EQ(std::string(opened->StringOf("fileName")), pdf.string());
    std::ifstream in(pdf, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "%PDF-1.4\n");
    velmar::test::WriteFile(pdf, "an older file of the same name, longer than the new one");
    OpenAttachment("<rel@x>", 1);
    EXPECT_EQ(fs::file_size(pdf), 9u) << "an existing file is overwritten";

    auto cut = OpenAttachment("<long@x>", 0);
    // The cut to 259 characters comes first, then the file system's own limit of 255 bytes.
    EXPECT_EQ(fs::path(cut->StringOf("fileName")).filename().string(), std::string(255, 'n'));
    EXPECT_TRUE(fs::is_regular_file(cut->StringOf("fileName"))) << "the path handed out names a written file";
    auto odd = OpenAttachment("<odd@x>", 0);
    EXPECT_EQ(fs::path(odd->StringOf("fileName")).filename().string(), "______");
    auto none = OpenAttachment("<gone@x>", 1);
    EXPECT_STREQ(none->StringOf("fileName"), "");
    EXPECT_STREQ(none->StringOf("status"), "OK");
    for (const auto& entry : fs::recursive_directory_iterator(m_dir / "tmp"))
        EXPECT_EQ(entry.path().parent_path().filename(), entry.is_directory() ? "tmp" : "Velmar")
            << entry.path();
}

TEST_F(MessageCommands, EmbeddedMessagesBrokenMailAndBigAttachments) {
    Deliver("one", "8.M1.h",
            "From: x@y\nMessage-ID: <outer@x>\nSubject: s\nMIME-Version: 1.0\nContent-Type: multipart/mixed; "
            "boundary=b\n\n--b\nContent-Type: text/plain\n\nsee\n--b\nContent-Type: message/rfc822\n"
            "Content-Disposition: attachment; filename=\"inner.eml\"\n\nSubject: inner\nMessage-ID: "
            "<in@x>\n\nbody\n--b--\n");
    Deliver("one", "9.M1.h",
            "Message-ID: <broken@x>\nContent-Type: multipart/mixed; boundary=z\n\n--z\nContent-Type: te");
    Deliver("one", "10.M1.h", "Message-ID: <nobody@x>\nSubject: leer\n\n");
    std::string big;
    const std::string chunk = "QUJDREVGR0hJSktMTU5PUFFSU1RVVldY\n";  // "ABCDEFGHIJKLMNOPQRSTUVWX"
    for (size_t size = 0; size < 50u * 1024 * 1024; size += 24) big += chunk;
    Deliver("one", "11.M1.h", WithAttachment("<big@x>", "big.bin", big));
    Start();
    auto embedded = OpenAttachment("<outer@x>", 0);
    const std::string path = embedded->StringOf("fileName");
    EXPECT_EQ(fs::path(path).filename(), "inner.eml");
    EXPECT_FALSE(fs::exists(path)) << "an embedded message answers with a path and writes no file";
    EXPECT_STREQ(MessageData("<broken@x>", "", 0, false)->StringOf("status"), "OK");
    auto empty = MessageData("<nobody@x>", "", 0, false);
    EXPECT_STREQ(empty->StringOf("subject"), "leer");
    EXPECT_STREQ(empty->StringOf("body"), "");
    auto bigFile = OpenAttachment("<big@x>", 0);
    EXPECT_GE(fs::file_size(bigFile->StringOf("fileName")), 50u * 1024 * 1024);

    // Several connections asking for the same message at once.
    std::vector<std::thread> clients;
    std::atomic<int> answered{0};
    for (int c = 0; c < 4; ++c)
        clients.emplace_back([&] {
            std::string error;
            auto channel = velmar::tools::ConnectToService(error);
            std::string reply;
            for (int i = 0; channel && i < 10; ++i)
                if (channel->Send(
                        R"({"command-target":"MAPI","command":"GetMessageData","messageId":"<outer@x>","storeIndex":0})") &&
                    channel->Receive(reply, 60000) && reply.find("\"status\": \"OK\"") != std::string::npos)
                    ++answered;
        });
    for (std::thread& client : clients) client.join();
    EXPECT_EQ(answered.load(), 40);
    EXPECT_STREQ(Ask(R"({"command-target":"MAPI","command":"IsMAPIDllInitialized"})")->StringOf("status"),
                 "OK");
}

TEST_F(MessageCommands, NothingIsWrittenThroughALinkInPlaceOfTheExportFolder) {
    Deliver("one", "12.M1.h", WithAttachment("<linked@x>", "payload.txt", "aGVsbG8="));
    fs::create_directories(m_dir / "elsewhere");
    fs::create_directory_symlink(m_dir / "elsewhere", m_dir / "tmp" / "Velmar");
    Start();
    auto reply = OpenAttachment("<linked@x>", 0);
    EXPECT_FALSE(fs::exists(m_dir / "elsewhere" / "payload.txt"));
    EXPECT_NE(Activity().find("ERROR: Cannot Create: " + (m_dir / "tmp" / "Velmar").string() + "/"),
              std::string::npos);
}

// Real-world mail from the corpora, read as its author meant it.
// Outlook's winmail.dat is unpacked: its files are the attachments, its HTML the body, its images inline.
TEST_F(MessageCommands, WinmailShowsWhatOutlookPackedIntoIt) {
    const fs::path tnef = fs::path(VELMAR_CORPORA_DIR) / "MimeKit/tnef";
    if (!fs::is_directory(tnef)) GTEST_SKIP() << "no corpora";
    using velmar::test::Base64;
    using velmar::test::ReadFile;
    Deliver("one", "30.M1.h",
            WithAttachment("<files@x>", "winmail.dat", Base64(ReadFile(tnef / "two-files.tnef")),
                           "application/ms-tnef"));
    Deliver("one", "31.M1.h",
            WithAttachment("<panic@x>", "winmail.dat", Base64(ReadFile(tnef / "panic.tnef"))));
    Start();

    auto files = MessageData("<files@x>", "", 0, false);
    std::unique_ptr<CkJsonArray> attachments = files->ArrayOf("attachments");
    ASSERT_EQ(attachments->Count(), 2) << "the winmail.dat itself is not listed";
    EXPECT_STREQ(attachments->ObjectAt(0)->StringOf("fileName"), "AUTHORS");
    EXPECT_STREQ(attachments->ObjectAt(1)->StringOf("fileName"), "README");
    auto readme = OpenAttachment("<files@x>", 1);
    EXPECT_EQ(ReadFile(readme->StringOf("fileName")), ReadFile(tnef / "two-files" / "README"));

    auto panic = MessageData("<panic@x>", "", 0, false);
    EXPECT_STREQ(panic->StringOf("body"), "text") << "the message's own plain text stays";
    const std::string html = panic->StringOf("htmlBody");
    EXPECT_NE(html.find("Andreas Wallenberg"), std::string::npos);
    EXPECT_NE(html.find("n\xC3\xA5gon av er g\xC3\xB6r"), std::string::npos) << "Latin-1 arrives as UTF-8";
    EXPECT_EQ(html.find("cid:"), std::string::npos) << "every image is exported";
    // The three images are inline; the stream ends in garbage, so the winmail.dat stays for what it
    // may still hold.
    std::unique_ptr<CkJsonArray> rest = panic->ArrayOf("attachments");
    ASSERT_EQ(rest->Count(), 1);
    EXPECT_STREQ(rest->ObjectAt(0)->StringOf("fileName"), "winmail.dat");
    std::unique_ptr<CkJsonArray> images = panic->ArrayOf("strEmbeddedAttachments");
    ASSERT_EQ(images->Count(), 3);
    EXPECT_EQ(ReadFile(images->StringAt(2)), ReadFile(tnef / "panic" / "image003.png"));
}

TEST_F(MessageCommands, CorpusMessagesAsTheirReadersSeeThem) {
    const fs::path legacy = fs::path(VELMAR_CORPORA_DIR) / "mail-parser/resources/eml/legacy";
    if (!fs::is_directory(legacy)) GTEST_SKIP() << "no corpora";
    fs::create_directories(m_dir / "one" / "new");
    fs::copy_file(legacy / "001.eml", m_dir / "one" / "new" / "20.M1.h");
    fs::copy_file(legacy / "028.eml", m_dir / "one" / "new" / "21.M1.h");
    Start();
    auto hares = MessageData("<NDBBIAKOPKHFGPLCODIGMEKCCHAA.doug@example.com>", "", 0, false);
    EXPECT_STREQ(hares->StringOf("subject"), "Die Hasen und die Fr\xC3\xB6sche (Microsoft Outlook 00)");
    EXPECT_STREQ(hares->StringOf("to"), "Joe Blow; J\xC3\xBCrgen Schm\xC3\xBCrgen");
    EXPECT_STREQ(hares->StringOf("from"), "Doug Sauder");
    EXPECT_STREQ(hares->StringOf("fromAddress"), "doug@example.com");
    EXPECT_EQ(std::string(hares->StringOf("body")).rfind("Die Hasen und die Fr\xC3\xB6sche", 0), 0u)
        << "the body starts with its title";
    EXPECT_NE(std::string(hares->StringOf("body"))
                  .find("Die Hasen klagten einst über ihre miß"
                        "liche Lage"),
              std::string::npos);

    auto balls = MessageData("<NDBBIAKOPKHFGPLCODIGKEKFCHAA.doug@example.com>", "", 0, false);
    const std::string folder = (m_dir / "tmp" / "Velmar").string() + "/";
    std::unique_ptr<CkJsonArray> images = balls->ArrayOf("strEmbeddedAttachments");
    ASSERT_EQ(images->Count(), 2);
    EXPECT_EQ(std::string(images->StringAt(0)), folder + "blueball.png");
    EXPECT_EQ(std::string(images->StringAt(1)), folder + "redball.png");
    EXPECT_EQ(balls->ArrayOf("attachments")->Count(), 0) << "both images are inline";
    const std::string html = balls->StringOf("htmlBody");
    EXPECT_NE(html.find("src=\"" + folder + "blueball.png\""), std::string::npos);
    EXPECT_EQ(html.find("cid:"), std::string::npos);
    EXPECT_EQ(fs::file_size(folder + "blueball.png"), 1325u);
    EXPECT_EQ(fs::file_size(folder + "redball.png"), 1453u);
    EXPECT_EQ(velmar::test::ReadFile(folder + "blueball.png").substr(0, 8),
              std::string("\x89PNG\r\n\x1A\n", 8));
}

}  // namespace
