#include "mapi/imap/ImapConnection.h"

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <gnutls/gnutls.h>
#include <gnutls/x509.h>
#include <libetpan/libetpan.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <cctype>
#include <cstring>
#include <memory>
#include <optional>

#include "mapi/imap/ImapFetchReader.h"
#include "mapi/imap/ImapLibetpan.h"
#include "mapi/imap/ImapSasl.h"
#include "mapi/mime/HeaderBlock.h"
#include "mapi/provider/AccountSecrets.h"

extern char** environ;

namespace velmar::mapi {
namespace {

// A server that says nothing for this long is given up.
constexpr time_t kNetworkTimeoutSeconds = 30;

bool Succeeded(int result) {
    return result == MAILIMAP_NO_ERROR || result == MAILIMAP_NO_ERROR_AUTHENTICATED ||
           result == MAILIMAP_NO_ERROR_NON_AUTHENTICATED;
}

std::uint32_t FlagsOf(const mailimap_msg_att_dynamic* dynamic) {
    std::uint32_t flags = 0;
    if (!dynamic || !dynamic->att_list) return flags;
    for (clistiter* it = clist_begin(dynamic->att_list); it; it = clist_next(it)) {
        const auto* fetched = static_cast<const mailimap_flag_fetch*>(clist_content(it));
        if (!fetched || fetched->fl_type != MAILIMAP_FLAG_FETCH_OTHER || !fetched->fl_flag) continue;
        switch (fetched->fl_flag->fl_type) {
            case MAILIMAP_FLAG_SEEN:
                flags |= kImapSeen;
                break;
            case MAILIMAP_FLAG_ANSWERED:
                flags |= kImapAnswered;
                break;
            case MAILIMAP_FLAG_FLAGGED:
                flags |= kImapFlagged;
                break;
            case MAILIMAP_FLAG_DELETED:
                flags |= kImapDeleted;
                break;
            case MAILIMAP_FLAG_DRAFT:
                flags |= kImapDraft;
                break;
            default:
                break;
        }
    }
    return flags;
}

FlagList NewFlagList(std::uint32_t flags) {
    FlagList list(mailimap_flag_list_new_empty());
    if (flags & kImapSeen) mailimap_flag_list_add(list.get(), mailimap_flag_new_seen());
    if (flags & kImapAnswered) mailimap_flag_list_add(list.get(), mailimap_flag_new_answered());
    if (flags & kImapFlagged) mailimap_flag_list_add(list.get(), mailimap_flag_new_flagged());
    if (flags & kImapDeleted) mailimap_flag_list_add(list.get(), mailimap_flag_new_deleted());
    if (flags & kImapDraft) mailimap_flag_list_add(list.get(), mailimap_flag_new_draft());
    return list;
}

// Days since 1970-01-01 of a date of the proleptic Gregorian calendar.
std::int64_t DaysFromCivil(std::int64_t year, unsigned month, unsigned day) {
    year -= month <= 2;
    const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
    const unsigned yearOfEra = static_cast<unsigned>(year - era * 400);
    const unsigned dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + static_cast<std::int64_t>(dayOfEra) - 719468;
}

// The time of an IMAP INTERNALDATE (" 1-Jan-2024 10:00:00 +0100", the day's leading space optional);
// nullopt for a text that is none.
std::optional<std::int64_t> InternalDate(std::string_view text) {
    static const char* const months[] = {"jan", "feb", "mar", "apr", "may", "jun",
                                         "jul", "aug", "sep", "oct", "nov", "dec"};
    const auto number = [&text](int digits, int& value) {
        value = 0;
        int read = 0;
        while (!text.empty() && std::isdigit(static_cast<unsigned char>(text.front())) && read < digits) {
            value = value * 10 + (text.front() - '0');
            text.remove_prefix(1);
            ++read;
        }
        return read == digits;
    };
    const auto expect = [&text](char c) {
        if (text.empty() || text.front() != c) return false;
        text.remove_prefix(1);
        return true;
    };
    if (!text.empty() && text.front() == ' ') text.remove_prefix(1);
    int day = 0, year = 0, hour = 0, minute = 0, second = 0, zone = 0;
    if (!number(text.size() > 1 && text[1] == '-' ? 1 : 2, day) || !expect('-')) return std::nullopt;
    int month = 0;
    while (month < 12 && (text.size() < 3 || strncasecmp(text.data(), months[month], 3) != 0)) ++month;
    if (month == 12) return std::nullopt;
    text.remove_prefix(3);
    if (!expect('-') || !number(4, year) || !expect(' ') || !number(2, hour) || !expect(':') ||
        !number(2, minute) || !expect(':') || !number(2, second) || !expect(' ') || text.empty())
        return std::nullopt;
    const int sign = text.front() == '-' ? -1 : 1;
    if (!expect(text.front() == '-' ? '-' : '+') || !number(4, zone)) return std::nullopt;
    if (day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) return std::nullopt;
    const int offset = sign * (zone / 100 * 60 + zone % 100);  // minutes east of UTC
    return DaysFromCivil(year, static_cast<unsigned>(month + 1), static_cast<unsigned>(day)) * 86400 +
           hour * 3600 + minute * 60 + second - offset * 60;
}

// A mailbox attribute of RFC 6154, beside which a LIST may give others (\HasNoChildren, \Marked, ...).
bool IsSpecialUse(const std::string& attribute) {
    for (const char* use : {"All", "Archive", "Drafts", "Flagged", "Junk", "Sent", "Trash"})
        if (strcasecmp(attribute.c_str(), use) == 0) return true;
    return false;
}

void SetServerName(struct mailstream_ssl_context* context, void* host) {
    mailstream_ssl_set_server_name(context, static_cast<char*>(host));
}

}  // namespace

CImapConnection::CImapConnection() = default;

CImapConnection::~CImapConnection() {
    Close();
}

bool CImapConnection::IsOpen() const {
    return m_session != nullptr;
}

void CImapConnection::Close() {
    m_selected.reset();
    m_greetingNotes.clear();
    if (m_session) {
        // A polite LOGOUT only when the stream still stands; a broken one is just dropped.
        if (m_session->imap_stream) mailimap_logout(m_session);
        mailimap_free(m_session);
        m_session = nullptr;
    }
    if (m_tunnel > 0) {
        kill(m_tunnel, SIGTERM);
        while (waitpid(m_tunnel, nullptr, 0) < 0 && errno == EINTR) {
        }
        m_tunnel = -1;
    }
}

bool CImapConnection::Check(int result, const char* what, std::string& error) {
    if (Succeeded(result)) return true;
    error = std::string(what);
    if (m_session && m_session->imap_response && *m_session->imap_response)
        error += std::string(": ") + m_session->imap_response;
    else if (result == MAILIMAP_ERROR_STREAM || result == MAILIMAP_ERROR_CONNECTION_REFUSED)
        error += ": keine Verbindung zum Server";
    else
        error += ": Fehler " + std::to_string(result);
    // A stream that broke, or one whose answers could not be read to their end (out of step with the server
    // now, or ended by the server's BYE), is of no more use: the next call opens a new connection.
    if (result == MAILIMAP_ERROR_STREAM || result == MAILIMAP_ERROR_CONNECTION_REFUSED ||
        result == MAILIMAP_ERROR_PARSE || result == MAILIMAP_ERROR_FATAL || result == MAILIMAP_ERROR_PROTOCOL)
        Close();
    return false;
}

bool CImapConnection::HasCapability(const char* name) const {
    return m_session && mailimap_has_extension(m_session, name);
}

// The server's certificate chain, checked by GnuTLS against the trusted CAs and the host name before a
// password or anything else goes to the server.
bool CImapConnection::VerifyCertificate(const CImapAccount& account, std::string& error) {
    carray* chain = mailstream_get_certificate_chain(m_session->imap_stream);
    if (!chain || carray_count(chain) == 0) {
        if (chain) mailstream_certificate_chain_free(chain);
        error = "Zertifikat von " + account.host + " nicht erhalten";
        return false;
    }
    std::vector<gnutls_x509_crt_t> certificates;
    for (unsigned i = 0; i < carray_count(chain); ++i) {
        const auto* der = static_cast<const MMAPString*>(carray_get(chain, i));
        gnutls_x509_crt_t certificate = nullptr;
        if (gnutls_x509_crt_init(&certificate) != GNUTLS_E_SUCCESS) break;
        const gnutls_datum_t datum{reinterpret_cast<unsigned char*>(der->str),
                                   static_cast<unsigned>(der->len)};
        if (gnutls_x509_crt_import(certificate, &datum, GNUTLS_X509_FMT_DER) != GNUTLS_E_SUCCESS) {
            gnutls_x509_crt_deinit(certificate);
            break;
        }
        certificates.push_back(certificate);
    }
    mailstream_certificate_chain_free(chain);

    gnutls_x509_trust_list_t trust = nullptr;
    gnutls_x509_trust_list_init(&trust, 0);
    const int trusted = account.caFile.empty()
                            ? gnutls_x509_trust_list_add_system_trust(trust, 0, 0)
                            : gnutls_x509_trust_list_add_trust_file(trust, account.caFile.c_str(), nullptr,
                                                                    GNUTLS_X509_FMT_PEM, 0, 0);
    unsigned status = GNUTLS_CERT_INVALID;
    gnutls_typed_vdata_st checks[2] = {
        {GNUTLS_DT_DNS_HOSTNAME, reinterpret_cast<unsigned char*>(const_cast<char*>(account.host.c_str())),
         0},
        {GNUTLS_DT_KEY_PURPOSE_OID,
         reinterpret_cast<unsigned char*>(const_cast<char*>(GNUTLS_KP_TLS_WWW_SERVER)), 0}};
    if (trusted > 0 && !certificates.empty())
        gnutls_x509_trust_list_verify_crt2(trust, certificates.data(),
                                           static_cast<unsigned>(certificates.size()), checks, 2, 0, &status,
                                           nullptr);
    gnutls_x509_trust_list_deinit(trust, 1);
    for (gnutls_x509_crt_t certificate : certificates) gnutls_x509_crt_deinit(certificate);
    if (status == 0) return true;
    error = "Zertifikat von " + account.host + " nicht vertrauenswürdig";
    if (trusted <= 0)
        error += " (keine vertrauenswürdigen Zertifizierungsstellen" +
                 (account.caFile.empty() ? std::string() : " in " + account.caFile) + ")";
    gnutls_datum_t text{};
    if (status != GNUTLS_CERT_INVALID &&
        gnutls_certificate_verification_status_print(status, GNUTLS_CRT_X509, &text, 0) == GNUTLS_E_SUCCESS) {
        error += ": " + std::string(reinterpret_cast<const char*>(text.data), text.size);
        gnutls_free(text.data);
    }
    return false;
}

// The tunnel command runs with a socket as its standard input and output.
bool CImapConnection::OpenTunnel(const CImapAccount& account, std::string& error) {
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        error = std::string("IMAP-Tunnel: ") + std::strerror(errno);
        return false;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    const char* argv[] = {"/bin/sh", "-c", account.tunnel.c_str(), nullptr};
    const int spawned =
        posix_spawn(&m_tunnel, "/bin/sh", &actions, &attributes, const_cast<char* const*>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    close(ends[1]);
    if (spawned != 0) {
        close(ends[0]);
        m_tunnel = -1;
        error = std::string("IMAP-Tunnel startet nicht: ") + std::strerror(spawned);
        return false;
    }
    mailstream* stream = mailstream_socket_open(ends[0]);
    if (!stream) {
        close(ends[0]);
        error = "IMAP-Tunnel: kein Datenstrom";
        return false;
    }
    return Check(mailimap_connect(m_session, stream), "IMAP-Tunnel", error) && AwaitPreauth(error);
}

bool CImapConnection::AwaitPreauth(std::string& error) {
    if (m_session->imap_state != MAILIMAP_STATE_NON_AUTHENTICATED) return true;
    // libetpan took the first untagged line for the greeting; its text is kept, and the lines after it are
    // read up to the PREAUTH (each a notice of the server, "* OK [ALERT] ..." and the like).
    if (m_session->imap_response && *m_session->imap_response)
        m_greetingNotes.push_back(m_session->imap_response);
    constexpr int kLongestPrelude = 50;
    std::unique_ptr<MMAPString, void (*)(MMAPString*)> line(mmap_string_new(""), mmap_string_free);
    for (int read = 0; line && read < kLongestPrelude; ++read) {
        const char* text = mailstream_read_line_remove_eol(m_session->imap_stream, line.get());
        if (!text) break;
        const std::string_view untagged(text);
        const auto starts = [&untagged](std::string_view head) {
            return untagged.size() >= head.size() &&
                   strncasecmp(untagged.data(), head.data(), head.size()) == 0;
        };
        if (starts("* PREAUTH")) {
            m_session->imap_state = MAILIMAP_STATE_AUTHENTICATED;
            return true;
        }
        if (starts("* BYE") || !starts("* ")) {
            error = "IMAP-Tunnel: " + std::string(untagged.substr(0, 200));
            Close();
            return false;
        }
        std::string_view notice = untagged.substr(2);
        if (notice.size() >= 3 && strncasecmp(notice.data(), "OK ", 3) == 0) notice.remove_prefix(3);
        m_greetingNotes.emplace_back(notice.substr(0, 200));
    }
    // A tunnel's server is logged in already: one that wants a LOGIN is not what the profile says.
    error = "IMAP-Tunnel: der Server meldet sich nicht angemeldet (kein PREAUTH)";
    Close();
    return false;
}

bool CImapConnection::Open(const CImapAccount& account, const std::string& password, std::string& error) {
    Close();
    m_session = mailimap_new(0, nullptr);
    if (!m_session) {
        error = "IMAP: kein Speicher";
        return false;
    }
    mailimap_set_timeout(m_session, kNetworkTimeoutSeconds);
    const std::string where = account.host + ":" + std::to_string(account.port);
    if (!account.tunnel.empty()) {
        if (!OpenTunnel(account, error)) return false;
    } else if (account.implicitTls) {
        const int result =
            mailimap_ssl_connect_with_callback(m_session, account.host.c_str(), account.port, SetServerName,
                                               const_cast<char*>(account.host.c_str()));
        if (!Check(result, ("Verbindung zu " + where).c_str(), error)) return false;
        if (!VerifyCertificate(account, error)) return Close(), false;
    } else {
        if (!Check(mailimap_socket_connect(m_session, account.host.c_str(), account.port),
                   ("Verbindung zu " + where).c_str(), error))
            return false;
        struct mailimap_capability_data* capabilities = nullptr;
        if (mailimap_capability(m_session, &capabilities) == MAILIMAP_NO_ERROR && capabilities)
            mailimap_capability_data_free(capabilities);
        const bool loopback = IsLoopbackHost(account.host);
        if (HasCapability("STARTTLS")) {
            const int result = mailimap_socket_starttls_with_callback(
                m_session, SetServerName, const_cast<char*>(account.host.c_str()));
            if (!Check(result, ("STARTTLS mit " + where).c_str(), error)) return false;
            if (!VerifyCertificate(account, error)) return Close(), false;
        } else if (!loopback) {
            // Never a silent fall back to plain text: the password would travel readable.
            error = where +
                    " bietet kein STARTTLS an; ohne Verschlüsselung wird nur mit dem eigenen Rechner "
                    "gesprochen";
            Close();
            return false;
        }
    }
    m_loginRefused = false;
    if (account.tunnel.empty() && m_session->imap_state == MAILIMAP_STATE_NON_AUTHENTICATED) {
        const std::string signIn = "Anmeldung von " + account.user + " an " + where;
        if (account.oauth2.enabled) {
            if (!SignInWithToken(account, password, signIn, error)) return Close(), false;
        } else if (const int result = mailimap_login(m_session, account.user.c_str(), password.c_str());
                   !Check(result, signIn.c_str(), error)) {
            m_loginRefused = result == MAILIMAP_ERROR_LOGIN;
            return Close(), false;
        }
    }
    struct mailimap_capability_data* capabilities = nullptr;
    if (mailimap_capability(m_session, &capabilities) == MAILIMAP_NO_ERROR && capabilities)
        mailimap_capability_data_free(capabilities);
    return true;
}

bool CImapConnection::SignInWithToken(const CImapAccount& account, const std::string& token,
                                      const std::string& signIn, std::string& error) {
    // The mechanisms a server offers may change with TLS: asked for anew.
    struct mailimap_capability_data* capabilities = nullptr;
    if (mailimap_capability(m_session, &capabilities) == MAILIMAP_NO_ERROR && capabilities)
        mailimap_capability_data_free(capabilities);
    std::string mechanism;
    switch (AuthenticateWithBearer(m_session, account.user, account.host, account.port, token, mechanism)) {
        case EBearerOutcome::SignedIn:
            return true;
        case EBearerOutcome::Refused:
            m_loginRefused = true;
            error = signIn + " mit " + mechanism + " abgelehnt";
            return false;
        case EBearerOutcome::NoMechanism:
            error = signIn + ": der Server bietet weder OAUTHBEARER noch XOAUTH2 an";
            return false;
        case EBearerOutcome::Broken:
            break;
    }
    error = signIn + " mit " + mechanism + ": keine Verbindung zum Server";
    return false;
}

bool CImapConnection::List(std::vector<CImapMailbox>& mailboxes, std::string& error) {
    mailboxes.clear();
    clist* list = nullptr;
    if (!m_session || !Check(mailimap_list(m_session, "", "*", &list), "LIST", error)) return false;
    for (clistiter* it = clist_begin(list); it; it = clist_next(it)) {
        const auto* box = static_cast<const mailimap_mailbox_list*>(clist_content(it));
        CImapMailbox mailbox{box->mb_name, box->mb_delimiter, {}, true};
        if (const mailimap_mbx_list_flags* flags = box->mb_flag) {
            if (flags->mbf_type == MAILIMAP_MBX_LIST_FLAGS_SFLAG &&
                flags->mbf_sflag == MAILIMAP_MBX_LIST_SFLAG_NOSELECT)
                mailbox.selectable = false;
            for (clistiter* f = clist_begin(flags->mbf_oflags); f; f = clist_next(f)) {
                const auto* flag = static_cast<const mailimap_mbx_list_oflag*>(clist_content(f));
                if (flag->of_type != MAILIMAP_MBX_LIST_OFLAG_FLAG_EXT || !flag->of_flag_ext) continue;
                std::string name = flag->of_flag_ext;
                if (!name.empty() && name.front() == '\\') name.erase(0, 1);
                if (strcasecmp(name.c_str(), "Noselect") == 0 || strcasecmp(name.c_str(), "NonExistent") == 0)
                    mailbox.selectable = false;
                else if (mailbox.specialUse.empty() && IsSpecialUse(name))
                    mailbox.specialUse = name;
            }
        }
        mailboxes.push_back(std::move(mailbox));
    }
    mailimap_list_result_free(list);
    return true;
}

bool CImapConnection::PersonalNamespace(CImapNamespace& space, std::string& error) {
    if (!m_session) return false;
    if (HasCapability("NAMESPACE")) {
        mailimap_namespace_data* namespaces = nullptr;
        if (!Check(mailimap_namespace(m_session, &namespaces), "NAMESPACE", error)) return false;
        const mailimap_namespace_item* personal = namespaces ? namespaces->ns_personal : nullptr;
        if (personal && personal->ns_data_list && clist_begin(personal->ns_data_list)) {
            const auto* first = static_cast<const mailimap_namespace_info*>(
                clist_content(clist_begin(personal->ns_data_list)));
            space.prefix = first->ns_prefix ? first->ns_prefix : "";
            if (first->ns_delimiter) space.delimiter = first->ns_delimiter;
        }
        if (namespaces) mailimap_namespace_data_free(namespaces);
        return true;
    }
    // The reference "" and the name "" ask for the delimiter alone.
    clist* list = nullptr;
    if (!Check(mailimap_list(m_session, "", "", &list), "LIST", error)) return false;
    if (list && clist_begin(list)) {
        const auto* root = static_cast<const mailimap_mailbox_list*>(clist_content(clist_begin(list)));
        if (root->mb_delimiter) space.delimiter = root->mb_delimiter;
    }
    mailimap_list_result_free(list);
    space.prefix.clear();
    return true;
}

bool CImapConnection::Create(const std::string& mailbox, std::string& error) {
    return m_session &&
           Check(mailimap_create(m_session, mailbox.c_str()), ("CREATE " + mailbox).c_str(), error);
}

bool CImapConnection::Select(const std::string& mailbox, CImapMailboxState& state, std::string& error) {
    if (!m_session) return false;
    state = {};
    m_selected.reset();
    std::uint64_t modSeq = 0;
    const int result = HasCapability("CONDSTORE")
                           ? mailimap_select_condstore(m_session, mailbox.c_str(), &modSeq)
                           : mailimap_select(m_session, mailbox.c_str());
    if (!Check(result, ("SELECT " + mailbox).c_str(), error)) return false;
    if (const mailimap_selection_info* info = m_session->imap_selection_info) {
        state.uidValidity = info->sel_uidvalidity;
        state.uidNext = info->sel_uidnext;
        state.exists = info->sel_has_exists ? info->sel_exists : 0;
    }
    state.highestModSeq = modSeq;
    m_selected = mailbox;
    m_selectedValidity = state.uidValidity;
    return true;
}

bool CImapConnection::KeepSelected(const std::string& mailbox, std::uint32_t& uidValidity,
                                   std::string& error) {
    if (!m_session) return false;
    if (m_selected != mailbox) {
        CImapMailboxState state;
        if (!Select(mailbox, state, error)) return false;
    } else if (!Check(mailimap_noop(m_session), "NOOP", error)) {
        return false;
    } else if (const mailimap_selection_info* info = m_session->imap_selection_info;
               info && info->sel_uidvalidity) {
        // A server that reports another UIDVALIDITY while the folder is selected is believed.
        m_selectedValidity = info->sel_uidvalidity;
    }
    uidValidity = m_selectedValidity;
    return true;
}

bool CImapConnection::FetchStreamed(std::uint32_t fromUid, std::uint32_t toUid, std::string_view items,
                                    const std::function<void(const CFetchedMessage&)>& message,
                                    std::string& error) {
    if (!m_session || !m_session->imap_stream) return false;
    // A tag of its own beside libetpan's numbered ones. Deliberate: appended, not "V" + number, which
    // GCC 12 at -O3 takes for an overlapping copy.
    std::string tag = std::to_string(++m_ownTag);
    tag.insert(tag.begin(), 'V');
    std::string command = tag + " UID FETCH " + std::to_string(std::max<std::uint32_t>(fromUid, 1)) + ":" +
                          (toUid ? std::to_string(toUid) : std::string("*")) + " (";
    command += items;
    command += ")\r\n";
    mailstream* stream = m_session->imap_stream;
    if (mailstream_write(stream, command.data(), command.size()) != static_cast<ssize_t>(command.size()) ||
        mailstream_flush(stream) != 0)
        return Check(MAILIMAP_ERROR_STREAM, "UID FETCH", error);
    CImapFetchReader reader([&](const CFetchedMessage& fetched) {
        if (fetched.uid >= fromUid) message(fetched);
    });
    char buffer[64 * 1024];
    for (;;) {
        const ssize_t got = mailstream_read(stream, buffer, sizeof buffer);
        if (got <= 0) return Check(MAILIMAP_ERROR_STREAM, "UID FETCH", error);
        switch (reader.Feed(std::string_view(buffer, static_cast<size_t>(got)), tag)) {
            case CImapFetchReader::EState::More:
                break;
            case CImapFetchReader::EState::Done:
                return true;
            case CImapFetchReader::EState::Failed:
                error = "UID FETCH: " + reader.Status();
                // What follows on the stream cannot be told from the answer: a new connection then.
                if (reader.Status().rfind("NO", 0) != 0) Close();
                return false;
        }
    }
}

bool CImapConnection::FetchHeaders(std::uint32_t fromUid, const std::function<void(CImapHeaderRow&&)>& row,
                                   std::string& error) {
    return FetchStreamed(
        fromUid, 0, "UID FLAGS BODY.PEEK[HEADER.FIELDS (MESSAGE-ID SUBJECT)]",
        [&row](const CFetchedMessage& fetched) {
            CHeaderScanner scanner({"message-id", "subject"});
            scanner.Feed(fetched.headers);
            scanner.Feed("\r\n\r\n");
            CImapHeaderRow message;
            message.uid = fetched.uid;
            message.flags = fetched.flags;
            message.messageId = scanner.Value(0);
            message.subjectField = scanner.Unfolded(1);
            row(std::move(message));
        },
        error);
}

bool CImapConnection::FetchDetails(std::uint32_t fromUid,
                                   const std::function<void(const CImapDetailsRow&)>& row,
                                   std::string& error) {
    return FetchStreamed(
        fromUid, 0, "UID INTERNALDATE RFC822.SIZE",
        [&row](const CFetchedMessage& fetched) {
            row({fetched.uid, InternalDate(fetched.internalDate).value_or(0), fetched.size});
        },
        error);
}

bool CImapConnection::FetchInternalDate(std::uint32_t uid, std::int64_t& internalDate, std::string& error) {
    internalDate = 0;
    const auto take = [&](const CFetchedMessage& fetched) {
        if (fetched.uid == uid) internalDate = InternalDate(fetched.internalDate).value_or(0);
    };
    if (!FetchStreamed(uid, uid, "UID INTERNALDATE", take, error)) return false;
    if (internalDate == 0) error = "UID FETCH INTERNALDATE: keine Antwort zu UID " + std::to_string(uid);
    return internalDate != 0;
}

bool CImapConnection::FetchFlags(std::uint32_t toUid, std::uint64_t changedSince,
                                 const std::function<void(std::uint32_t uid, std::uint32_t flags)>& row,
                                 std::string& error) {
    if (!m_session) return false;
    if (toUid == 0) return true;
    FetchType type(mailimap_fetch_type_new_fetch_att_list_empty());
    mailimap_fetch_type_new_fetch_att_list_add(type.get(), mailimap_fetch_att_new_uid());
    mailimap_fetch_type_new_fetch_att_list_add(type.get(), mailimap_fetch_att_new_flags());
    const ImapSet set = UidRange(1, toUid);
    clist* raw = nullptr;
    const int result =
        changedSince && HasCapability("CONDSTORE")
            ? mailimap_uid_fetch_changedsince(m_session, set.get(), type.get(), changedSince, &raw)
            : mailimap_uid_fetch(m_session, set.get(), type.get(), &raw);
    const FetchList results = TakeFetchList(result, raw);
    if (!Check(result, "UID FETCH FLAGS", error)) return false;
    for (clistiter* it = clist_begin(results.get()); it; it = clist_next(it)) {
        std::uint32_t uid = 0, flags = 0;
        ForEachItem(static_cast<const mailimap_msg_att*>(clist_content(it)),
                    [&](const mailimap_msg_att_item& item) {
                        if (item.att_type == MAILIMAP_MSG_ATT_ITEM_DYNAMIC)
                            flags = FlagsOf(item.att_data.att_dyn);
                        if (item.att_type == MAILIMAP_MSG_ATT_ITEM_STATIC && item.att_data.att_static &&
                            item.att_data.att_static->att_type == MAILIMAP_MSG_ATT_UID)
                            uid = item.att_data.att_static->att_data.att_uid;
                    });
        if (uid != 0 && uid <= toUid) row(uid, flags);
    }
    return true;
}

bool CImapConnection::FetchUids(std::vector<std::uint32_t>& uids, std::string& error) {
    uids.clear();
    if (!m_session) return false;
    struct mailimap_search_key* all = mailimap_search_key_new_all();
    clist* raw = nullptr;
    const int result = mailimap_uid_search(m_session, nullptr, all, &raw);
    mailimap_search_key_free(all);
    if (!Check(result, "UID SEARCH", error)) return false;
    for (clistiter* it = clist_begin(raw); it; it = clist_next(it))
        uids.push_back(*static_cast<const std::uint32_t*>(clist_content(it)));
    mailimap_search_result_free(raw);
    std::sort(uids.begin(), uids.end());
    return true;
}

bool CImapConnection::StoreSeen(std::uint32_t uid, bool seen, std::string& error) {
    if (!m_session) return false;
    const ImapSet set = UidRange(uid, uid);
    FlagList flags = NewFlagList(kImapSeen);
    struct mailimap_store_att_flags* store =
        seen ? mailimap_store_att_flags_new_add_flags_silent(flags.release())
             : mailimap_store_att_flags_new_remove_flags_silent(flags.release());
    const int result = mailimap_uid_store(m_session, set.get(), store);
    mailimap_store_att_flags_free(store);
    return Check(result, "UID STORE \\Seen", error);
}

bool CImapConnection::Copy(std::uint32_t uid, const std::string& mailbox, std::string& error) {
    if (!m_session) return false;
    const ImapSet set = UidRange(uid, uid);
    return Check(mailimap_uid_copy(m_session, set.get(), mailbox.c_str()), ("UID COPY " + mailbox).c_str(),
                 error);
}

bool CImapConnection::Move(std::uint32_t uid, const std::string& mailbox, std::string& error) {
    if (!m_session) return false;
    const ImapSet set = UidRange(uid, uid);
    if (HasCapability("MOVE"))
        return Check(mailimap_uid_move(m_session, set.get(), mailbox.c_str()),
                     ("UID MOVE " + mailbox).c_str(), error);
    // Without MOVE only this message may go: without UIDPLUS's UID EXPUNGE it stays marked deleted.
    if (!Copy(uid, mailbox, error)) return false;
    struct mailimap_store_att_flags* store =
        mailimap_store_att_flags_new_add_flags_silent(NewFlagList(kImapDeleted).release());
    const int stored = mailimap_uid_store(m_session, set.get(), store);
    mailimap_store_att_flags_free(store);
    if (!Check(stored, "UID STORE \\Deleted", error)) return false;
    if (HasCapability("UIDPLUS"))
        return Check(mailimap_uid_expunge(m_session, set.get()), "UID EXPUNGE", error);
    return ExpungeOnly(uid, error);
}

bool CImapConnection::ExpungeOnly(std::uint32_t uid, std::string& error) {
    // EXPUNGE removes every message marked deleted: other messages so marked (by the user's own client,
    // which has yet to decide) keep ours company, marked, rather than go with it.
    mailimap_search_key* deleted = mailimap_search_key_new(
        MAILIMAP_SEARCH_KEY_DELETED, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
        nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr, nullptr,
        nullptr, 0, nullptr, nullptr, nullptr);
    clist* found = nullptr;
    const int result = mailimap_uid_search(m_session, nullptr, deleted, &found);
    mailimap_search_key_free(deleted);
    if (!Check(result, "UID SEARCH DELETED", error)) return false;
    bool onlyOurs = true;
    for (clistiter* it = clist_begin(found); it; it = clist_next(it))
        onlyOurs = onlyOurs && *static_cast<const std::uint32_t*>(clist_content(it)) == uid;
    mailimap_search_result_free(found);
    return !onlyOurs || Check(mailimap_expunge(m_session), "EXPUNGE", error);
}

bool CImapConnection::Append(const std::string& mailbox, std::string_view message, std::uint32_t flags,
                             std::string& error) {
    if (!m_session) return false;
    FlagList list = NewFlagList(flags);
    const int result =
        mailimap_append(m_session, mailbox.c_str(), list.get(), nullptr, message.data(), message.size());
    return Check(result, ("APPEND " + mailbox).c_str(), error);
}

bool CImapConnection::Idle(int wakeFd, int timeoutSeconds, bool& changed, std::string& error) {
    changed = false;
    if (!m_session) return false;
    const bool idle = HasCapability("IDLE");
    if (idle && !Check(mailimap_idle(m_session), "IDLE", error)) return false;
    // What the server said with its go-ahead (a message that came meanwhile) may be read already and wait
    // in the stream's buffer, where no poll sees it.
    if (idle && m_session->imap_stream && m_session->imap_stream->read_buffer_len > 0) {
        changed = true;
        return Check(mailimap_idle_done(m_session), "IDLE DONE", error);
    }
    pollfd fds[2] = {{wakeFd, POLLIN, 0}, {idle ? mailimap_idle_get_fd(m_session) : -1, POLLIN, 0}};
    int ready = 0;
    do {
        ready = poll(fds, idle ? 2 : 1, timeoutSeconds * 1000);
    } while (ready < 0 && errno == EINTR);
    changed = idle && ready > 0 && (fds[1].revents & (POLLIN | POLLHUP | POLLERR));
    return !idle || Check(mailimap_idle_done(m_session), "IDLE DONE", error);
}

}  // namespace velmar::mapi
