// Real-world mail read exactly, through the real service: header fields, charsets and transfer encodings
// as a careful reader sees them, in the replies of GetMessageData and in the files OpenAttachment writes.
// Each message is small and isolates one way that text or bytes could be lost.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "json/CkJsonArray.h"
#include "json/CkJsonObject.h"
#include "tests/MessageServiceFixture.h"

namespace {

namespace fs = std::filesystem;
using velmar::test::ReadFile;

class MimeReading : public velmar::test::CMessageServiceTest {
protected:
    // The reply of GetMessageData for a message of the first store (an empty object when none came).
    std::unique_ptr<CkJsonObject> Data(const std::string& id) {
        std::unique_ptr<CkJsonObject> data = MessageData(id, "", 0, false);
        EXPECT_STREQ(data->StringOf("status"), "OK") << id;
        return data;
    }

    // A member of a reply as text; empty when it is missing.
    static std::string Text(const std::unique_ptr<CkJsonObject>& data, const char* name) {
        const char* text = data->StringOf(name);
        return text ? text : "";
    }

    // The file names of the reply's attachment list.
    static std::vector<std::string> FileNames(CkJsonObject& data) {
        std::vector<std::string> names;
        std::unique_ptr<CkJsonArray> attachments = data.ArrayOf("attachments");
        for (int i = 0; attachments && i < attachments->Count(); ++i)
            names.push_back(attachments->ObjectAt(i)->StringOf("fileName"));
        return names;
    }

    // Delivers a message file into the first store with the given modification time.
    void DeliverAt(const std::string& name, const std::string& text, int secondsAgo) {
        Deliver("one", name, text);
        fs::last_write_time(m_dir / "one" / "new" / name,
                            fs::file_time_type::clock::now() - std::chrono::seconds(secondsAgo));
    }

    std::string ExportFolder() const { return (m_dir / "tmp" / "Velmar").string() + "/"; }
};

// Adjacent encoded words are each decoded on their own: the padding of the first base64 word does not end
// the text, and a character split across two words comes out whole.
TEST_F(MimeReading, AdjacentEncodedWordsReadWhole) {
    const std::string words = "=?UTF-8?B?SGVsbG8=?= =?UTF-8?B?IFdvcmxk?=";
    Deliver("one", "1.M1.h",
            "From: " + words + " <a@b.example>\r\nTo: " + words + " <c@d.example>, =?utf-8?b?R3LD?=\r\n" +
                " =?utf-8?b?vMOfZQ==?= <g@d.example>\r\nSubject: " + words +
                "\r\nMessage-ID: <words@x>\r\nMIME-Version: 1.0\r\n"
                "Content-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\nContent-Type: text/plain\r\n\r\n"
                "text\r\n--b\r\nContent-Type: text/plain; name=\"" +
                words +
                ".txt\"\r\nContent-Disposition: attachment\r\n\r\nattached\r\n--b\r\n"
                "Content-Type: application/octet-stream\r\nContent-Disposition: attachment; filename=\"" +
                words + ".bin\"\r\nContent-Transfer-Encoding: base64\r\n\r\nAAEC\r\n--b--\r\n");
    Start();
    auto data = Data("<words@x>");
    EXPECT_STREQ(data->StringOf("subject"), "Hello World");
    EXPECT_STREQ(data->StringOf("from"), "Hello World");
    EXPECT_STREQ(data->StringOf("fromAddress"), "a@b.example");
    EXPECT_STREQ(data->StringOf("to"), "Hello World; Grüße")
        << "the bytes of adjacent words are joined before they are read as UTF-8";
    EXPECT_EQ(FileNames(*data), (std::vector<std::string>{"Hello World.txt", "Hello World.bin"}));
    const std::string path = ExportedPath("<words@x>", 1);
    EXPECT_EQ(path, ExportFolder() + "Hello World.bin");
    EXPECT_EQ(ReadFile(path), std::string("\x00\x01\x02", 3));
}

// A body whose declared charset does not fit its bytes is read in UTF-8, then in Windows-1252; no byte is
// dropped. Headers with raw 8-bit text are read the same way.
TEST_F(MimeReading, BodiesWhoseCharsetDoesNotFitLoseNoByte) {
    Deliver("one", "1.M1.h",
            "From: a@b\nMessage-ID: <ascii@x>\nSubject: s\nContent-Type: text/plain; charset=us-ascii\n\n"
            "Envoy\xE9 par Mobilit\xE9\n");
    Deliver("one", "2.M1.h",
            "From: a@b\nMessage-ID: <utf8@x>\nSubject: s\nContent-Type: text/plain; charset=utf-8\n\n"
            "Fr\xF6sche und Grüße\n");
    Deliver("one", "3.M1.h",
            "From: J\xFCrgen <j@x>\nMessage-ID: <none@x>\nSubject: Fr\xF6sche\nMIME-Version: 1.0\n\n"
            "Fr\xF6sche\n");
    Deliver("one", "4.M1.h",
            "From: a@b\nMessage-ID: <meta@x>\nSubject: s\nContent-Type: text/html\n\n"
            "<html><head><meta charset=\"iso-8859-1\"></head><body>Gr\xFC\xDF"
            "e</body></html>\r\n");
    Deliver("one", "5.M1.h",
            "From: a@b\nMessage-ID: <us-utf8@x>\nSubject: s\nContent-Type: text/plain; charset=US-ASCII\n\n"
            "caf\xC3\xA9\n");
    Start();
    EXPECT_STREQ(Data("<ascii@x>")->StringOf("body"), "Envoy\xC3\xA9 par Mobilit\xC3\xA9\r\n");
    EXPECT_STREQ(Data("<utf8@x>")->StringOf("body"), "Frösche und Grüße\r\n")
        << "well-formed UTF-8 stays as it is beside the byte that is not";
    auto none = Data("<none@x>");
    EXPECT_STREQ(none->StringOf("body"), "Fr\xC3\xB6sche\r\n");
    EXPECT_STREQ(none->StringOf("subject"), "Fr\xC3\xB6sche");
    EXPECT_STREQ(none->StringOf("from"), "J\xC3\xBCrgen");
    const std::string html = Text(Data("<meta@x>"), "htmlBody");
    EXPECT_NE(html.find("Grüße"), std::string::npos)
        << "without a charset parameter, the document's own declaration counts: " << html;
    EXPECT_STREQ(Data("<us-utf8@x>")->StringOf("body"), "caf\xC3\xA9\r\n") << "UTF-8 comes first";
}

// Base64 that lacks its padding gives every byte it holds.
TEST_F(MimeReading, Base64WithoutPaddingIsDecodedWhole) {
    Deliver("one", "1.M1.h", velmar::test::WithAttachment("<pad@x>", "hello.txt", "SGVsbG8"));
    Deliver("one", "2.M1.h", velmar::test::WithAttachment("<pad2@x>", "hell.txt", "SGVsbA"));
    Deliver("one", "3.M1.h", velmar::test::WithAttachment("<joined@x>", "joined.txt", "SGVsbG8=\nIFdvcmxk"));
    Start();
    EXPECT_EQ(ReadFile(ExportedPath("<pad@x>", 0)), "Hello");
    EXPECT_EQ(ReadFile(ExportedPath("<pad2@x>", 0)), "Hell");
    EXPECT_EQ(ReadFile(ExportedPath("<joined@x>", 0)), "Hello World") << "padding ends a group, not the data";
}

// In a file that mixes CR LF and LF line ends, the line break before a boundary, CR and all, belongs to
// the boundary.
TEST_F(MimeReading, LineBreakBeforeABoundaryIsTheBoundarys) {
    Deliver("one", "1.M1.h",
            "From: a@b\nMessage-ID: <mixed@x>\nSubject: gemischt\nMIME-Version: 1.0\n"
            "Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: text/plain\n\nZeile\r\n--b\n"
            "Content-Type: application/octet-stream; name=\"data.txt\"\n\nHello\r\n--b\n"
            "Content-Type: application/octet-stream; name=\"cr.txt\"\n\nCR\r\r\n--b--\n");
    Start();
    auto data = Data("<mixed@x>");
    EXPECT_STREQ(data->StringOf("body"), "Zeile");
    EXPECT_EQ(FileNames(*data), (std::vector<std::string>{"data.txt", "cr.txt"}));
    EXPECT_EQ(ReadFile(ExportedPath("<mixed@x>", 0)), "Hello");
    EXPECT_EQ(ReadFile(ExportedPath("<mixed@x>", 1)), "CR\r") << "a CR of the content before the CR LF stays";
}

// An attached e-mail keeps the file name its part gives it; without one it is known by its subject. Its
// export writes no file, as the mail layer intends.
TEST_F(MimeReading, AttachedEmailKeepsItsFileName) {
    const std::string inner = "Subject: Weitergeleitet\nMessage-ID: <inner@x>\n\ninnen\n";
    Deliver("one", "1.M1.h",
            "From: a@b\nMessage-ID: <fwd@x>\nSubject: s\nMIME-Version: 1.0\n"
            "Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: text/plain\n\nsiehe\n--b\n"
            "Content-Type: message/rfc822; name=\"Fwd.eml\"\n\n" +
                inner +
                "--b\nContent-Type: message/rfc822\nContent-Disposition: attachment; "
                "filename*=UTF-8''Antwort%20f%C3%BCr%20Sie.eml\n\n" +
                inner + "--b\nContent-Type: message/rfc822\n\n" + inner + "--b--\n");
    Start();
    auto data = Data("<fwd@x>");
    EXPECT_EQ(FileNames(*data), (std::vector<std::string>{"Fwd.eml", "Antwort f\xC3\xBCr Sie.eml", ""}));
    const std::string named = ExportedPath("<fwd@x>", 0);
    EXPECT_EQ(named, ExportFolder() + "Fwd.eml");
    EXPECT_FALSE(fs::exists(named)) << "an embedded message is exported as no file";
    EXPECT_EQ(ExportedPath("<fwd@x>", 2), ExportFolder() + "Weitergeleitet");
}

// The charset declaration said to be UTF-8 goes inside the head, after any doctype, or is rewritten where
// it stands: a declaration before <!DOCTYPE> would throw browsers into quirks mode.
TEST_F(MimeReading, CharsetDeclarationGoesInsideTheHead) {
    const auto html = [](const std::string& id, const std::string& document) {
        return "From: a@b\nMessage-ID: " + id +
               "\nSubject: s\nContent-Type: text/html; charset=iso-8859-1\n\n" + document + "\n";
    };
    Deliver("one", "1.M1.h",
            html("<doctype@x>",
                 "<!DOCTYPE html>\n<html><body>Gr\xFC\xDF"
                 "e</body></html>"));
    Deliver("one", "2.M1.h",
            html("<head@x>",
                 "<!DOCTYPE html><html lang=\"de\"><head><title>T</title></head><body>x</body></html>"));
    Deliver("one", "3.M1.h",
            html("<meta@x>",
                 "<!DOCTYPE html><html><head><meta http-equiv=\"Content-Type\" content=\"text/html; "
                 "charset=iso-8859-1\"><header></header></head><body>\xE4</body></html>"));
    Deliver("one", "4.M1.h", html("<bare@x>", "<!doctype html><p>\xE4</p>"));
    Start();
    const std::string meta = "<meta http-equiv=\"Content-Type\" content=\"text/html; charset=utf-8\">";
    EXPECT_EQ(Text(Data("<doctype@x>"), "htmlBody"),
              "<!DOCTYPE html>\r\n<html><head>" + meta + "</head><body>Grüße</body></html>\r\n");
    EXPECT_EQ(Text(Data("<head@x>"), "htmlBody"), "<!DOCTYPE html><html lang=\"de\"><head>" + meta +
                                                      "<title>T</title></head><body>x</body></html>\r\n");
    EXPECT_EQ(
        Text(Data("<meta@x>"), "htmlBody"),
        "<!DOCTYPE html><html><head>" + meta + "<header></header></head><body>\xC3\xA4</body></html>\r\n")
        << "an existing declaration is rewritten in place";
    EXPECT_EQ(Text(Data("<bare@x>"), "htmlBody"),
              "<!doctype html><head>" + meta + "</head><p>\xC3\xA4</p>\r\n");
}

// What can be kept of an address without angle brackets is kept, and so is the white space a name or a
// subject holds; only the white space of folding and after the colon goes. A quoted display name folded
// over two lines is unfolded as RFC 5322 says: its CR LF goes, the white space after it stays. A raw 8-bit
// byte inside an encoded word is the byte it is, read once in the word's charset.
TEST_F(MimeReading, NamesAddressesAndSpacesAsWritten) {
    Deliver("one", "1.M1.h",
            "From: Big Bug bb@bug.com\nTo: \" Anna Muster \" <anna@x>, =?UTF-8?Q?_Bob_?= <bob@x>, "
            "carl@x (Carl Comment)\nMessage-ID: <bare@x>\nSubject:   =?UTF-8?Q?_Hallo_?= Welt  \n\nx\n");
    Deliver(
        "one", "2.M1.h",
        "From: Autor <author@x>\nSender: Sekretariat <office@x>\nMessage-ID: <sender@x>\nSubject: s\n\nx\n");
    Deliver("one", "3.M1.h",
            "From: a@b\r\nCc: \"Brandeburg,\r\n\tJesse\" <j@example.org>, \"Kirsher,\r\n Jeffrey T\"\r\n"
            " <k@example.org>\r\nMessage-ID: <fold@x>\r\nSubject: a folded\r\n  subject\r\n\r\nx\r\n");
    Deliver("one", "4.M1.h",
            "From: a@b\nCc: Heinz =?iso-8859-1?Q?M\xFCller?= <m@example.org>\nMessage-ID: <raw@x>\n"
            "Subject: =?iso-8859-1?Q?Gr\xFC\xDF"
            "e?=\n\nx\n");
    Start();
    auto bare = Data("<bare@x>");
    EXPECT_STREQ(bare->StringOf("from"), "Big Bug");
    EXPECT_STREQ(bare->StringOf("fromAddress"), "bb@bug.com");
    EXPECT_STREQ(bare->StringOf("to"), " Anna Muster ;  Bob ; Carl Comment");
    EXPECT_STREQ(bare->StringOf("subject"), " Hallo  Welt  ");
    // Deliberate: the sender is the Sender field's when there is one; From is the sent-representing one.
    auto sender = Data("<sender@x>");
    EXPECT_STREQ(sender->StringOf("from"), "Sekretariat");
    EXPECT_STREQ(sender->StringOf("fromAddress"), "office@x");
    auto folded = Data("<fold@x>");
    const std::string cc = Text(folded, "cc");
    EXPECT_EQ(cc, "Brandeburg,\tJesse; Kirsher, Jeffrey T");
    EXPECT_EQ(cc.find_first_of("\r\n"), std::string::npos);
    EXPECT_STREQ(folded->StringOf("subject"), "a folded  subject");
    auto raw = Data("<raw@x>");
    EXPECT_STREQ(raw->StringOf("cc"), "Heinz M\xC3\xBCller");
    EXPECT_STREQ(raw->StringOf("subject"), "Grüße");
}

// Of several files with one Message-ID in a store, the older delivery is the message: the file's
// modification time decides, then its name; the same after a restart, and when an older copy arrives
// while the service runs (a sync tool keeps a message's time).
TEST_F(MimeReading, OfFilesWithOneMessageIdTheOlderIsTheMessage) {
    const auto message = [](const std::string& subject) {
        return velmar::test::Message("<twice@x>", subject);
    };
    DeliverAt("1.M1.h", message("neuer"), 100);
    DeliverAt("2.M1.h", message("aelter"), 200);
    DeliverAt("3.M1.h", velmar::test::Message("<same-time@x>", "b"), 300);
    DeliverAt("4.M1.h", velmar::test::Message("<same-time@x>", "a"), 300);
    fs::last_write_time(m_dir / "one" / "new" / "4.M1.h",
                        fs::last_write_time(m_dir / "one" / "new" / "3.M1.h"));
    for (int run = 0; run < 2; ++run) {
        Start();
        EXPECT_STREQ(Data("<twice@x>")->StringOf("subject"), "aelter") << "run " << run;
        EXPECT_STREQ(Data("<same-time@x>")->StringOf("subject"), "b") << "run " << run;
        if (run == 1) {
            DeliverAt("5.M1.h", message("am aeltesten"), 400);
            EXPECT_STREQ(Data("<twice@x>")->StringOf("subject"), "am aeltesten");
        }
        StopService();
    }
}

}  // namespace
