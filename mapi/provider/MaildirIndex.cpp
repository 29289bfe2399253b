#include "mapi/provider/MaildirIndex.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_map>

#include "mapi/provider/ContentsRow.h"
#include "mapi/provider/EntryId.h"
#include "mapi/provider/Maildir.h"
#include "mapitags.h"
#include "support/FileDescriptor.h"
#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

bool SameStamp(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// The modification time of a folder, or zero. A time of the current second is not trusted, since a
// change later in the same clock tick would leave it as it is: such a folder is listed again next time.
timespec FolderStamp(const std::string& path) {
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0) return {};
    if (info.st_mtim.tv_sec >= std::time(nullptr) - 1) return {};
    return info.st_mtim;
}

// What the index keeps of a message file, read from the file.
struct CFileFacts {
    std::string messageId;
    std::string subject;  // decoded, UTF-8
    std::uint64_t delivered = 0;
    std::uint64_t size = 0;
    std::uint64_t file = 0;  // the inode number
};

enum class EReadResult { Read, NotAMessage, Gone };

// Reads the Message-ID and the subject of an open message file, wherever they are in its header block
// within kMaxHeaderBlockBytes, without holding the block.
void ReadHeaders(int fd, CFileFacts& facts) {
    CHeaderScanner scanner({"Message-ID", "Subject"});
    char buffer[16384];
    for (size_t total = 0; total < kMaxHeaderBlockBytes;) {
        const ssize_t got = read(fd, buffer, std::min(sizeof buffer, kMaxHeaderBlockBytes - total));
        if (got <= 0) break;
        total += static_cast<size_t>(got);
        if (!scanner.Feed(std::string_view(buffer, static_cast<size_t>(got)))) break;
    }
    facts.messageId = scanner.Value(0);
    facts.subject = DecodeHeaderText(scanner.Unfolded(1));
}

// Reads what the index keeps of the file name in the open folder dirFd. A symbolic link is no message
// file: links are not followed below a store.
EReadResult ReadFacts(int dirFd, const char* name, CFileFacts& facts) {
    // Opened before it is looked at, so that what is read is what was looked at. Not blocking, so that a
    // stray FIFO cannot stop the listing.
    const CFileDescriptor file(openat(dirFd, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat info {};
    // A file that cannot be opened (for its permissions) is still listed, without its headers.
    const int looked =
        file.get() >= 0 ? fstat(file.get(), &info) : fstatat(dirFd, name, &info, AT_SYMLINK_NOFOLLOW);
    if (looked != 0) return errno == ENOENT ? EReadResult::Gone : EReadResult::NotAMessage;
    if (!S_ISREG(info.st_mode)) return EReadResult::NotAMessage;
    if (file.get() >= 0) ReadHeaders(file.get(), facts);
    facts.delivered =
        FileTimeFromUnix(info.st_mtim.tv_sec, static_cast<std::uint32_t>(info.st_mtim.tv_nsec)).ticks;
    facts.size = static_cast<std::uint64_t>(info.st_size);
    facts.file = static_cast<std::uint64_t>(info.st_ino);
    return EReadResult::Read;
}

// The flag letters of a file name whose key is keyLength bytes long.
std::string_view FlagsOf(std::string_view fileName, size_t keyLength) {
    const std::string_view info = fileName.substr(keyLength);  // ":2,FS", or empty
    return info.size() >= 3 ? info.substr(3) : std::string_view();
}

}  // namespace

CIndexSnapshot::CIndexSnapshot(std::vector<CEntry> entries, std::string text, std::vector<CFileOfKey> files,
                               std::string folderPath, std::uint64_t storeId, std::string folderName)
    : m_entries(std::move(entries)),
      m_text(std::move(text)),
      m_files(std::move(files)),
      m_byMessageId(m_entries.size()),
      m_byKey(m_entries.size()),
      m_folderPath(std::move(folderPath)),
      m_storeId(storeId),
      m_folderName(std::move(folderName)) {
    for (size_t row = 0; row < m_entries.size(); ++row) {
        m_byMessageId.Insert(CRowHash::HashOf(MessageId(row)), static_cast<std::uint32_t>(row));
        m_byKey.Insert(CRowHash::HashOf(Key(row)), static_cast<std::uint32_t>(row));
    }
}

CIndexedMessage CIndexSnapshot::Message(size_t row) const {
    const CEntry& entry = m_entries[row];
    const std::string_view text(m_text);
    const std::string_view fileName = text.substr(entry.text, entry.nameLength);
    const size_t messageIdAt = entry.text + entry.nameLength;
    return {fileName.substr(0, entry.keyLength),
            fileName,
            entry.inNew,
            FlagsOf(fileName, entry.keyLength),
            text.substr(messageIdAt, entry.messageIdLength),
            text.substr(messageIdAt + entry.messageIdLength, entry.subjectLength),
            CFileTime{entry.delivered},
            entry.size,
            FileOf(row)};
}

std::optional<std::uint64_t> CIndexSnapshot::FileOf(size_t row) const {
    if (m_files.empty()) return std::nullopt;
    const auto found =
        std::lower_bound(m_files.begin(), m_files.end(), row,
                         [](const CFileOfKey& entry, size_t wanted) { return entry.row < wanted; });
    if (found == m_files.end() || found->row != row) return std::nullopt;
    return found->file;
}

// The values are made here, per row asked for, rather than kept: a resident index of a large inbox would
// otherwise hold every column of every message.
const CPropValue* CIndexSnapshot::Find(size_t row, ULONG tag, CPropValue& slot) const {
    const CIndexedMessage message = Message(row);
    CContentsFacts facts;
    facts.storeId = m_storeId;
    facts.folder = m_folderName;
    facts.key = message.key;
    facts.file = message.file;
    facts.messageId = message.messageId;
    facts.subject = message.subject;
    facts.read = message.flags.find('S') != std::string_view::npos;
    facts.delivered = message.delivered;
    facts.size = message.size;
    return ContentsValue(facts, tag, slot);
}

std::vector<ULONG> CIndexSnapshot::DefaultColumns() const {
    return ContentsColumns();
}

std::optional<std::vector<size_t>> CIndexSnapshot::IndexedEqual(const SPropValue& value) const {
    return RowsWithMessageId(value, m_byMessageId, [this](size_t row) { return MessageId(row); });
}

std::optional<size_t> CIndexSnapshot::FindMessage(std::string_view key,
                                                  std::optional<std::uint64_t> file) const {
    std::optional<size_t> first;
    std::optional<size_t> same;
    bool several = false;
    m_byKey.Probe(CRowHash::HashOf(key), [&](size_t row) {
        if (Key(row) != key) return false;
        if (!first || row < *first) first = row;
        if (const std::optional<std::uint64_t> rowFile = FileOf(row)) {
            several = true;
            if (rowFile == file) same = row;
        }
        return false;
    });
    if (!file) return first;
    return several ? same : first;
}

std::optional<size_t> CIndexSnapshot::FindFile(std::string_view fileName, bool inNew) const {
    const std::string_view key = MaildirKey(fileName);
    std::optional<size_t> same;
    std::optional<size_t> first;
    m_byKey.Probe(CRowHash::HashOf(key), [&](size_t row) {
        if (Key(row) != key) return false;
        if (!first || row < *first) first = row;
        const CIndexedMessage message = Message(row);
        if (message.fileName == fileName && message.inNew == inNew) same = row;
        return same.has_value();
    });
    return same ? same : first;
}

std::vector<CPropValue> CIndexSnapshot::RowValues(size_t row) const {
    return ContentsRowValues(*this, row);
}

std::string CIndexSnapshot::PathOf(size_t row) const {
    const CIndexedMessage message = Message(row);
    return m_folderPath + (message.inNew ? "/new/" : "/cur/") + std::string(message.fileName);
}

size_t CIndexSnapshot::UnreadCount() const {
    size_t unread = 0;
    for (size_t row = 0; row < m_entries.size(); ++row)
        if (Message(row).flags.find('S') == std::string_view::npos) ++unread;
    return unread;
}

// The next snapshot of a folder, made from its listing and the previous snapshot: a file whose key the
// previous one knows is not read again, only the file name is taken anew.
class CMaildirIndex::CBuilder {
public:
    explicit CBuilder(const CIndexSnapshot* previous) : m_previous(previous) {
        // Room for what the folder held last time and a little more, so that a folder that gained a few
        // messages is not reallocated at twice its size.
        const size_t expected = previous ? previous->RowCount() + previous->RowCount() / 16 + 64 : 0;
        m_entries.reserve(expected);
        m_keys = CRowHash(expected);
    }

    // Adds the messages of the folder's sub ("cur", "new"), which is not listed when it is a link; false
    // when a file vanished between the listing and its reading (renamed or deleted by another program), so
    // that its new name may be missing.
    bool AddFolder(int folderFd, const char* sub, bool inNew) {
        CFileDescriptor& dirFd = m_dirs[inNew ? 1 : 0];
        dirFd = CFileDescriptor(OpenMaildirSubfolder(folderFd, sub));
        if (dirFd.get() < 0) return true;
        // The listing has a descriptor of its own; dirFd stays open to read the files by name.
        CFileDescriptor listing(dup(dirFd.get()));
        DIR* dir = listing.get() >= 0 ? fdopendir(listing.get()) : nullptr;
        if (!dir) return true;
        listing.Detach();  // closedir closes it
        bool complete = true;
        while (const dirent* entry = readdir(dir)) {
            if (entry->d_name[0] == '.') continue;
            if (!AddFile(entry->d_name, inNew)) complete = false;
        }
        closedir(dir);
        return complete;
    }

    std::shared_ptr<const CIndexSnapshot> Finish(const std::string& folderPath, std::uint64_t storeId,
                                                 const std::string& folderName) {
        m_keys = CRowHash();
        // File ids go with their rows through the sort, found by the offset of the row's text.
        std::unordered_map<std::uint64_t, std::uint64_t> fileByText;
        for (const auto& [row, file] : m_files) fileByText.emplace(m_entries[row].text, file);
        const auto fileOf = [&](const CIndexSnapshot::CEntry& entry) {
            const auto found = fileByText.find(entry.text);
            return found == fileByText.end() ? std::uint64_t{0} : found->second;
        };
        const std::string_view text(m_text);
        // Rows in delivery order, the older message first: of several files with one Message-ID the
        // lookup opens the first row, so the older file is the message, the same after every restart. The
        // key (the file name without its flags) breaks a tie, so that a flag change moves no row.
        std::sort(m_entries.begin(), m_entries.end(),
                  [&](const CIndexSnapshot::CEntry& a, const CIndexSnapshot::CEntry& b) {
                      if (a.delivered != b.delivered) return a.delivered < b.delivered;
                      const std::string_view keyA = text.substr(a.text, a.keyLength);
                      const std::string_view keyB = text.substr(b.text, b.keyLength);
                      if (keyA != keyB) return keyA < keyB;
                      // The files of one key keep their order whatever names their flags give them.
                      return fileOf(a) < fileOf(b);
                  });
        std::vector<CIndexSnapshot::CFileOfKey> files;
        if (!fileByText.empty()) {
            for (size_t row = 0; row < m_entries.size(); ++row)
                if (const auto found = fileByText.find(m_entries[row].text); found != fileByText.end())
                    files.push_back({static_cast<std::uint32_t>(row), found->second});
        }
        m_entries.shrink_to_fit();
        m_text.shrink_to_fit();
        return std::make_shared<const CIndexSnapshot>(std::move(m_entries), std::move(m_text),
                                                      std::move(files), folderPath, storeId, folderName);
    }

private:
    std::string_view KeyOf(size_t row) const {
        return std::string_view(m_text).substr(m_entries[row].text, m_entries[row].keyLength);
    }
    int Dir(bool inNew) const { return m_dirs[inNew ? 1 : 0].get(); }

    // False when the file is gone.
    bool AddFile(const char* name, bool inNew) {
        const std::string_view fileName(name);
        const std::string_view key = MaildirKey(fileName);
        const size_t hash = CRowHash::HashOf(key);
        if (m_keys.Probe(hash, [&](size_t row) { return KeyOf(row) == key; }))
            return AddFileOfListedKey(name, inNew, hash);
        if (const std::optional<size_t> known =
                m_previous ? m_previous->FindFile(fileName, inNew) : std::nullopt) {
            const CIndexedMessage message = m_previous->Message(*known);
            // A file of another name is the same message renamed, unless its key had several files: which
            // of them it is, only the file can tell.
            if (!message.file || (message.fileName == fileName && message.inNew == inNew)) {
                Append(fileName, key.size(), inNew, message.messageId, message.subject,
                       message.delivered.ticks, message.size, hash);
                return true;
            }
        }
        CFileFacts facts;
        switch (ReadFacts(Dir(inNew), name, facts)) {
            case EReadResult::Gone:
                return false;
            case EReadResult::NotAMessage:
                return true;
            case EReadResult::Read:
                break;
        }
        Append(fileName, key.size(), inNew, facts.messageId, facts.subject, facts.delivered, facts.size,
               hash);
        return true;
    }

    // A file of a key listed before: a message of its own, unless it is another name of a listed file.
    // Every file of such a key gets its file id; those listed before get theirs now. False when a file of
    // the key is gone.
    bool AddFileOfListedKey(const char* name, bool inNew, size_t hash) {
        const std::string_view fileName(name);
        const std::string_view key = MaildirKey(fileName);
        std::vector<size_t> listed;
        m_keys.Probe(hash, [&](size_t row) {
            if (KeyOf(row) == key) listed.push_back(row);
            return false;
        });
        for (const size_t row : listed)
            if (!m_files.contains(row) && !Identify(row)) return false;
        CFileFacts facts;
        if (!KnownFile(fileName, inNew, facts)) {
            switch (ReadFacts(Dir(inNew), name, facts)) {
                case EReadResult::Gone:
                    return false;
                case EReadResult::NotAMessage:
                    return true;
                case EReadResult::Read:
                    break;
            }
        }
        // Two names of one file (a move by link() and unlink() under way) are one message, listed once;
        // a key left with one file keeps no file id, so that its entry id stays the key.
        for (const size_t row : listed) {
            if (m_files.at(row) != facts.file) continue;
            if (listed.size() == 1) m_files.erase(row);
            return true;
        }
        Append(fileName, key.size(), inNew, facts.messageId, facts.subject, facts.delivered, facts.size,
               hash);
        m_files.emplace(m_entries.size() - 1, facts.file);
        return true;
    }

    // What the previous snapshot knew of exactly this file of a key with several files.
    bool KnownFile(std::string_view fileName, bool inNew, CFileFacts& facts) const {
        const std::optional<size_t> known = m_previous ? m_previous->FindFile(fileName, inNew) : std::nullopt;
        if (!known) return false;
        const CIndexedMessage message = m_previous->Message(*known);
        if (!message.file || message.fileName != fileName || message.inNew != inNew) return false;
        facts = {std::string(message.messageId), std::string(message.subject), message.delivered.ticks,
                 message.size, *message.file};
        return true;
    }

    // Gives a row listed before its file id. Its file is read again unless the previous snapshot knew it
    // by its name and id, since the row may hold what was known of another file of its key. False when
    // the file is gone.
    bool Identify(size_t row) {
        CIndexSnapshot::CEntry& entry = m_entries[row];
        const std::string fileName(std::string_view(m_text).substr(entry.text, entry.nameLength));
        CFileFacts facts;
        if (!KnownFile(fileName, entry.inNew, facts)) {
            if (ReadFacts(Dir(entry.inNew), fileName.c_str(), facts) != EReadResult::Read) return false;
            // Its strings again at the end of the text block; what they replace stays unused.
            entry.text = m_text.size();
            entry.messageIdLength = static_cast<std::uint32_t>(facts.messageId.size());
            entry.subjectLength = static_cast<std::uint32_t>(facts.subject.size());
            entry.delivered = facts.delivered;
            entry.size = facts.size;
            m_text.append(fileName).append(facts.messageId).append(facts.subject);
        }
        m_files.emplace(row, facts.file);
        return true;
    }

    void Append(std::string_view fileName, size_t keyLength, bool inNew, std::string_view messageId,
                std::string_view subject, std::uint64_t delivered, std::uint64_t size, size_t keyHash) {
        CIndexSnapshot::CEntry entry;
        entry.delivered = delivered;
        entry.size = size;
        entry.text = m_text.size();
        entry.messageIdLength = static_cast<std::uint32_t>(messageId.size());
        entry.subjectLength = static_cast<std::uint32_t>(subject.size());
        entry.nameLength = static_cast<std::uint16_t>(fileName.size());
        entry.keyLength = static_cast<std::uint16_t>(keyLength);
        entry.inNew = inNew;
        m_text.append(fileName).append(messageId).append(subject);
        m_entries.push_back(entry);
        if (m_keys.Full()) m_keys.Grow([&](size_t row) { return CRowHash::HashOf(KeyOf(row)); });
        m_keys.Insert(keyHash, static_cast<std::uint32_t>(m_entries.size() - 1));
    }

    const CIndexSnapshot* m_previous;
    std::vector<CIndexSnapshot::CEntry> m_entries;
    std::string m_text;
    CRowHash m_keys;  // of m_entries, while they are in listing order
    // The file ids of the rows of keys with several files, by row while the rows are in listing order.
    std::unordered_map<size_t, std::uint64_t> m_files;
    CFileDescriptor m_dirs[2];  // cur/ and new/, while they are listed
};

CMaildirIndex::CMaildirIndex(std::string folderPath, std::uint64_t storeId, std::string folderName)
    : m_folderPath(std::move(folderPath)), m_storeId(storeId), m_folderName(std::move(folderName)) {}

std::shared_ptr<const CIndexSnapshot> CMaildirIndex::Refresh() {
    std::lock_guard lock(m_lock);
    const timespec newStamp = FolderStamp(m_folderPath + "/new");
    const timespec curStamp = FolderStamp(m_folderPath + "/cur");
    const bool trusted = newStamp.tv_sec != 0 && curStamp.tv_sec != 0;
    if (m_snapshot && trusted && SameStamp(newStamp, m_newStamp) && SameStamp(curStamp, m_curStamp))
        return m_snapshot;
    return Scan(newStamp, curStamp);
}

std::shared_ptr<const CIndexSnapshot> CMaildirIndex::Last() {
    std::lock_guard lock(m_lock);
    return m_snapshot;
}

std::shared_ptr<const CIndexSnapshot> CMaildirIndex::Rescan() {
    std::lock_guard lock(m_lock);
    return Scan(FolderStamp(m_folderPath + "/new"), FolderStamp(m_folderPath + "/cur"));
}

std::shared_ptr<const CIndexSnapshot> CMaildirIndex::Scan(timespec newStamp, timespec curStamp) {
    // A folder below the store that is a link is not listed, nor are cur/ and new/ when they are links.
    const CFileDescriptor folder(OpenMaildirFolder(m_folderPath, m_folderName));
    for (int attempt = 0;; ++attempt) {
        CBuilder builder(m_snapshot.get());
        // Both are listed even when cur/ lost a file, since the last attempt keeps what it found.
        const bool curComplete = builder.AddFolder(folder.get(), "cur", false);
        const bool complete = builder.AddFolder(folder.get(), "new", true) && curComplete;
        if (!complete && attempt < kRenameRetries) continue;
        m_snapshot = builder.Finish(m_folderPath, m_storeId, m_folderName);
        // A listing that lost a file to a rename may lack its new name: the next refresh lists again.
        m_newStamp = complete ? newStamp : timespec{};
        m_curStamp = complete ? curStamp : timespec{};
        return m_snapshot;
    }
}

std::shared_ptr<CMaildirIndex> IndexForFolder(const std::string& folderPath, std::uint64_t storeId,
                                              const std::string& folderName) {
    static std::mutex registryLock;
    static std::unordered_map<std::string, std::shared_ptr<CMaildirIndex>> registry;
    std::lock_guard lock(registryLock);
    std::shared_ptr<CMaildirIndex>& index = registry[folderPath];
    if (!index) index = std::make_shared<CMaildirIndex>(folderPath, storeId, folderName);
    return index;
}

}  // namespace velmar::mapi
