#include "mapi/imap/ImapSync.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "mapi/imap/ImapMailboxName.h"
#include "mapi/imap/ImapMessageParts.h"
#include "mapi/oauth/AccessTokens.h"
#include "mapi/provider/AccountSecrets.h"
#include "mapi/provider/MaildirWriter.h"
#include "support/FileDescriptor.h"
#include "support/PipeSignalGuard.h"
#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

// IDLE is ended and begun again well within the 29 minutes after which a server may drop a silent client;
// each time the inbox is looked at too, which catches what a lost notice would have missed.
constexpr int kIdleSeconds = 5 * 60;
// Pauses between attempts to reach a server that is away: doubling from the first to the last.
constexpr auto kFirstRetry = std::chrono::seconds(1);
constexpr auto kLongestRetry = std::chrono::minutes(5);
// A folder other than the inbox is asked again when its index is older than this.
constexpr auto kFolderFreshness = std::chrono::seconds(30);
// ResyncNow waits this long for the pass it asked for.
constexpr auto kLongestResync = std::chrono::seconds(60);
// The cache of fetched messages keeps within these bounds, the oldest going first.
constexpr std::uint64_t kCacheBytes = 256ull * 1024 * 1024;
constexpr std::uint64_t kCacheTrimmedBytes = 192ull * 1024 * 1024;

// Without IDLE the inbox is looked at this often.
constexpr int kPollSeconds = 60;

// Usual names of the roles' folders, as servers and mail clients name them in English and German, for a
// server that marks none; the first is the one made when none exists.
const std::vector<std::string>& UsualNames(EImapRole role) {
    static const std::vector<std::string> sent{
        "Sent",     "Sent Items",         "Sent Messages",     "Sent Mail",
        "Gesendet", "Gesendete Elemente", "Gesendete Objekte", "Gesendete Nachrichten"};
    static const std::vector<std::string> drafts{"Drafts", "Entw\xC3\xBCrfe"};
    static const std::vector<std::string> trash{"Trash",
                                                "Deleted Items",
                                                "Deleted Messages",
                                                "Papierkorb",
                                                "Gel\xC3\xB6schte Elemente",
                                                "Gel\xC3\xB6schte Objekte"};
    return role == EImapRole::Sent ? sent : role == EImapRole::Drafts ? drafts : trash;
}

const char* SpecialUseOf(EImapRole role) {
    return role == EImapRole::Sent ? "Sent" : role == EImapRole::Drafts ? "Drafts" : "Trash";
}

// The folder of a role in the words of the store's status.
const char* RoleFolderText(EImapRole role) {
    return role == EImapRole::Sent     ? "Ordner für gesendete Nachrichten"
           : role == EImapRole::Drafts ? "Ordner für Entwürfe"
                                       : "Papierkorb";
}

bool SameTextNoCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// The name of a mailbox inside the personal namespace, as people read it: the prefix taken off (and, on a
// server that names no namespace, an "INBOX." before it); nullopt for a mailbox outside the namespace or
// below another folder.
std::optional<std::string> LeafName(const CImapMailbox& mailbox, const CImapNamespace& space) {
    std::string_view name = mailbox.name;
    const std::string inboxPrefix = std::string(kImapInbox) + space.delimiter;
    if (!space.prefix.empty() && SameTextNoCase(name.substr(0, space.prefix.size()), space.prefix))
        name.remove_prefix(space.prefix.size());
    else if (space.prefix.empty() && SameTextNoCase(name.substr(0, inboxPrefix.size()), inboxPrefix))
        name.remove_prefix(inboxPrefix.size());
    else if (!space.prefix.empty())
        return std::nullopt;
    if (name.empty() || (mailbox.delimiter && name.find(mailbox.delimiter) != std::string_view::npos))
        return std::nullopt;
    return WideToUtf8(DecodeMailboxName(name));
}

std::string Hex(std::string_view bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (const unsigned char c : bytes) {
        hex += digits[c >> 4];
        hex += digits[c & 15];
    }
    return hex;
}

void MakeFolders(const std::string& path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
        mkdir(path.substr(0, slash).c_str(), 0700);
    mkdir(path.c_str(), 0700);
}

std::mutex& RegistryLock() {
    static std::mutex lock;
    return lock;
}
std::map<std::uint64_t, std::shared_ptr<CImapSync>>& Registry() {
    static std::map<std::uint64_t, std::shared_ptr<CImapSync>> syncs;
    return syncs;
}

// Reads the first line of a cached message file, which names the bodies the message goes without, and
// leaves the file just past it; false for a file without one.
bool SkipLeftOutLine(int fd, std::map<std::string, std::uint64_t>& leftOut) {
    char head[kLongestLeftOutLine + 1];
    const ssize_t got = pread(fd, head, sizeof head, 0);
    if (got <= 0) return false;
    const std::string_view text(head, static_cast<size_t>(got));
    const size_t end = text.find('\n');
    if (end == std::string_view::npos) return false;
    std::optional<std::map<std::string, std::uint64_t>> parsed = ParseLeftOutLine(text.substr(0, end));
    if (!parsed) return false;
    leftOut = std::move(*parsed);
    return lseek(fd, static_cast<off_t>(end + 1), SEEK_SET) == static_cast<off_t>(end + 1);
}

}  // namespace

std::shared_ptr<CImapSync> CImapSync::ForStore(const CStoreConfig& store) {
    std::lock_guard lock(RegistryLock());
    std::shared_ptr<CImapSync>& sync = Registry()[store.id];
    if (!sync) sync = std::make_shared<CImapSync>(store);
    return sync;
}

void CImapSync::StopAll() {
    std::map<std::uint64_t, std::shared_ptr<CImapSync>> stopping;
    {
        std::lock_guard lock(RegistryLock());
        stopping.swap(Registry());
    }
    // The syncs end as their last users let them go.
}

void CImapSync::ResyncAll() {
    std::vector<std::shared_ptr<CImapSync>> syncs;
    {
        std::lock_guard lock(RegistryLock());
        for (const auto& [id, sync] : Registry()) syncs.push_back(sync);
    }
    for (const std::shared_ptr<CImapSync>& sync : syncs) sync->ResyncNow();
}

std::wstring CImapSync::AllProblems() {
    std::lock_guard lock(RegistryLock());
    std::wstring problems;
    for (const auto& [id, sync] : Registry()) {
        const std::wstring problem = sync->Problem();
        if (problem.empty()) continue;
        if (!problems.empty()) problems += L"; ";
        problems += problem;
    }
    return problems;
}

CImapSync::CImapSync(CStoreConfig store)
    : m_store(std::move(store)),
      m_cacheFolder(CacheFolder() + "/imap/" +
                    Hex(std::string_view(reinterpret_cast<const char*>(&m_store.id), sizeof m_store.id))) {
    MakeFolders(m_cacheFolder + "/messages");
    m_wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_thread = std::thread([this] { Run(); });
}

CImapSync::~CImapSync() {
    {
        std::lock_guard lock(m_lock);
        m_stop = true;
    }
    const std::uint64_t one = 1;
    if (write(m_wake, &one, sizeof one) < 0) {
        // The thread also ends at its next look at the stop flag.
    }
    m_passed.notify_all();
    if (m_thread.joinable()) m_thread.join();
    close(m_wake);
    const CPipeSignalGuard quiet;
    m_command.Close();
}

std::string CImapSync::IndexPath(const std::string& folder) const {
    return m_cacheFolder + "/" + Hex(folder) + ".index";
}

std::string CImapSync::CachePath(const std::string& folder, std::uint32_t uidValidity,
                                 std::uint32_t uid) const {
    return m_cacheFolder + "/messages/" + Hex(folder) + "-" + std::to_string(uidValidity) + "-" +
           std::to_string(uid);
}

std::string UsualFolderOfRole(EImapRole role) {
    return UsualNames(role).front();
}

std::optional<std::string> CImapSync::FolderOfRole(EImapRole role) const {
    std::lock_guard lock(m_lock);
    const auto found = m_roles.find(role);
    return found != m_roles.end() ? std::optional(found->second) : std::nullopt;
}

void CImapSync::AwaitFirstPass() {
    std::unique_lock lock(m_lock);
    m_passed.wait_for(lock, kLongestResync, [&] { return m_stop || m_passesDone > 0; });
}

std::vector<std::string> CImapSync::FolderNames() const {
    std::lock_guard lock(m_lock);
    if (!m_folders.empty()) return m_folders;
    std::vector<std::string> names{kImapInbox};
    for (const EImapRole role : {EImapRole::Sent, EImapRole::Drafts, EImapRole::Trash})
        names.push_back(m_roles.count(role) ? m_roles.at(role) : UsualFolderOfRole(role));
    return names;
}

void CImapSync::SetProblem(const std::string& problem) {
    std::lock_guard lock(m_lock);
    m_problem = problem;
}

std::wstring CImapSync::Problem() const {
    std::lock_guard lock(m_lock);
    std::string text = m_problem;
    for (const std::string& note : m_notes) text += (text.empty() ? "" : "; ") + note;
    return text.empty() ? std::wstring() : m_store.displayName + L": " + Utf8ToWide(text);
}

bool CImapSync::Connect(CImapConnection& connection, std::string& error) {
    const CImapAccount& account = *m_store.imap;
    // The problem is shown after the store's name: the key's own name says the rest.
    std::optional<std::string> password = std::string();
    if (!account.tunnel.empty()) {
        if (!ProfileFileTrusted(ProfilesFilePath(), "imaptunnel", EProfileTrust::Command, error))
            return false;
    } else if (account.oauth2.enabled) {
        // A token the server refuses is dropped and one more is asked for: it may have been revoked, or
        // have expired before its time.
        for (int attempt = 0; attempt < 2; ++attempt) {
            const CAccessToken token = CurrentAccessToken(account.oauth2, ProfilesFilePath());
            if (!token.token) {
                error = token.error;
                return false;
            }
            if (connection.Open(account, *token.token, error)) return true;
            if (!connection.LoginRefused()) return false;
            ForgetAccessToken(account.oauth2);
        }
        return false;
    } else if (!account.passwordEval.empty()) {
        password =
            PasswordFromProfileCommand(account.passwordEval, "passwordeval", ProfilesFilePath(), error);
    } else if (!account.password.empty()) {
        password = PasswordFromProfile(account.password, "password", ProfilesFilePath(), error);
    }
    if (!password) return false;
    return connection.Open(account, *password, error);
}

// Which folders play the roles: marked by the server, else found by a usual name inside the personal
// namespace, else made there. A role without a folder is a note of the status, never the end of the pass:
// the inbox is read all the same. What the server said before its greeting, and how the inbox is watched,
// are notes too.
bool CImapSync::DiscoverFolders(CImapConnection& connection, std::string& error) {
    std::vector<CImapMailbox> mailboxes;
    if (!connection.List(mailboxes, error)) return false;
    CImapNamespace space;
    if (std::string ignored; !connection.PersonalNamespace(space, ignored)) space = {};
    if (space.prefix.empty())
        for (const CImapMailbox& mailbox : mailboxes)
            if (SameTextNoCase(mailbox.name, kImapInbox) && mailbox.delimiter)
                space.delimiter = mailbox.delimiter;
    std::map<EImapRole, std::string> roles;
    std::vector<std::string> names;
    for (const CImapMailbox& mailbox : mailboxes) {
        if (mailbox.selectable) names.push_back(mailbox.name);
        for (const EImapRole role : {EImapRole::Sent, EImapRole::Drafts, EImapRole::Trash})
            if (!roles.count(role) && mailbox.selectable &&
                strcasecmp(mailbox.specialUse.c_str(), SpecialUseOf(role)) == 0)
                roles[role] = mailbox.name;
    }
    std::vector<std::string> notes;
    for (const std::string& said : connection.GreetingNotes())
        notes.push_back("Hinweis des Servers: " + said);
    if (!connection.HasCapability("IDLE"))
        notes.push_back("der Server kennt kein IDLE: der Posteingang wird alle " +
                        std::to_string(kPollSeconds) + " Sekunden abgefragt");
    for (const EImapRole role : {EImapRole::Sent, EImapRole::Drafts, EImapRole::Trash}) {
        for (const std::string& usual : UsualNames(role)) {
            if (roles.count(role)) break;
            for (const CImapMailbox& mailbox : mailboxes) {
                const std::optional<std::string> leaf = LeafName(mailbox, space);
                if (mailbox.selectable && leaf && SameTextNoCase(*leaf, usual)) {
                    roles[role] = mailbox.name;
                    break;
                }
            }
        }
        if (roles.count(role)) continue;
        // Made inside the namespace; on a server that names none, under the inbox when the root is refused.
        std::vector<std::string> candidates{space.prefix + UsualNames(role).front()};
        if (space.prefix.empty())
            candidates.push_back(std::string(kImapInbox) + space.delimiter + UsualNames(role).front());
        std::string refusal;
        for (const std::string& candidate : candidates) {
            if (!connection.IsOpen()) break;
            if (std::string refused; connection.Create(candidate, refused)) {
                roles[role] = candidate;
                names.push_back(candidate);
                break;
            } else if (refusal.empty()) {
                refusal = refused;
            }
        }
        if (!roles.count(role))
            notes.push_back(std::string(RoleFolderText(role)) +
                            " fehlt auf dem Server und lässt sich nicht anlegen (" + refusal + ")");
    }
    if (!connection.IsOpen()) {
        error = "Verbindung verloren beim Anlegen der Ordner";
        return false;
    }
    std::lock_guard lock(m_lock);
    m_roles = std::move(roles);
    m_folders = std::move(names);
    m_notes = std::move(notes);
    return true;
}

std::shared_ptr<const CImapSnapshot> CImapSync::LoadedSnapshot(const std::string& folder) {
    {
        std::lock_guard lock(m_lock);
        if (const auto found = m_snapshots.find(folder); found != m_snapshots.end()) return found->second;
    }
    // Read outside the lock: a large index takes a moment. Two readers at once each read it; the first wins.
    std::shared_ptr<const CImapSnapshot> loaded =
        CImapSnapshot::Load(IndexPath(folder), m_store.id, ImapFolderName(folder));
    std::lock_guard lock(m_lock);
    std::shared_ptr<const CImapSnapshot>& slot = m_snapshots[folder];
    if (!slot) slot = loaded;
    return slot;
}

void CImapSync::Publish(const std::string& folder, std::shared_ptr<const CImapSnapshot> snapshot) {
    {
        std::lock_guard lock(m_lock);
        m_snapshots[folder] = std::move(snapshot);
        m_synced[folder] = std::chrono::steady_clock::now();
    }
    m_passed.notify_all();
}

bool CImapSync::SyncFolder(CImapConnection& connection, const std::string& folder, std::string& error) {
    CImapMailboxState state;
    if (!connection.Select(folder, state, error)) return false;
    const std::shared_ptr<const CImapSnapshot> before = LoadedSnapshot(folder);
    CImapSnapshotBuilder next(before.get(), m_store.id, ImapFolderName(folder));
    CImapFolderState known = next.State();
    if (known.uidValidity != state.uidValidity) {
        // Another folder under the same name: every entry id of the old one now names nothing.
        next.Reset();
        known = {};
    }
    const bool fresh = known.uidValidity == 0;
    if (!fresh && known.highestModSeq != 0 && state.highestModSeq != 0) {
        if (state.highestModSeq != known.highestModSeq &&
            !connection.FetchFlags(
                known.uidNext > 0 ? known.uidNext - 1 : 0, known.highestModSeq,
                [&next](std::uint32_t uid, std::uint32_t flags) { next.SetFlags(uid, flags); }, error))
            return false;
    } else if (!fresh && known.uidNext > 1 &&
               !connection.FetchFlags(
                   known.uidNext - 1, 0,
                   [&next](std::uint32_t uid, std::uint32_t flags) { next.SetFlags(uid, flags); }, error)) {
        return false;
    }
    const std::uint32_t firstNew = fresh ? 1 : known.uidNext;
    const bool fetchNew = fresh || state.uidNext == 0 || state.uidNext > known.uidNext;
    if (fetchNew && !connection.FetchHeaders(
                        firstNew, [&next](CImapHeaderRow&& row) { next.Add(std::move(row)); }, error))
        return false;
    // Messages gone on the server show as a count that differs.
    if (next.Count() != state.exists) {
        std::vector<std::uint32_t> uids;
        if (!connection.FetchUids(uids, error)) return false;
        next.KeepOnly(uids);
    }
    const CImapFolderState current{state.uidValidity, state.uidNext, state.highestModSeq};
    const bool changed = next.Changed() || !before || before->State().uidNext != current.uidNext ||
                         before->State().highestModSeq != current.highestModSeq;
    if (!changed) {
        Publish(folder, before);
        return true;
    }
    std::shared_ptr<const CImapSnapshot> snapshot;
    if (fetchNew) {
        // The new messages can be found now. Their internal dates and sizes, which cost many servers a look
        // at every message file, come in a second fetch; until then the index says it is in step only as
        // far as before, so that a sync that fails in between fetches the new messages again.
        next.SetState({state.uidValidity, known.uidNext, known.highestModSeq});
        const std::shared_ptr<const CImapSnapshot> findable = next.Build();
        Publish(folder, findable);
        CImapSnapshotBuilder detailed(findable.get(), m_store.id, ImapFolderName(folder));
        if (!connection.FetchDetails(
                firstNew, [&detailed](const CImapDetailsRow& row) { detailed.SetDetails(row); }, error)) {
            // Deliberate: as below, a cache not written costs only time. A restart then finds the messages
            // on disk and fetches them again from the server.
            findable->Save(IndexPath(folder));
            return false;
        }
        detailed.SetState(current);
        snapshot = detailed.Build();
    } else {
        next.SetState(current);
        snapshot = next.Build();
    }
    Publish(folder, snapshot);
    // Deliberate: a cache that cannot be written costs a full read after a restart, nothing else.
    snapshot->Save(IndexPath(folder));
    return true;
}

bool CImapSync::Pass(CImapConnection& connection, std::string& error) {
    // Each new connection looks at the server's folders again: one made or marked since is found.
    if (!connection.IsOpen() && !(Connect(connection, error) && DiscoverFolders(connection, error)))
        return false;
    return SyncFolder(connection, kImapInbox, error);
}

void CImapSync::Run() {
    // A server that drops the connection while this thread writes to it is a failed call, not the process's
    // end.
    const CPipeSignalGuard quiet;
    CImapConnection connection;
    CBackoff reconnect(kFirstRetry, kLongestRetry);
    for (;;) {
        std::uint64_t wanted = 0;
        {
            std::lock_guard lock(m_lock);
            if (m_stop) return;
            wanted = m_passesWanted;
        }
        std::string error;
        const bool wasOpen = connection.IsOpen();
        bool ok = Pass(connection, error);
        // A connection that died while it waited (the server restarted, a router forgot it) is made anew at
        // once, and what keeps the store from its server is what that says.
        if (!ok && wasOpen && !connection.IsOpen()) ok = Pass(connection, error);
        {
            std::lock_guard lock(m_lock);
            m_passesSatisfied = std::max(m_passesSatisfied, wanted);
            ++m_passesDone;
            m_problem = ok ? std::string() : error;
        }
        m_passed.notify_all();
        bool changed = false;
        if (ok) {
            reconnect.Succeed();
            const int wait = connection.HasCapability("IDLE") ? kIdleSeconds : kPollSeconds;
            if (connection.Idle(m_wake, wait, changed, error)) {
                std::uint64_t drained = 0;
                if (read(m_wake, &drained, sizeof drained) < 0) {
                    // Nothing was written: the server spoke or the time ran out.
                }
                continue;
            }
            SetProblem(error);
        }
        // The server is away or failed: a new connection after a pause, which grows while it stays away.
        connection.Close();
        pollfd wake{m_wake, POLLIN, 0};
        poll(&wake, 1,
             static_cast<int>(
                 std::chrono::duration_cast<std::chrono::milliseconds>(reconnect.Fail()).count()));
        std::uint64_t drained = 0;
        if (read(m_wake, &drained, sizeof drained) < 0) {
            // The pause ran out without a wake-up.
        }
    }
}

void CImapSync::ResyncNow() {
    std::unique_lock lock(m_lock);
    const std::uint64_t target = ++m_passesWanted;
    const std::uint64_t one = 1;
    if (write(m_wake, &one, sizeof one) < 0) {
        // Already woken: the counter of the eventfd is full of wake-ups.
    }
    m_passed.wait_for(lock, kLongestResync, [&] { return m_stop || m_passesSatisfied >= target; });
}

std::shared_ptr<const CImapSnapshot> CImapSync::Snapshot(const std::string& folder) {
    if (folder == kImapInbox) {
        if (std::shared_ptr<const CImapSnapshot> snapshot = LoadedSnapshot(folder)) return snapshot;
        // Never synced and nothing on disk: the first pass of the thread is waited for, once, until it has
        // published the inbox's messages (or failed).
        std::unique_lock lock(m_lock);
        m_passed.wait_for(lock, kLongestResync, [&] {
            const auto published = m_snapshots.find(folder);
            return m_stop || m_passesDone > 0 || (published != m_snapshots.end() && published->second);
        });
    } else {
        bool stale = true;
        {
            std::lock_guard lock(m_lock);
            const auto synced = m_synced.find(folder);
            stale = synced == m_synced.end() ||
                    std::chrono::steady_clock::now() - synced->second > kFolderFreshness;
        }
        std::string error;
        if (stale) {
            std::lock_guard command(m_commandLock);
            const CPipeSignalGuard quiet;
            if (Command(error) && !SyncFolder(m_command, folder, error)) SetProblem(error);
        }
    }
    return LoadedSnapshot(folder);
}

bool CImapSync::Command(std::string& error) {
    if (m_command.IsOpen()) return true;
    // A server that was just found away is not asked again at once: the service goes on without it.
    if (m_commandRetry.Pausing()) {
        std::lock_guard lock(m_lock);
        error = m_problem.empty() ? "Server nicht erreichbar" : m_problem;
        return false;
    }
    if (Connect(m_command, error)) {
        m_commandRetry.Succeed();
        return true;
    }
    m_commandRetry.Fail();
    SetProblem(error);
    return false;
}

bool CImapSync::IsCached(const std::string& folder, std::uint32_t uidValidity, std::uint32_t uid) const {
    return access(CachePath(folder, uidValidity, uid).c_str(), R_OK) == 0;
}

bool CImapSync::ServerAway() const {
    std::lock_guard lock(m_lock);
    return !m_problem.empty();
}

bool CImapSync::SelectFolder(const std::string& folder, std::uint32_t& uidValidity, std::string& error) {
    const bool wasOpen = m_command.IsOpen();
    if (Command(error) && m_command.KeepSelected(folder, uidValidity, error)) return true;
    // A connection the server has dropped since (at the end of its time, or for a folder made anew under
    // it) is opened once more.
    return wasOpen && !m_command.IsOpen() && Command(error) &&
           m_command.KeepSelected(folder, uidValidity, error);
}

bool CImapSync::SelectForMessage(const std::string& folder, std::uint32_t uidValidity, std::string& error) {
    std::uint32_t selected = 0;
    if (!SelectFolder(folder, selected, error)) return false;
    if (selected == uidValidity) return true;
    error = "Ordner " + folder + " ist auf dem Server ein anderer geworden (UIDVALIDITY)";
    // The index is read anew at once, so that the next lookup finds what the folder holds now.
    std::string ignored;
    SyncFolder(m_command, folder, ignored);
    return false;
}

// A small message is fetched whole; a larger one in parts, its large attachments left on the server, unless
// the whole message is the better fetch (FetchInParts).
bool CImapSync::FetchForOpening(const std::string& folder, std::uint32_t uidValidity, std::uint32_t uid,
                                std::uint64_t size, std::map<std::string, std::uint64_t>& leftOut,
                                std::string& message, std::string& error) {
    leftOut.clear();
    if (size == 0 || size >= kLeftOutOctets) {
        if (std::optional<std::string> assembled =
                FetchInParts(m_command, uid, kLeftOutOctets, leftOut, error)) {
            message = std::move(*assembled);
            return true;
        }
        // A connection that broke over the structure is opened again for the whole message.
        if (!m_command.IsOpen() && !SelectForMessage(folder, uidValidity, error)) return false;
    }
    return m_command.FetchMessage(uid, message, error);
}

int CImapSync::OpenMessage(const std::string& folder, std::uint32_t uidValidity, std::uint32_t uid,
                           std::uint64_t size, std::map<std::string, std::uint64_t>& leftOut,
                           std::string& error) {
    const std::string path = CachePath(folder, uidValidity, uid);
    if (const int cached = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW); cached >= 0) {
        if (SkipLeftOutLine(cached, leftOut)) return cached;
        // A file of an older cache, or one cut short: fetched again.
        close(cached);
        unlink(path.c_str());
    }
    std::string message;
    {
        std::lock_guard command(m_commandLock);
        const CPipeSignalGuard quiet;
        if (!SelectForMessage(folder, uidValidity, error)) return -1;
        if (!FetchForOpening(folder, uidValidity, uid, size, leftOut, message, error)) return -1;
    }
    const int fd = Keep(path, LeftOutLine(leftOut) + "\n" + message, error);
    if (fd >= 0 && !SkipLeftOutLine(fd, leftOut)) {
        close(fd);
        error = "Nachricht nicht zwischengespeichert";
        return -1;
    }
    return fd;
}

int CImapSync::OpenPart(const std::string& folder, std::uint32_t uidValidity, std::uint32_t uid,
                        const std::string& section, std::string& error) {
    const std::string path = CachePath(folder, uidValidity, uid) + "." + section;
    if (const int cached = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW); cached >= 0) return cached;
    std::map<std::string, std::string> fetched;
    {
        std::lock_guard command(m_commandLock);
        const CPipeSignalGuard quiet;
        if (!SelectForMessage(folder, uidValidity, error)) return -1;
        if (!m_command.FetchSections(uid, {section}, fetched, error)) return -1;
    }
    return Keep(path, fetched[section], error);
}

int CImapSync::Keep(const std::string& path, std::string_view bytes, std::string& error) {
    if (ReplaceFile(path, bytes, false) == 0) {
        TrimCache();
        if (const int cached = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW); cached >= 0)
            return cached;
    }
    // No room in the cache: the bytes are read from an unnamed file of their own.
    const int memory = memfd_create("velmar-imap-message", MFD_CLOEXEC);
    if (memory < 0 || write(memory, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) ||
        lseek(memory, 0, SEEK_SET) != 0) {
        if (memory >= 0) close(memory);
        error = std::string("Nachricht nicht zwischengespeichert: ") + std::strerror(errno);
        return -1;
    }
    return memory;
}

// Oldest files first, until the cache is well below its bound again.
void CImapSync::TrimCache() {
    struct CCached {
        std::string path;
        std::int64_t time;
        std::uint64_t size;
    };
    std::vector<CCached> files;
    std::uint64_t total = 0;
    const std::string folder = m_cacheFolder + "/messages";
    if (DIR* dir = opendir(folder.c_str())) {
        while (const dirent* entry = readdir(dir)) {
            struct stat info {};
            if (entry->d_name[0] == '.' ||
                fstatat(dirfd(dir), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0)
                continue;
            files.push_back(
                {folder + "/" + entry->d_name, info.st_mtime, static_cast<std::uint64_t>(info.st_size)});
            total += static_cast<std::uint64_t>(info.st_size);
        }
        closedir(dir);
    }
    if (total <= kCacheBytes) return;
    std::sort(files.begin(), files.end(), [](const CCached& a, const CCached& b) { return a.time < b.time; });
    for (const CCached& file : files) {
        if (total <= kCacheTrimmedBytes) break;
        if (unlink(file.path.c_str()) == 0) total -= file.size;
    }
}

bool CImapSync::InternalDateOf(const std::string& folder, std::uint32_t uidValidity, std::uint32_t uid,
                               std::int64_t& internalDate, std::string& error) {
    std::lock_guard command(m_commandLock);
    const CPipeSignalGuard quiet;
    return SelectForMessage(folder, uidValidity, error) &&
           m_command.FetchInternalDate(uid, internalDate, error);
}

bool CImapSync::SetSeen(const std::string& folder, std::uint32_t uidValidity, std::uint32_t uid, bool seen,
                        std::string& error) {
    {
        std::lock_guard command(m_commandLock);
        const CPipeSignalGuard quiet;
        if (!SelectForMessage(folder, uidValidity, error) || !m_command.StoreSeen(uid, seen, error))
            return false;
    }
    // The index shows it at once; the next sync confirms it.
    const std::shared_ptr<const CImapSnapshot> before = LoadedSnapshot(folder);
    if (const std::optional<size_t> row = before ? before->RowOfUid(uid) : std::nullopt) {
        CImapSnapshotBuilder next(before.get(), m_store.id, ImapFolderName(folder));
        const std::uint32_t flags = before->Message(*row).flags;
        next.SetFlags(uid, seen ? flags | kImapSeen : flags & ~static_cast<std::uint32_t>(kImapSeen));
        std::lock_guard lock(m_lock);
        m_snapshots[folder] = next.Build();
    }
    return true;
}

bool CImapSync::Transfer(const std::string& folder, std::uint32_t uidValidity, std::uint32_t uid,
                         const std::string& toFolder, bool move, std::string& error) {
    {
        std::lock_guard command(m_commandLock);
        const CPipeSignalGuard quiet;
        if (!SelectForMessage(folder, uidValidity, error) ||
            !(move ? m_command.Move(uid, toFolder, error) : m_command.Copy(uid, toFolder, error)))
            return false;
    }
    if (!move) {
        std::lock_guard lock(m_lock);
        m_synced.erase(toFolder);
        return true;
    }
    const std::shared_ptr<const CImapSnapshot> before = LoadedSnapshot(folder);
    if (before && before->RowOfUid(uid)) {
        CImapSnapshotBuilder next(before.get(), m_store.id, ImapFolderName(folder));
        std::vector<std::uint32_t> kept;
        for (size_t row = 0; row < before->RowCount(); ++row)
            if (const std::uint32_t other = before->Message(row).uid; other != uid) kept.push_back(other);
        next.KeepOnly(kept);
        std::lock_guard lock(m_lock);
        m_snapshots[folder] = next.Build();
        m_synced.erase(toFolder);
    }
    return true;
}

bool CImapSync::Append(const std::string& folder, std::string_view message, std::uint32_t flags,
                       std::string& error) {
    std::lock_guard command(m_commandLock);
    const CPipeSignalGuard quiet;
    if (!Command(error)) return false;
    // A folder not there yet (the sent-items folder before the sync's first look at the server made it) is
    // made and the message appended again. Deliberate: a refused CREATE is no reason to stop, as the folder
    // may have been made meanwhile by that first look.
    if (!m_command.Append(folder, message, flags, error)) {
        std::string createError;
        if (!m_command.IsOpen()) return false;
        m_command.Create(folder, createError);
        if (!m_command.IsOpen() || !m_command.Append(folder, message, flags, error)) return false;
    }
    std::lock_guard lock(m_lock);
    m_synced.erase(folder);
    return true;
}

}  // namespace velmar::mapi
