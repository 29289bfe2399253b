// A real SMTP server on loopback for the tests (tests/smtp/smtp_test_server.py under Debian's Python with
// aiosmtpd): started with its options, stopped and started again on its port, faults set while it runs, and
// the messages it accepted read back with their envelopes.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "json/CkJsonArray.h"
#include "json/CkJsonObject.h"
#include "tests/ServiceProcess.h"
#include "tests/TestFiles.h"

namespace velmar::test {

// A TCP port on 127.0.0.1 that nothing listens on now; 0 when none could be had.
inline int FreeLoopbackPort() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return 0;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    int port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0)
        port = ntohs(address.sin_port);
    close(fd);
    return port;
}

struct CReceivedMail {
    std::string from;
    std::vector<std::string> recipients;
    std::string data;  // as the server received it, CR LF line ends
    bool tls = false;
    std::string user;
    bool dropped = false;  // the server closed the connection instead of accepting it
};

class CSmtpTestServer {
public:
    // folder: the server's own (spool, certificate, control file); options: more command-line options
    // ("--tls-dir", "--require-starttls", "--smtps", "--auth user:password").
    CSmtpTestServer(std::filesystem::path folder, std::vector<std::string> options = {})
        : m_folder(std::move(folder)), m_options(std::move(options)) {
        std::filesystem::create_directories(m_folder);
        Start();
    }
    ~CSmtpTestServer() { Stop(); }
    CSmtpTestServer(const CSmtpTestServer&) = delete;
    CSmtpTestServer& operator=(const CSmtpTestServer&) = delete;

    // Starts it (again, on the port it had); false when it did not say it was ready within 20 s.
    bool Start() {
        if (m_process) return true;
        std::vector<std::string> arguments{VELMAR_SMTP_TEST_SERVER, "--spool", (m_folder / "spool").string(),
                                           "--control", (m_folder / "control.json").string()};
        if (m_port) arguments.insert(arguments.end(), {"--port", std::to_string(m_port)});
        for (const std::string& option : m_options) {
            if (option == "--tls-dir")
                arguments.insert(arguments.end(), {"--tls-dir", (m_folder / "tls").string()});
            else
                arguments.push_back(option);
        }
        int output[2];
        if (pipe(output) != 0) return false;
        m_process.emplace("/usr/bin/python3", arguments, output[1]);
        close(output[1]);
        std::string line;
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (line.find('\n') == std::string::npos && std::chrono::steady_clock::now() < end) {
            pollfd ready{output[0], POLLIN, 0};
            if (poll(&ready, 1, 200) <= 0) continue;
            char buffer[256];
            const ssize_t n = read(output[0], buffer, sizeof buffer);
            if (n <= 0) break;
            line.append(buffer, static_cast<size_t>(n));
        }
        close(output[0]);
        if (line.rfind("READY ", 0) != 0) {
            m_process.reset();
            return false;
        }
        m_port = std::stoi(line.substr(6));
        return true;
    }
    void Stop() {
        if (!m_process) return;
        m_process->Signal(SIGTERM);
        m_process->WaitForExit(10000);
        m_process.reset();
    }

    int Port() const { return m_port; }
    std::string Url(const char* scheme = "smtp") const {
        return std::string(scheme) + "://127.0.0.1:" + std::to_string(m_port);
    }
    std::string CertificateFile() const { return (m_folder / "tls" / "cert.pem").string(); }
    // Faults for the commands to come (see the script): a JSON object; "{}" for none.
    void SetControl(const std::string& json) { WriteFile(m_folder / "control.json", json); }

    // How many messages came, without reading them.
    size_t Count() const {
        std::error_code error;
        size_t count = 0;
        for (const auto& entry : std::filesystem::directory_iterator(m_folder / "spool", error))
            count += entry.path().extension() == ".json";
        return count;
    }

    std::vector<CReceivedMail> Messages() const {
        std::vector<CReceivedMail> mails;
        const std::filesystem::path spool = m_folder / "spool";
        if (!std::filesystem::is_directory(spool)) return mails;
        std::vector<std::filesystem::path> facts;
        for (const auto& entry : std::filesystem::directory_iterator(spool))
            if (entry.path().extension() == ".json") facts.push_back(entry.path());
        std::sort(facts.begin(), facts.end());
        for (const std::filesystem::path& path : facts) {
            CkJsonObject json;
            if (!json.Load(ReadFile(path).c_str())) continue;
            CReceivedMail mail;
            mail.from = json.StringOf("mail_from") ? json.StringOf("mail_from") : "";
            if (std::unique_ptr<CkJsonArray> recipients = json.ArrayOf("rcpt_tos"))
                for (int i = 0; i < recipients->Count(); ++i)
                    mail.recipients.push_back(recipients->StringAt(i));
            mail.tls = json.BoolOf("tls");
            mail.dropped = json.BoolOf("dropped");
            if (const char* user = json.StringOf("auth_user")) mail.user = user;
            std::filesystem::path data = path;
            mail.data = ReadFile(data.replace_extension(".eml"));
            mails.push_back(std::move(mail));
        }
        return mails;
    }
    // Waits until count messages came (deliveries run on the spooler's thread); what came.
    std::vector<CReceivedMail> WaitForMessages(
        size_t count, std::chrono::seconds patience = std::chrono::seconds(30)) const {
        const auto end = std::chrono::steady_clock::now() + patience;
        std::vector<CReceivedMail> mails = Messages();
        while (mails.size() < count && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            mails = Messages();
        }
        return mails;
    }

private:
    std::filesystem::path m_folder;
    std::vector<std::string> m_options;
    int m_port = 0;
    std::optional<CServiceProcess> m_process;
};

}  // namespace velmar::test
