// The IMAP side of one store: the indexes of its folders, kept on disk under the cache folder and brought
// up to date incrementally (new UIDs, flag changes since the last modification sequence where the server
// keeps them, expunges when the count differs); a thread of its own keeps the inbox current with IDLE and
// reconnects with growing pauses when the server is away; a second connection serves the calls of the MAPI
// objects (a message's bytes, its read flag, moves, appends); and a bounded cache of fetched messages.
//
// Nothing here waits for the network on behalf of a lookup: the inbox's index is what the last sync left.
// The server is changed only by the explicit calls (SetSeen, Move, Append).
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "mapi/imap/ImapConnection.h"
#include "mapi/imap/ImapIndex.h"
#include "mapi/provider/Profiles.h"
#include "support/Backoff.h"

namespace velmar::mapi {

inline constexpr char kImapInbox[] = "INBOX";

// The folders every store has, as the server marks them (RFC 6154) or as they are usually named.
enum class EImapRole { Sent, Drafts, Trash };

// The name a role's folder usually has, which names it in entry ids before the server was asked.
std::string UsualFolderOfRole(EImapRole role);

class CImapSync {
public:
    // The process's sync of a store (made, and its thread started, on first use).
    static std::shared_ptr<CImapSync> ForStore(const CStoreConfig& store);
    // Ends every sync's thread and connections (at the end of the process or a test).
    static void StopAll();
    // ResyncNow of every store in use.
    static void ResyncAll();
    // The problems of the stores in use, "Name: problem" each, joined by "; "; empty while all is well.
    static std::wstring AllProblems();

    explicit CImapSync(CStoreConfig store);
    ~CImapSync();
    CImapSync(const CImapSync&) = delete;
    CImapSync& operator=(const CImapSync&) = delete;

    // The name of the folder of a role on the server; nullopt until the server was asked, and while it has
    // none and refuses to make one.
    std::optional<std::string> FolderOfRole(EImapRole role) const;
    // Waits (at most a while) until the thread has been to the server once, well or not: what it found of
    // the folders is known then.
    void AwaitFirstPass();
    // The folders the server listed (the inbox and the roles' folders at least).
    std::vector<std::string> FolderNames() const;

    // The folder's index. The inbox's is what the thread keeps (only before its first sync, with nothing on
    // disk, is that sync waited for); another folder is brought up to date first when it was not in the last
    // half minute and the server answers. Null for a folder never seen.
    std::shared_ptr<const CImapSnapshot> Snapshot(const std::string& folder);

    // The message from the cache, or fetched into it (size: as the index knows it, 0 when it does not); an
    // open descriptor the caller owns, or -1 with error set. leftOut names the attachments' bodies it goes
    // without (section and size as sent), which OpenPart gives. A UIDVALIDITY other than the folder's is a
    // message that is no more.
    int OpenMessage(const std::string& folder, std::uint32_t uidValidity, std::uint32_t uid,
                    std::uint64_t size, std::map<std::string, std::uint64_t>& leftOut, std::string& error);
    // The body as sent of a part of the message (an IMAP section: "2", "1.3"), the same way.
    int OpenPart(const std::string& folder, std::uint32_t uidValidity, std::uint32_t uid,
                 const std::string& section, std::string& error);
    // Whether the message's bytes are in the cache (opening it then never waits for the server).
    bool IsCached(const std::string& folder, std::uint32_t uidValidity, std::uint32_t uid) const;
    // The internal date of one message, asked of the server: for a message opened before the index has it.
    // False with error when the server cannot say.
    bool InternalDateOf(const std::string& folder, std::uint32_t uidValidity, std::uint32_t uid,
                        std::int64_t& internalDate, std::string& error);
    bool SetSeen(const std::string& folder, std::uint32_t uidValidity, std::uint32_t uid, bool seen,
                 std::string& error);
    // Copies one message to another folder of the server, or moves it there.
    bool Transfer(const std::string& folder, std::uint32_t uidValidity, std::uint32_t uid,
                  const std::string& toFolder, bool move, std::string& error);
    bool Append(const std::string& folder, std::string_view message, std::uint32_t flags, std::string& error);

    // Brings the inbox up to date now and waits for that (at most a while): FlushQueues(FLUSH_DOWNLOAD).
    void ResyncNow();
    // What went wrong last with the server, and what the store does without (a folder the server will not
    // make, IDLE), for the spooler's status; empty while all is well.
    std::wstring Problem() const;
    // Whether the server was found away (or refusing) the last time it was asked.
    bool ServerAway() const;

private:
    void Run();
    // One look at the server: connected (its folders found) when the connection is not open, then the inbox.
    bool Pass(CImapConnection& connection, std::string& error);
    bool Connect(CImapConnection& connection, std::string& error);
    bool DiscoverFolders(CImapConnection& connection, std::string& error);
    bool SyncFolder(CImapConnection& connection, const std::string& folder, std::string& error);
    std::shared_ptr<const CImapSnapshot> LoadedSnapshot(const std::string& folder);
    void Publish(const std::string& folder, std::shared_ptr<const CImapSnapshot> snapshot);
    // The command connection, open; false with error when the server cannot be had.
    bool Command(std::string& error);
    void SetProblem(const std::string& problem);
    std::string IndexPath(const std::string& folder) const;
    std::string CachePath(const std::string& folder, std::uint32_t uidValidity, std::uint32_t uid) const;
    // Selects the folder on the command connection (see KeepSelected).
    bool SelectFolder(const std::string& folder, std::uint32_t& uidValidity, std::string& error);
    // Selects the message's folder on the command connection, as long as it is still the one of the UIDs.
    bool SelectForMessage(const std::string& folder, std::uint32_t uidValidity, std::string& error);
    bool FetchForOpening(const std::string& folder, std::uint32_t uidValidity, std::uint32_t uid,
                         std::uint64_t size, std::map<std::string, std::uint64_t>& leftOut,
                         std::string& message, std::string& error);
    // Writes the bytes into the cache and opens them there (with no room, in an unnamed file of their own).
    int Keep(const std::string& path, std::string_view bytes, std::string& error);
    void TrimCache();

    const CStoreConfig m_store;
    const std::string m_cacheFolder;

    mutable std::mutex m_lock;  // guards what follows up to m_thread
    std::map<std::string, std::shared_ptr<const CImapSnapshot>> m_snapshots;
    std::map<std::string, std::chrono::steady_clock::time_point> m_synced;
    std::map<EImapRole, std::string> m_roles;
    std::vector<std::string> m_folders;
    std::string m_problem;                // of the last pass or call: the server away or refusing
    std::vector<std::string> m_notes;     // what the store goes without on this server, and its notices
    std::uint64_t m_passesWanted = 0;     // ResyncNow's requests
    std::uint64_t m_passesSatisfied = 0;  // the requests a finished pass began after
    std::uint64_t m_passesDone = 0;       // passes finished, well or not
    bool m_stop = false;
    std::condition_variable m_passed;  // a pass finished, or a snapshot was published

    std::mutex m_commandLock;  // one call on the command connection at a time
    CImapConnection m_command;
    // No new connection while it pauses: a server just found away is not asked again at once.
    CBackoff m_commandRetry{std::chrono::seconds(5), std::chrono::seconds(5)};

    int m_wake = -1;  // eventfd: the thread looks again (a resync, the stop)
    std::thread m_thread;
};

}  // namespace velmar::mapi
