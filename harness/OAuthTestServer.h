// The tests' OAuth2 authorization server: tests/oauth/oauth_test_server.py (path in
// VELMAR_OAUTH_TEST_SERVER) under Debian's /usr/bin/python3, on a loopback port, its access tokens living
// the seconds given. The test plays the user and the server's operator through its control endpoints.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "harness/ReadyProcess.h"
#include "harness/ShellCommand.h"
#include "json/CkJsonArray.h"
#include "json/CkJsonObject.h"

namespace velmar::test {

class COAuthTestServer {
public:
    COAuthTestServer(const std::filesystem::path& folder, int lifetimeSeconds) {
        std::filesystem::create_directories(folder);
        m_port = m_process.Start({"/usr/bin/python3", VELMAR_OAUTH_TEST_SERVER, "serve", "--lifetime",
                                  std::to_string(lifetimeSeconds)},
                                 (folder / "server.log").string(), m_startError);
    }

    bool Ready() const { return m_port != 0; }
    const std::string& StartError() const { return m_startError; }
    std::string Url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(m_port) + path;
    }
    // A command that prints a fresh access token, as a token helper does.
    std::string TokenCommand() const {
        return std::string("/usr/bin/python3 ") + VELMAR_OAUTH_TEST_SERVER + " token " + Url("");
    }

    // Posts the fields ("name=value") to path: /verify (the user enters a code), /revoke (every refresh
    // token), /expire (every access token). Its JSON answer.
    std::unique_ptr<CkJsonObject> Call(const std::string& path,
                                       const std::vector<std::string>& fields = {}) const {
        std::string command =
            std::string("/usr/bin/python3 ") + VELMAR_OAUTH_TEST_SERVER + " call '" + Url(path) + "'";
        for (const std::string& field : fields) command += " '" + field + "'";
        auto answer = std::make_unique<CkJsonObject>();
        answer->Load(CommandOutput(command));
        return answer;
    }
    // Opens url as the user's browser does when the user agrees to everything; the last page it showed.
    std::string Open(const std::string& url) const {
        return CommandOutput(std::string("/usr/bin/python3 ") + VELMAR_OAUTH_TEST_SERVER + " open '" + url +
                             "'");
    }
    // A count of /stats: "refreshes", "introspections", "device_polls".
    int Count(const char* name) const { return Call("/stats")->IntOf(name); }
    // Every token it has handed out, access and refresh.
    std::vector<std::string> Tokens() const {
        std::vector<std::string> tokens;
        const std::unique_ptr<CkJsonArray> list = Call("/tokens")->ArrayOf("tokens");
        for (int i = 0; list && i < list->Count(); ++i) tokens.emplace_back(list->StringAt(i));
        return tokens;
    }

private:
    CReadyProcess m_process;
    int m_port = 0;
    std::string m_startError;
};

}  // namespace velmar::test
