// A private Postfix for a test: tests/smtp/postfix_instance.sh (path in VELMAR_POSTFIX_INSTANCE), listening
// on a free loopback port, delivering example.test mail into Maildirs of its folder; with a Dovecot's SASL
// it takes mail only from clients that signed in through it. As root only.
#pragma once

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "harness/FreePort.h"

namespace velmar::test {

class CPostfixServer {
public:
    // sasl: "inet:127.0.0.1:<port>" of a Dovecot, or empty.
    CPostfixServer(std::filesystem::path folder, const std::vector<std::string>& users,
                   const std::string& sasl = "")
        : m_folder(std::move(folder)), m_port(FreeLoopbackPort()) {
        std::string command = "POSTFIX_SASL='" + sasl + "' bash " VELMAR_POSTFIX_INSTANCE " start '" +
                              m_folder.string() + "' " + std::to_string(m_port);
        for (const std::string& user : users) command += " " + user;
        m_running = m_port > 0 && std::system((command + " >/dev/null").c_str()) == 0;
    }
    ~CPostfixServer() {
        if (m_running)
            std::system(("bash " VELMAR_POSTFIX_INSTANCE " stop '" + m_folder.string() + "'").c_str());
    }
    CPostfixServer(const CPostfixServer&) = delete;
    CPostfixServer& operator=(const CPostfixServer&) = delete;

    bool Ready() const { return m_running; }
    int Port() const { return m_port; }
    std::filesystem::path Log() const { return m_folder / "postfix.log"; }

    // The messages delivered to user, once there are at least count of them or 30 s have passed.
    std::vector<std::filesystem::path> Delivered(const std::string& user, size_t count = 1) const {
        std::vector<std::filesystem::path> files;
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (std::chrono::steady_clock::now() < end) {
            files.clear();
            std::error_code error;
            for (const auto& entry :
                 std::filesystem::directory_iterator(m_folder / "mail" / user / "new", error))
                files.push_back(entry.path());
            if (files.size() >= count) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return files;
    }

private:
    std::filesystem::path m_folder;
    int m_port = 0;
    bool m_running = false;
};

}  // namespace velmar::test
