// What a folder's contents table shows, without parsing whole messages: the headers of each file are read
// once, and later refreshes only look at files that came, went or were renamed. Lookups by Message-ID go
// through a hash index, so they cost the same for ten messages or a hundred thousand.
//
// A large inbox stays resident, so a message costs a fixed record and its strings (file name, Message-ID,
// subject as UTF-8) packed into one text block; table values are made when a row is read, not kept.
//
// A message is a file: two files of one key (a copy a sync tool or a crash left) are two messages, told
// apart by their inode numbers, which renames keep; two names of one file (a move by link() and unlink()
// under way) are one message.
#pragma once

#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mapi/mime/HeaderBlock.h"
#include "mapi/provider/RowHash.h"
#include "mapi/runtime/TableRows.h"

namespace velmar::mapi {

// How often a reader looks a message up again when its file was renamed by another program (a mail client
// moving it from new/ to cur/, a sync tool changing its flags) between the lookup and the open or rename.
inline constexpr int kRenameRetries = 3;

// One message of a snapshot. The views point into the snapshot and live as long as it does.
struct CIndexedMessage {
    std::string_view key;       // unique part of the file name
    std::string_view fileName;  // in new/ or cur/
    bool inNew = false;
    std::string_view flags;      // the letters after ":2,", as the file name has them
    std::string_view messageId;  // the Message-ID header as written, white space trimmed
    std::string_view subject;    // decoded, UTF-8
    CFileTime delivered;         // the file's modification time
    std::uint64_t size = 0;
    std::optional<std::uint64_t> file;  // for a key with several files: this one's (see CEntryId::file)
};

// One state of a folder, shared by every table made from it; never changes once made.
class CIndexSnapshot : public ITableRows {
public:
    // A message as the snapshot holds it: its strings are at text in the snapshot's text block, the file
    // name first (the key is its first keyLength bytes), then the Message-ID, then the subject.
    struct CEntry {
        std::uint64_t delivered = 0;  // CFileTime ticks
        std::uint64_t size = 0;
        std::uint64_t text = 0;
        std::uint32_t messageIdLength = 0;
        std::uint32_t subjectLength = 0;
        std::uint16_t nameLength = 0;  // a file name is at most 255 bytes
        std::uint16_t keyLength = 0;
        bool inNew = false;
    };
    // The file id of a row whose key has several files; only those rows have one.
    struct CFileOfKey {
        std::uint32_t row = 0;
        std::uint64_t file = 0;  // the inode number
    };

    // entries in row order, their strings in text, files by row. Throws std::bad_alloc.
    CIndexSnapshot(std::vector<CEntry> entries, std::string text, std::vector<CFileOfKey> files,
                   std::string folderPath, std::uint64_t storeId, std::string folderName);

    size_t RowCount() const override { return m_entries.size(); }
    const CPropValue* Find(size_t row, ULONG tag, CPropValue& slot) const override;
    std::vector<ULONG> DefaultColumns() const override;
    std::optional<std::vector<size_t>> IndexedEqual(const SPropValue& value) const override;

    CIndexedMessage Message(size_t row) const;
    // The row of the message an entry id names: without a file id the first row of the key; with one the
    // row of that file, or the only row of a key that has one file (which keeps no file id: the caller
    // checks the file it opens). Nullopt when there is none.
    std::optional<size_t> FindMessage(std::string_view key, std::optional<std::uint64_t> file) const;
    // The file id of the row, when its key has several files.
    std::optional<std::uint64_t> FileOf(size_t row) const;
    // The row of that file; else the first row with its key (the same message under another name); else
    // nullopt.
    std::optional<size_t> FindFile(std::string_view fileName, bool inNew) const;
    // Every value the row has, as a table shows them: what a message reads when its file cannot be parsed.
    std::vector<CPropValue> RowValues(size_t row) const;
    // The path of the row's file.
    std::string PathOf(size_t row) const;
    // Rows whose file has no S flag.
    size_t UnreadCount() const;

private:
    std::string_view Key(size_t row) const {
        return std::string_view(m_text).substr(m_entries[row].text, m_entries[row].keyLength);
    }
    std::string_view MessageId(size_t row) const {
        const CEntry& entry = m_entries[row];
        return std::string_view(m_text).substr(entry.text + entry.nameLength, entry.messageIdLength);
    }

    std::vector<CEntry> m_entries;  // by delivery time, then key, then file id
    std::string m_text;
    std::vector<CFileOfKey> m_files;  // by row; empty unless a key has several files
    CRowHash m_byMessageId;
    CRowHash m_byKey;
    std::string m_folderPath;
    std::uint64_t m_storeId;
    std::string m_folderName;
};

class CMaildirIndex {
public:
    // storeId and folderName go into the entry ids of the rows.
    CMaildirIndex(std::string folderPath, std::uint64_t storeId, std::string folderName);

    // Brings the index up to date with the folder, reading only new or renamed files, and returns it. Throws
    // std::bad_alloc.
    std::shared_ptr<const CIndexSnapshot> Refresh();
    // Lists the folder again even when its times say nothing changed: for a reader whose file was renamed
    // within the same tick of the folder's clock. Throws std::bad_alloc.
    std::shared_ptr<const CIndexSnapshot> Rescan();
    // The index as the last refresh left it, without looking at the folder (null before the first).
    std::shared_ptr<const CIndexSnapshot> Last();

private:
    class CBuilder;
    std::shared_ptr<const CIndexSnapshot> Scan(timespec newStamp, timespec curStamp);

    std::mutex m_lock;
    std::string m_folderPath;
    std::uint64_t m_storeId;
    std::string m_folderName;
    timespec m_newStamp{};
    timespec m_curStamp{};
    std::shared_ptr<const CIndexSnapshot> m_snapshot;  // the index's whole state; the next is built from it
};

// The process's index of a folder (one per path, made on first use).
std::shared_ptr<CMaildirIndex> IndexForFolder(const std::string& folderPath, std::uint64_t storeId,
                                              const std::string& folderName);

}  // namespace velmar::mapi
