// The dispatcher in process, through a connection of the test's own: the exact reply each command writes,
// and a write that fails. On POSIX the mail layer runs on our MAPI; under
// Wine it finds Wine's mapi32, which does not initialise, so the replies show the failure paths.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "harness/TestFiles.h"
#include "json/CkJsonObject.h"
#include "mail/VelmarMapi.h"
#include "service/Dispatcher.h"
#include "support/ActivityList.h"
#include "support/CodePage.h"

namespace {

using velmar::service::CRequestDispatcher;
using velmar::service::IPipeConnection;
using velmar::service::kReplyWritten;

#ifdef VELMAR_MAPI_LIBRARY_FILE
constexpr bool kMapiWorks = true;
#else
constexpr bool kMapiWorks = false;
#endif

// Keeps what the dispatcher writes; can be told to fail its writes.
class CRecordingConnection : public IPipeConnection {
public:
    bool ReadRequest(std::string&, std::wstring&) override { return false; }
    bool WriteReply(const std::string& reply, std::wstring& error) override {
        if (m_bFailWrites) {
            error = L"ErrorWriteFile failed with error 232: Die Pipe wird geschlossen.";
            return false;
        }
        m_replies.push_back(reply);
        return true;
    }
    void End() override {}
    void Interrupt() override {}

    std::vector<std::string> m_replies;
    bool m_bFailWrites = false;
};

class Dispatcher : public ::testing::Test {
protected:
    // Before any fixture is made: its mail layer binds the library when it is constructed.
    static void SetUpTestSuite() {
#ifdef VELMAR_MAPI_LIBRARY_FILE
        velmar::test::SetEnvironment("VELMAR_MAPI_LIBRARY", VELMAR_MAPI_LIBRARY_FILE);
#endif
    }
    void SetUp() override {
        velmar::test::WriteFile(m_dir / "profiles.ini",
                                "[Velmar]\nstore1.name = Postfach\nstore1.path = main\n"
                                "store1.address = me@example.org\nstore1.default = yes\n");
        velmar::test::SetEnvironment("VELMAR_MAPI_PROFILES", (m_dir / "profiles.ini").string());
    }

    // Dispatches request; the reply it wrote, or "(none)".
    std::string Dispatch(const std::string& request, HRESULT expected = kReplyWritten) {
        CkJsonObject document;
        EXPECT_TRUE(document.LoadText(request)) << request;
        m_connection.m_replies.clear();
        bool endsProgram = false;
        EXPECT_EQ(m_dispatcher.Dispatch(document, m_connection, m_stop, endsProgram), expected) << request;
        return m_connection.m_replies.empty() ? "(none)" : m_connection.m_replies.back();
    }

    // The service lines (not the mail trace) added since the last call.
    std::vector<std::string> ServiceLines() {
        const std::vector<std::wstring> all = m_activity.Lines();
        std::vector<std::string> lines;
        for (size_t i = m_seen; i < all.size(); ++i)
            if (all[i].rfind(L"CVelmarMapi::", 0) != 0 && all[i].rfind(L"::", 0) != 0 &&
                all[i].rfind(L"m_lpMAPISession", 0) != 0)
                lines.push_back(velmar::WideToAnsi(all[i]));
        m_seen = all.size();
        return lines;
    }

    velmar::test::CTempDir m_dir;
    CActivityList m_activity;
    CVelmarMapi m_mapi{&m_activity};
    CRequestDispatcher m_dispatcher{m_mapi, m_activity};
    CRecordingConnection m_connection;
    std::atomic<bool> m_stop{false};
    size_t m_seen = 0;
};

std::string Status(const char* status) {
    return std::string("{\r\n  \"status\": \"") + status + "\"\r\n}";
}

const char* Ok(bool success) {
    return success ? "OK" : "FAILED";
}

TEST_F(Dispatcher, ReplyEnvelopes) {
    EXPECT_EQ(Dispatch(R"({"command-target":"MAPI","command":"IsMAPIDllInitialized"})"),
              Status(Ok(kMapiWorks)));
    // The logon's own outcome does not show: "OK" whenever MAPI is there.
    EXPECT_EQ(Dispatch(R"({"command-target":"MAPI","command":"Logon","data_string":"Nirgends"})"),
              Status(Ok(kMapiWorks)));
    EXPECT_EQ(Dispatch(R"({"command-target":"MAPI","command":"Logon","data_string":"Velmar"})"),
              Status(Ok(kMapiWorks)));
    EXPECT_EQ(Dispatch(R"({"command-target":"MAPI","command":"IsInitialized"})"), Status("FAILED"))
        << "no store is selected yet";
    const std::string stores =
        kMapiWorks ? "{\r\n  \"storeIndex\": 0,\r\n  \"messageStoreEntries\": [\r\n    {\r\n      "
                     "\"displayName\": \"Postfach\",\r\n      \"emailAddress\": \"me@example.org\"\r\n    "
                     "}\r\n  ],\r\n  \"status\": \"OK\"\r\n}"
                   : "{\r\n  \"storeIndex\": -1,\r\n  \"messageStoreEntries\": [\r\n  ],\r\n  \"status\": "
                     "\"OK\"\r\n}";
    EXPECT_EQ(Dispatch(R"({"command-target":"MAPI","command":"OpenMessageStoreTable"})"), stores);
    EXPECT_EQ(Dispatch(R"({"command-target":"MAPI","command":"IsInitialized"})"), Status(Ok(kMapiWorks)));
    EXPECT_EQ(Dispatch(R"({"command-target":"MAPI","command":"SetMessageStore","data_int":5})"),
              kMapiWorks ? "{\r\n  \"oldIndex\": 0,\r\n  \"foundIndex\": 0,\r\n  \"status\": \"OK\"\r\n}"
                         : "{\r\n  \"oldIndex\": -1,\r\n  \"foundIndex\": -1,\r\n  \"status\": \"OK\"\r\n}");
    EXPECT_EQ(Dispatch(R"({"command-target":"MAPI","command":"SetMessageStore","data_string":"postfach"})"),
              kMapiWorks ? "{\r\n  \"foundIndex\": 0,\r\n  \"status\": \"FAILED\"\r\n}"
                         : "{\r\n  \"foundIndex\": -1,\r\n  \"status\": \"FAILED\"\r\n}");
    const std::string unknownMessage =
        "{\r\n  \"emailConnection\": \"\",\r\n  \"mailbox\": \"\",\r\n  \"messageId\": \"\",\r\n  \"from\": "
        "\"\",\r\n  \"fromAddress\": \"\",\r\n  \"to\": \"\",\r\n  \"cc\": \"\",\r\n  \"bcc\": \"\",\r\n  "
        "\"sent\": \"\",\r\n  \"subject\": \"\",\r\n  \"body\": \"\",\r\n  \"rtfBody\": \"\",\r\n  "
        "\"htmlBody\": \"\",\r\n  \"sentDate\": \"\",\r\n  \"LotusNotesUrl\": \"\",\r\n  "
        "\"strEmbeddedAttachments\": [\r\n  ],\r\n  \"attachments\": [\r\n  ],\r\n  \"status\": "
        "\"FAILED\"\r\n}";
    EXPECT_EQ(Dispatch(R"({"command-target":"MAPI","command":"GetMessageData","messageId":"<nie@x>"})"),
              unknownMessage);
    EXPECT_EQ(Dispatch(R"({"command-target":"MAPI","command":"OpenAttachment","messageId":"<nie@x>"})"),
              "{\r\n  \"fileName\": \"\",\r\n  \"status\": \"OK\"\r\n}");
    EXPECT_EQ(Dispatch(R"({"command-target":"MAPI","command":"FindMessage","messageId":"<nie@x>"})"),
              Status("OK"))
        << "FindMessage always answers OK";
    EXPECT_EQ(Dispatch(R"({"command-target":"MAPI","command":"SaveToMsg","messageId":"<nie@x>"})"),
              Status("FAILED"));
    EXPECT_EQ(Dispatch(R"({"command-target":"MAPI","command":"Logoff"})"), Status(Ok(kMapiWorks)));
}

TEST_F(Dispatcher, AFailedWriteIsTracedAndReported) {
    m_connection.m_bFailWrites = true;
    ServiceLines();
    EXPECT_EQ(Dispatch(R"({"command-target":"MAPI","command":"IsMAPIDllInitialized"})", E_FAIL), "(none)");
    const std::vector<std::wstring> lines = m_activity.Lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), L"ErrorWriteFile failed with error 232: Die Pipe wird geschlossen.");
}

}  // namespace
