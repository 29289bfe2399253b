// What an IMAP folder's contents table shows, kept on this machine: per message its UID, flags, internal
// date, size, Message-ID and subject, packed as the Maildir index packs them (a fixed record a message, its
// strings in one text block), with a hash by Message-ID, so that a lookup never waits for the server. A
// snapshot never changes once made; the account's sync builds the next one from it and saves it under the
// cache folder, from where a restart reads it back before the server is asked anything.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mapi/imap/ImapConnection.h"
#include "mapi/provider/RowHash.h"
#include "mapi/runtime/TableRows.h"

namespace velmar::mapi {

// How far the index is in step with the server's folder.
struct CImapFolderState {
    std::uint32_t uidValidity = 0;  // 0: never seen the server's folder
    std::uint32_t uidNext = 0;
    std::uint64_t highestModSeq = 0;
};

// One message of a snapshot; the views point into it and live as long as it does.
struct CImapIndexed {
    std::uint32_t uid = 0;
    std::uint32_t flags = 0;  // ImapFlag bits
    std::int64_t internalDate = 0;
    std::uint64_t size = 0;
    std::string_view messageId;
    std::string_view subject;  // decoded, UTF-8
};

// The folder name of a mailbox on the server in this provider's entry ids: "/" and the server's name of it
// (a Maildir folder name never holds a "/").
std::string ImapFolderName(const std::string& mailbox);
// Whether an entry id's folder is one on the IMAP server.
bool IsImapFolderName(const std::string& folder);

// The key of a message in its entry id: "<UIDVALIDITY>:<UID>". A changed UIDVALIDITY makes every old key
// name nothing, never another message.
std::string ImapMessageKey(std::uint32_t uidValidity, std::uint32_t uid);
// The UIDVALIDITY and UID of a key; nullopt for anything else.
std::optional<std::pair<std::uint32_t, std::uint32_t>> ParseImapMessageKey(std::string_view key);

class CImapSnapshot : public ITableRows {
public:
    struct CEntry {
        std::uint32_t uid = 0;
        std::uint32_t flags = 0;
        std::int64_t internalDate = 0;
        std::uint64_t size = 0;
        std::uint64_t text = 0;  // the Message-ID at text, then the subject
        std::uint32_t messageIdLength = 0;
        std::uint32_t subjectLength = 0;
    };

    // entries by ascending UID. Throws std::bad_alloc.
    CImapSnapshot(CImapFolderState state, std::vector<CEntry> entries, std::string text,
                  std::uint64_t storeId, std::string folderName);

    size_t RowCount() const override { return m_entries.size(); }
    const CPropValue* Find(size_t row, ULONG tag, CPropValue& slot) const override;
    std::vector<ULONG> DefaultColumns() const override;
    std::optional<std::vector<size_t>> IndexedEqual(const SPropValue& value) const override;

    const CImapFolderState& State() const { return m_state; }
    CImapIndexed Message(size_t row) const;
    std::optional<size_t> RowOfUid(std::uint32_t uid) const;
    // Every value the row has, as a table shows them: what a message shows when its content cannot be had.
    std::vector<CPropValue> RowValues(size_t row) const;
    size_t UnreadCount() const;

    // Writes the snapshot to path (a new file renamed over the old one); false when it cannot.
    bool Save(const std::string& path) const;
    // The snapshot saved at path; null when there is none or it cannot be read. Throws std::bad_alloc.
    static std::shared_ptr<const CImapSnapshot> Load(const std::string& path, std::uint64_t storeId,
                                                     const std::string& folderName);

private:
    friend class CImapSnapshotBuilder;
    std::string_view MessageId(size_t row) const {
        return std::string_view(m_text).substr(m_entries[row].text, m_entries[row].messageIdLength);
    }

    CImapFolderState m_state;
    std::vector<CEntry> m_entries;
    std::string m_text;
    CRowHash m_byMessageId;
    std::uint64_t m_storeId;
    std::string m_folderName;
};

// The next snapshot of a folder: starts from the one before (or from nothing) and takes the changes a
// sync brings.
class CImapSnapshotBuilder {
public:
    // Throws std::bad_alloc.
    CImapSnapshotBuilder(const CImapSnapshot* from, std::uint64_t storeId, std::string folderName);

    // The server's folder is another one now (a new UIDVALIDITY): everything known goes.
    void Reset();
    // A message the server reported; one already known is replaced.
    void Add(CImapHeaderRow&& row);
    void SetFlags(std::uint32_t uid, std::uint32_t flags);
    // A known message's internal date and size.
    void SetDetails(const CImapDetailsRow& row);
    // Drops the messages whose UIDs are not in uids (ascending): those the server expunged.
    void KeepOnly(const std::vector<std::uint32_t>& uids);
    void SetState(const CImapFolderState& state) { m_state = state; }
    const CImapFolderState& State() const { return m_state; }
    size_t Count() const { return m_entries.size(); }
    bool Changed() const { return m_changed; }
    // The snapshot; the builder is spent then.
    std::shared_ptr<const CImapSnapshot> Build();

private:
    std::vector<CImapSnapshot::CEntry>::iterator FirstAtOrAbove(std::uint32_t uid);
    CImapSnapshot::CEntry* EntryOf(std::uint32_t uid);  // null when the message is not known

    std::vector<CImapSnapshot::CEntry> m_entries;  // ascending UIDs
    std::string m_text;
    CImapFolderState m_state;
    std::uint64_t m_storeId;
    std::string m_folderName;
    bool m_changed = false;
};

}  // namespace velmar::mapi
