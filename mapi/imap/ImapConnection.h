// One connection to an IMAP server, through libetpan: connected and logged in as the account says
// (imaps://, or imap:// with STARTTLS, plain only on a loopback host; or a tunnel command that speaks IMAP
// already logged in), the server's certificate verified against the system's store (or the account's CA
// file) before anything else is sent. Every call blocks the calling thread; failures come back as false
// with a sentence for the activity list in error. Not for two threads at once.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mapi/provider/Profiles.h"

struct mailimap;

namespace velmar::mapi {

// The system flags a message can have on the server.
enum ImapFlag : std::uint32_t {
    kImapSeen = 1,
    kImapAnswered = 2,
    kImapFlagged = 4,
    kImapDeleted = 8,
    kImapDraft = 16,
};

struct CImapMailbox {
    std::string name;        // as the server names it (modified UTF-7)
    char delimiter = 0;      // of its hierarchy; 0 for a flat name
    std::string specialUse;  // "Sent", "Drafts", "Trash", ... (RFC 6154, without the backslash); or empty
    bool selectable = true;
};

struct CImapMailboxState {
    std::uint32_t uidValidity = 0;
    std::uint32_t uidNext = 0;
    std::uint32_t exists = 0;
    std::uint64_t highestModSeq = 0;  // 0 when the server keeps no modification sequences (no CONDSTORE)
};

struct CFetchedMessage;
struct CImapPart;

// Where a user's own folders are made (RFC 2342): "INBOX." on servers that keep them under the inbox, ""
// on others; and the character between a folder and its subfolders.
struct CImapNamespace {
    std::string prefix;
    char delimiter = '/';
};

// What a lookup in the index needs of a message, as FETCH gives it.
struct CImapHeaderRow {
    std::uint32_t uid = 0;
    std::uint32_t flags = 0;   // ImapFlag bits
    std::string messageId;     // the Message-ID field's value, trimmed
    std::string subjectField;  // the Subject field's value as written (encoded words and all)
};

// The rest of what the index shows of a message, which costs many servers a look at every message file.
struct CImapDetailsRow {
    std::uint32_t uid = 0;
    std::int64_t internalDate = 0;  // when the server got it (seconds since 1970, UTC; 0: unknown)
    std::uint64_t size = 0;         // RFC822.SIZE
};

class CImapConnection {
public:
    CImapConnection();
    ~CImapConnection();
    CImapConnection(const CImapConnection&) = delete;
    CImapConnection& operator=(const CImapConnection&) = delete;

    // Connects and logs in (password is not used for a tunnel; for an account signed in with OAuth2 it is
    // the access token). A connection open before is closed first.
    bool Open(const CImapAccount& account, const std::string& password, std::string& error);
    // Whether the last Open failed because the server refused the password or token.
    bool LoginRefused() const { return m_loginRefused; }
    bool IsOpen() const;
    void Close();
    bool HasCapability(const char* name) const;
    // What the server said before it was ready (a tunnel's "* OK [ALERT] ..."), for the store's status.
    const std::vector<std::string>& GreetingNotes() const { return m_greetingNotes; }

    bool List(std::vector<CImapMailbox>& mailboxes, std::string& error);
    // The personal namespace as NAMESPACE gives it; without that extension, the root with the server's
    // hierarchy delimiter (LIST "" "").
    bool PersonalNamespace(CImapNamespace& space, std::string& error);
    bool Create(const std::string& mailbox, std::string& error);
    // Selects a mailbox read-write, with CONDSTORE where the server has it.
    bool Select(const std::string& mailbox, CImapMailboxState& state, std::string& error);
    // The mailbox selected for calls on its messages: a SELECT only when another (or none) is selected,
    // else a NOOP, which has the server report what arrived since. A SELECT costs a server a look at the
    // whole folder. uidValidity: as the SELECT found it, or as the server reported it since (a server ends
    // the session, or says so, rather than change it under a client unseen).
    bool KeepSelected(const std::string& mailbox, std::uint32_t& uidValidity, std::string& error);

    // UID FETCH fromUid:* of what a lookup needs, each message handed to row as it is read.
    bool FetchHeaders(std::uint32_t fromUid, const std::function<void(CImapHeaderRow&&)>& row,
                      std::string& error);
    // UID FETCH fromUid:* of internal dates and sizes, the same way.
    bool FetchDetails(std::uint32_t fromUid, const std::function<void(const CImapDetailsRow&)>& row,
                      std::string& error);
    // The internal date of one message alone (cheap where its size is not: no look at its file); false with
    // error when the server gives none.
    bool FetchInternalDate(std::uint32_t uid, std::int64_t& internalDate, std::string& error);
    // The flags of the messages up to toUid whose flags changed since changedSince (all when 0).
    bool FetchFlags(std::uint32_t toUid, std::uint64_t changedSince,
                    const std::function<void(std::uint32_t uid, std::uint32_t flags)>& row,
                    std::string& error);
    // The UIDs of every message of the selected mailbox, ascending.
    bool FetchUids(std::vector<std::uint32_t>& uids, std::string& error);
    // The whole message, as the server holds it; false with error when it has no such message.
    bool FetchMessage(std::uint32_t uid, std::string& bytes, std::string& error);
    // The message's structure (BODYSTRUCTURE).
    bool FetchStructure(std::uint32_t uid, CImapPart& root, std::string& error);
    // Sections of the message, by name ("HEADER", "2.MIME", "2.1"; "" the whole message), all in one FETCH;
    // false with error unless the server gave every one.
    bool FetchSections(std::uint32_t uid, const std::vector<std::string>& sections,
                       std::map<std::string, std::string>& bytes, std::string& error);

    bool StoreSeen(std::uint32_t uid, bool seen, std::string& error);
    bool Copy(std::uint32_t uid, const std::string& mailbox, std::string& error);
    // Moves one message: MOVE; else COPY and \Deleted, then removed by UID EXPUNGE (UIDPLUS), or by EXPUNGE
    // when no other message of the folder is marked deleted, else left marked for the user's own client.
    bool Move(std::uint32_t uid, const std::string& mailbox, std::string& error);
    bool Append(const std::string& mailbox, std::string_view message, std::uint32_t flags,
                std::string& error);

    // IDLE until the server reports a change (true in changed), wakeFd becomes readable or timeoutSeconds
    // pass. Without IDLE on the server it just waits.
    bool Idle(int wakeFd, int timeoutSeconds, bool& changed, std::string& error);

private:
    bool Check(int result, const char* what, std::string& error);
    bool VerifyCertificate(const CImapAccount& account, std::string& error);
    bool OpenTunnel(const CImapAccount& account, std::string& error);
    // A tunnel's server is logged in already: what came before its PREAUTH is read here, never answered
    // with a LOGIN.
    bool AwaitPreauth(std::string& error);
    // SASL with the access token (ImapSasl.h); signIn names the attempt in error.
    bool SignInWithToken(const CImapAccount& account, const std::string& token, const std::string& signIn,
                         std::string& error);
    // Removes the message just marked deleted, and no other.
    bool ExpungeOnly(std::uint32_t uid, std::string& error);
    // UID FETCH fromUid:toUid (items; toUid 0 for "*"), read as it arrives (see ImapFetchReader.h);
    // messages below fromUid, which "a:*" reports when nothing is at or above a, are left out.
    bool FetchStreamed(std::uint32_t fromUid, std::uint32_t toUid, std::string_view items,
                       const std::function<void(const CFetchedMessage&)>& message, std::string& error);

    mailimap* m_session = nullptr;
    std::optional<std::string> m_selected;  // the mailbox selected, while one is
    std::uint32_t m_selectedValidity = 0;
    unsigned m_ownTag = 0;  // the tags of the commands sent past libetpan
    pid_t m_tunnel = -1;    // the tunnel command, while it runs
    std::vector<std::string> m_greetingNotes;
    bool m_loginRefused = false;
};

}  // namespace velmar::mapi
