// What a folder's contents table shows, without parsing whole messages: the headers of each file are read
// once, and later refreshes only look at files that came, went or were renamed. Lookups by Message-ID go
// through a hash index, so they cost the same for ten messages or a hundred thousand.
#pragma once

#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "mapi/runtime/TableRows.h"

namespace velmar::mapi {

struct CIndexedMessage {
    std::string key;       // unique part of the file name
    std::string fileName;  // in new/ or cur/
    bool inNew = false;
    std::string flags;
    std::string messageId;  // the Message-ID header as written, white space trimmed
    std::wstring subject;   // decoded
    CFileTime delivered;    // the file's modification time
    std::uint64_t size = 0;
    std::vector<CPropValue> values;  // the table columns of this message
};

// One state of a folder, shared by every table made from it; never changes once made.
class CIndexSnapshot : public ITableRows {
public:
    CIndexSnapshot(std::vector<CIndexedMessage> messages, std::string folderPath);

    size_t RowCount() const override { return m_messages.size(); }
    const CPropValue* Find(size_t row, ULONG tag) const override;
    std::vector<ULONG> DefaultColumns() const override;
    std::optional<std::vector<size_t>> IndexedEqual(const SPropValue& value) const override;

    const std::vector<CIndexedMessage>& Messages() const { return m_messages; }
    const CIndexedMessage* FindByKey(const std::string& key) const;
    // The file's path, or empty when the snapshot does not know the key.
    std::string PathOf(const std::string& key) const;

private:
    std::vector<CIndexedMessage> m_messages;  // by delivery time, then key
    std::unordered_multimap<std::string, size_t> m_byMessageId;
    std::unordered_map<std::string, size_t> m_byKey;
    std::string m_folderPath;
};

class CMaildirIndex {
public:
    // storeId and folderName go into the entry ids of the rows.
    CMaildirIndex(std::string folderPath, std::uint64_t storeId, std::string folderName);

    // Brings the index up to date with the folder, reading only new or renamed files, and returns it.
    std::shared_ptr<const CIndexSnapshot> Refresh();

private:
    bool ScanSubfolder(const char* sub, bool inNew,
                       std::unordered_map<std::string, CIndexedMessage>& current);
    void FillValues(CIndexedMessage& message) const;

    std::mutex m_lock;
    std::string m_folderPath;
    std::uint64_t m_storeId;
    std::string m_folderName;
    timespec m_newStamp{};
    timespec m_curStamp{};
    std::unordered_map<std::string, CIndexedMessage> m_byKey;
    std::shared_ptr<const CIndexSnapshot> m_snapshot;
};

// The process's index of a folder (one per path, made on first use).
std::shared_ptr<CMaildirIndex> IndexForFolder(const std::string& folderPath, std::uint64_t storeId,
                                              const std::string& folderName);

// Reads the header block of a message file (up to the first empty line, at most 256 KB).
std::string ReadHeaderBlock(const std::string& path);
// The unfolded value of the first header of that name (case-insensitive), or empty.
std::string HeaderValue(std::string_view headers, std::string_view name);
// An unstructured header value with its encoded words decoded, as UTF-8.
std::string DecodeHeaderText(const std::string& raw);

}  // namespace velmar::mapi
