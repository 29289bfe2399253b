// A real IMAP server for the tests: a private Dovecot (tests/imap/dovecot_instance.sh, path in
// VELMAR_DOVECOT_INSTANCE) on loopback ports of its own, as root, with a private CA. Mail is put in place as
// a delivery agent would (a file in the user's Maildir, owned by the mail user), and read back from there:
// what the server holds is what the test sees on disk.
#pragma once

#include <dirent.h>
#include <pwd.h>
#include <unistd.h>
#include <utime.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "harness/FreePort.h"
#include "harness/ShellCommand.h"
#include "harness/TestFiles.h"

namespace velmar::test {

// Dovecot configured as other makers configure their servers (see dovecot_instance.sh).
enum class EDovecotFlavour { Standard, InboxNamespace, Trimmed, NoCreate };

inline const char* FlavourName(EDovecotFlavour flavour) {
    switch (flavour) {
        case EDovecotFlavour::InboxNamespace:
            return "inbox-namespace";
        case EDovecotFlavour::Trimmed:
            return "trimmed";
        case EDovecotFlavour::NoCreate:
            return "no-create";
        case EDovecotFlavour::Standard:
            break;
    }
    return "standard";
}

// The configurations the tests run the same store against (a server that lets no folder be made aside).
inline constexpr EDovecotFlavour kServerKinds[] = {EDovecotFlavour::Standard, EDovecotFlavour::InboxNamespace,
                                                   EDovecotFlavour::Trimmed};

// The flavour's name as a test's name may have it.
inline std::string FlavourTestName(EDovecotFlavour flavour) {
    std::string name = FlavourName(flavour);
    std::erase(name, '-');
    return name;
}

class CDovecotServer {
public:
    // The users log in with the password "geheim"; with an introspection URL (RFC 7662) also with the
    // access tokens it calls active, by the SASL mechanisms named, and its SASL serves a Postfix on
    // SaslPort().
    CDovecotServer(std::filesystem::path folder, std::vector<std::string> users,
                   EDovecotFlavour flavour = EDovecotFlavour::Standard, std::string introspectionUrl = "",
                   std::string tokenMechanisms = "oauthbearer xoauth2")
        : m_folder(std::move(folder)),
          m_users(std::move(users)),
          m_flavour(flavour),
          m_introspectionUrl(std::move(introspectionUrl)),
          m_tokenMechanisms(std::move(tokenMechanisms)) {
        // Three ports in a row: STARTTLS, implicit TLS, SASL.
        for (int attempt = 0; attempt < 20 && m_port == 0; ++attempt) {
            const int port = FreeLoopbackPort();
            if (port > 0 && port < 65534 && IsFreeLoopbackPort(port + 1) && IsFreeLoopbackPort(port + 2))
                m_port = port;
        }
        Start();
    }
    ~CDovecotServer() { Stop(); }
    CDovecotServer(const CDovecotServer&) = delete;
    CDovecotServer& operator=(const CDovecotServer&) = delete;

    bool Start() {
        std::string command = "DOVECOT_OAUTH2_MECHANISMS='" + m_tokenMechanisms + "' DOVECOT_OAUTH2_URL='" +
                              m_introspectionUrl + "' DOVECOT_FLAVOUR=" + FlavourName(m_flavour) +
                              " bash " VELMAR_DOVECOT_INSTANCE " start '" + m_folder.string() + "' " +
                              std::to_string(m_port);
        for (const std::string& user : m_users) command += " " + user;
        m_running = CommandOutput(command) == "READY\n";
        return m_running;
    }
    void Stop() {
        if (m_running) CommandOutput("bash " VELMAR_DOVECOT_INSTANCE " stop '" + m_folder.string() + "'");
        m_running = false;
    }
    bool Ready() const { return m_running; }
    EDovecotFlavour Flavour() const { return m_flavour; }
    // The name the server gives a user's folder (as a client writes it after LIST).
    std::string ServerName(const std::string& mailbox) const {
        return m_flavour == EDovecotFlavour::InboxNamespace && mailbox != "INBOX" ? "INBOX." + mailbox
                                                                                  : mailbox;
    }
    int Port() const { return m_port; }
    int TlsPort() const { return m_port + 1; }
    int SaslPort() const { return m_port + 2; }
    std::filesystem::path CaFile() const { return m_folder / "ca.pem"; }
    std::string Config() const { return (m_folder / "conf/dovecot.conf").string(); }
    // A tunnel command for the profile: Dovecot's imap program, logged in as user already.
    std::string Tunnel(const std::string& user) const {
        return "cd / && setpriv --reuid=nobody --regid=nogroup --clear-groups env USER=" + user +
               " HOME=/ /usr/lib/dovecot/imap -c " + Config();
    }

    // The Maildir folder of a user's mailbox ("" or "INBOX" for the inbox).
    std::filesystem::path MailboxPath(const std::string& user, const std::string& mailbox) const {
        const std::filesystem::path root = m_folder / "mail" / user;
        return mailbox.empty() || mailbox == "INBOX" ? root : root / ("." + mailbox);
    }

    // Puts a message into a mailbox as a delivery agent does: a new file in new/ (or cur/ with flags), owned
    // by the mail user like its folders. received (seconds since 1970) is the file's time, which the server
    // reports as the message's INTERNALDATE; 0 for now.
    void Deliver(const std::string& user, const std::string& mailbox, const std::string& message,
                 const std::string& flags = "", time_t received = 0) {
        static int counter = 0;
        const passwd* mailUser = getpwnam("nobody");
        const auto own = [mailUser](const std::filesystem::path& path) {
            if (mailUser && chown(path.c_str(), mailUser->pw_uid, mailUser->pw_gid) != 0) {
                // Left to root: the test's server then says so when it reads the folder.
            }
        };
        // Only what is made here is given to the mail user: a folder the server was given otherwise stays so.
        const std::filesystem::path folder = MailboxPath(user, mailbox);
        if (std::filesystem::create_directories(folder)) own(folder);
        for (const char* sub : {"cur", "new", "tmp"})
            if (std::filesystem::create_directories(folder / sub)) own(folder / sub);
        const std::string name = std::to_string(time(nullptr)) + ".V" + std::to_string(getpid()) + "I" +
                                 std::to_string(++counter) + ".velmar-test";
        const std::filesystem::path temporary = folder / "tmp" / name;
        WriteFile(temporary, message);
        own(temporary);
        if (received != 0) {
            const utimbuf times{received, received};
            utime(temporary.c_str(), &times);
        }
        const std::filesystem::path final =
            flags.empty() ? folder / "new" / name : folder / "cur" / (name + ":2," + flags);
        std::filesystem::rename(temporary, final);
    }

    // The Maildir flags of the message of a mailbox whose text holds needle; "?" when there is none.
    std::string FlagsOf(const std::string& user, const std::string& mailbox,
                        const std::string& needle) const {
        for (const std::string& file : Files(user, mailbox)) {
            if (ReadFile(file).find(needle) == std::string::npos) continue;
            const size_t info = file.rfind(":2,");
            return info == std::string::npos ? "" : file.substr(info + 3);
        }
        return "?";
    }
    // How many messages of a mailbox hold needle.
    size_t Count(const std::string& user, const std::string& mailbox, const std::string& needle) const {
        size_t count = 0;
        for (const std::string& file : Files(user, mailbox))
            count += ReadFile(file).find(needle) != std::string::npos;
        return count;
    }
    // Gives a mailbox another UIDVALIDITY, as a server does when it rebuilds a folder.
    void ChangeUidValidity(const std::string& user, const std::string& mailbox, unsigned value) const {
        CommandOutput("doveadm -c " + Config() + " mailbox update -u " + user + " --uid-validity " +
                      std::to_string(value) + " " + mailbox);
    }

private:
    std::vector<std::string> Files(const std::string& user, const std::string& mailbox) const {
        std::vector<std::string> files;
        for (const char* sub : {"new", "cur"}) {
            const std::filesystem::path folder = MailboxPath(user, mailbox) / sub;
            std::error_code ignored;
            for (const auto& entry : std::filesystem::directory_iterator(folder, ignored))
                files.push_back(entry.path().string());
        }
        return files;
    }

    std::filesystem::path m_folder;
    std::vector<std::string> m_users;
    EDovecotFlavour m_flavour;
    std::string m_introspectionUrl;
    std::string m_tokenMechanisms;
    int m_port = 0;
    bool m_running = false;
};

}  // namespace velmar::test
