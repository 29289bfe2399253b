// A real SMTP server on loopback for the tests: tests/smtp/smtp_test_server.py (path in
// VELMAR_SMTP_TEST_SERVER) under Debian's /usr/bin/python3 with aiosmtpd. Started with its options, stopped
// and started again on its port, faults set while it runs, and the messages it accepted read back with
// their envelopes. Its own files live in the folder it is given: spool/, tls/, control.json, server.log
// (what it printed on its error output).
#pragma once

#include <fcntl.h>
#include <unistd.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "harness/FreePort.h"
#include "harness/ReadyProcess.h"
#include "harness/TestFiles.h"
#include "json/CkJsonArray.h"
#include "json/CkJsonObject.h"

namespace velmar::test {

struct CReceivedMail {
    std::string from;
    std::vector<std::string> recipients;
    std::string data;  // exactly as the server received it (dot-stuffing undone), CR LF line ends
    bool tls = false;
    std::string user;      // who logged on; empty when nobody did
    bool dropped = false;  // the server closed the connection instead of replying to the data
};

class CSmtpTestServer {
public:
    // folder: the server's own; options: more command-line options of the script ("--tls-dir" alone, which
    // means folder/tls, "--require-starttls", "--smtps", "--auth", "user:password"). Started at once: see
    // Port() or StartError() for how that went.
    CSmtpTestServer(std::filesystem::path folder, std::vector<std::string> options = {})
        : m_folder(std::move(folder)), m_options(std::move(options)) {
        std::filesystem::create_directories(m_folder);
        Start();
    }
    ~CSmtpTestServer() { Stop(); }
    CSmtpTestServer(const CSmtpTestServer&) = delete;
    CSmtpTestServer& operator=(const CSmtpTestServer&) = delete;

    // Starts it (again, on the port it had before). False when it did not say READY within 20 s or ended
    // first; StartError() then says why, with what the server printed, and it is written to stderr too.
    bool Start() {
        if (m_process.Running()) return true;
        m_startError.clear();
        std::vector<std::string> arguments{"/usr/bin/python3", VELMAR_SMTP_TEST_SERVER,
                                           "--spool",          (m_folder / "spool").string(),
                                           "--control",        (m_folder / "control.json").string()};
        if (m_port) arguments.insert(arguments.end(), {"--port", std::to_string(m_port)});
        for (const std::string& option : m_options) {
            if (option == "--tls-dir")
                arguments.insert(arguments.end(), {"--tls-dir", (m_folder / "tls").string()});
            else
                arguments.push_back(option);
        }
        std::string why;
        const int port = m_process.Start(arguments, (m_folder / "server.log").string(), why);
        if (!port) return Failed(why);
        m_port = port;
        return true;
    }

    // Stops it (SIGTERM; SIGKILL when it is still there after 10 s) and reaps it.
    void Stop() { m_process.Stop(); }

    bool Running() const { return m_process.Running(); }
    const std::string& StartError() const { return m_startError; }
    // The port it listens (or last listened) on; 0 before it ever started.
    int Port() const { return m_port; }
    std::string Url(const char* scheme = "smtp") const {
        return std::string(scheme) + "://127.0.0.1:" + std::to_string(m_port);
    }
    // The self-signed certificate made with "--tls-dir", to trust as the CA.
    std::string CertificateFile() const { return (m_folder / "tls" / "cert.pem").string(); }
    // Faults for the commands to come (see the script): a JSON object; "{}" for none. Replaced whole, so
    // the server never reads half of it.
    void SetControl(const std::string& json) {
        WriteFile(m_folder / "control.json.part", json);
        std::filesystem::rename(m_folder / "control.json.part", m_folder / "control.json");
    }

    // How many messages came, without reading them.
    size_t Count() const {
        std::error_code error;
        size_t count = 0;
        for (const auto& entry : std::filesystem::directory_iterator(m_folder / "spool", error))
            count += entry.path().extension() == ".json";
        return count;
    }

    // The messages it kept, in the order they came.
    std::vector<CReceivedMail> Messages() const {
        std::vector<CReceivedMail> mails;
        std::vector<std::filesystem::path> facts;
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator(m_folder / "spool", error))
            if (entry.path().extension() == ".json") facts.push_back(entry.path());
        std::sort(facts.begin(), facts.end());
        for (const std::filesystem::path& path : facts) {
            CkJsonObject json;
            if (!json.LoadText(ReadFile(path))) continue;
            CReceivedMail mail;
            if (const char* from = json.StringOf("mail_from")) mail.from = from;
            if (std::unique_ptr<CkJsonArray> recipients = json.ArrayOf("rcpt_tos"))
                for (int i = 0; i < recipients->Count(); ++i)
                    if (const char* recipient = recipients->StringAt(i)) mail.recipients.push_back(recipient);
            mail.tls = json.BoolOf("tls");
            mail.dropped = json.BoolOf("dropped");
            if (const char* user = json.StringOf("auth_user")) mail.user = user;
            std::filesystem::path data = path;
            mail.data = ReadFile(data.replace_extension(".eml"));
            mails.push_back(std::move(mail));
        }
        return mails;
    }

    // Waits until count messages came (deliveries run on the spooler's thread) or patience runs out; what
    // came by then, for the test to judge.
    std::vector<CReceivedMail> WaitForMessages(
        size_t count, std::chrono::seconds patience = std::chrono::seconds(30)) const {
        const auto end = std::chrono::steady_clock::now() + patience;
        while (Count() < count && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return Messages();
    }

private:
    bool Failed(const std::string& why) {
        m_startError = "the SMTP test server did not start: " + why;
        const std::string printed = ReadFile(m_folder / "server.log");
        if (!printed.empty()) m_startError += "; it printed:\n" + printed;
        std::fprintf(stderr, "%s\n", m_startError.c_str());
        return false;
    }

    std::filesystem::path m_folder;
    std::vector<std::string> m_options;
    int m_port = 0;
    CReadyProcess m_process;
    std::string m_startError;
};

}  // namespace velmar::test
