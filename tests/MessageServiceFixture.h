// The real service for the message tests: Maildir stores of the test's own, mail written into them, and
// requests through the real channel.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <optional>

#include "json/CkJsonObject.h"
#include "tests/ServiceFixture.h"

namespace velmar::test {

namespace fs = std::filesystem;

inline std::string Message(const std::string& id, const std::string& subject,
                           const std::string& extraHeaders = "", const std::string& body = "Hallo\n") {
    return "From: Absender <from@example.org>\nTo: A <a@x>, B <b@x>, C <c@x>\nMessage-ID: " + id +
           "\nSubject: " + subject + "\n" + extraHeaders + "\n" + body;
}

inline std::string WithAttachment(const std::string& id, const std::string& fileName,
                                  const std::string& base64,
                                  const std::string& type = "application/octet-stream") {
    return "From: x@y\nMessage-ID: " + id +
           "\nSubject: attachment\nMIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=b\n\n--b\n"
           "Content-Type: text/plain\n\ntext\n--b\nContent-Type: " +
           type + "\nContent-Disposition: attachment; filename=\"" + fileName +
           "\"\nContent-Transfer-Encoding: base64\n\n" + base64 + "\n--b--\n";
}

// The real service on Maildir stores of the test's own (profile "Velmar": stores Eins, Zwei and Archiv),
// asked through its channel; its exports go to tmp/ of the test's folder.
class CMessageServiceTest : public CServiceTest {
protected:
    void SetUp() override {
        CServiceTest::SetUp();
        WriteFile(m_dir / "profiles.ini",
                  "[Velmar]\n"
                  "store1.name = Eins\nstore1.path = one\nstore1.address = one@x\n"
                  "store2.name = Zwei\nstore2.path = two\nstore2.address = two@x\n"
                  "store3.name = Archiv\nstore3.path = archive\nstore3.address = archive@x\n");
        WriteFile(m_dir / "xdg" / "Velmar" / "Velmar.ini", "[KESTA]\nARCHIVE_MSGSTORE=Archiv\n");
        fs::create_directories(m_dir / "tmp");
        SetEnvironment("VELMAR_MAPI_PROFILES", (m_dir / "profiles.ini").string());
        SetEnvironment("XDG_CONFIG_DIRS", (m_dir / "xdg").string());
        // The service's export folder; the tests' own temporary folder comes back in TearDown.
        const char* previous = std::getenv("TMPDIR");
        m_previousTmpdir = previous ? previous : fs::temp_directory_path().string();
        SetEnvironment("TMPDIR", (m_dir / "tmp").string());
    }
    void TearDown() override {
        CServiceTest::TearDown();
        SetEnvironment("TMPDIR", m_previousTmpdir);
    }

    void Deliver(const char* store, const std::string& name, const std::string& text) {
        WriteFile(m_dir / store / "new" / name, text);
    }

    // The headless service, logged on to the profile with its stores opened.
    void Start() {
        StartService();
        ASSERT_TRUE(m_channel);
        ASSERT_TRUE(Ask(R"({"command-target":"MAPI","command":"Logon","data_string":"Velmar"})"));
        ASSERT_TRUE(Ask(R"({"command-target":"MAPI","command":"OpenMessageStoreTable"})"));
    }

    // The reply, parsed. A missing or broken reply is a failure of the test, and an empty object comes
    // back, so that the test goes on to fail cleanly instead of reading through a null pointer.
    std::unique_ptr<CkJsonObject> Ask(const std::string& request) {
        auto json = std::make_unique<CkJsonObject>();
        const std::optional<std::string> reply = Request(request);
        if (!reply)
            ADD_FAILURE() << "no reply to " << request;
        else if (!json->LoadText(*reply))
            ADD_FAILURE() << "no JSON in the reply to " << request << ": " << *reply;
        return json;
    }

    std::unique_ptr<CkJsonObject> MessageData(const std::string& id, const std::string& address, int store,
                                              bool setRead,
                                              std::optional<bool> receivingOnly = std::nullopt) {
        CkJsonObject request;
        request.AppendString("command-target", "MAPI");
        request.AppendString("command", "GetMessageData");
        request.AppendString("messageId", id.c_str());
        request.AppendString("toEMailAddress", address.c_str());
        request.AppendString("profileName", "Velmar");
        request.AddIntAt(-1, "storeIndex", store);
        request.AppendString("setReadIfMainMessageStore", setRead ? "true" : "false");
        if (receivingOnly)
            request.AppendString("parameterStoreKestaEMailOptimalMessageStore",
                                 *receivingOnly ? "true" : "false");
        return Ask(request.Emit());
    }

    // The reply to OpenAttachment for a message's attachment, and the path it answers with.
    std::unique_ptr<CkJsonObject> OpenAttachment(const std::string& id, int index) {
        return Ask(R"({"command-target":"MAPI","command":"OpenAttachment","messageId":")" + id +
                   R"(","attachmentIndex":)" + std::to_string(index) + "}");
    }
    std::string ExportedPath(const std::string& id, int index) {
        auto reply = OpenAttachment(id, index);
        return reply->StringOf("fileName") ? reply->StringOf("fileName") : "(no reply)";
    }

    std::string m_previousTmpdir;
};

}  // namespace velmar::test
