#include "mapi/provider/MaildirIndex.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "mapi/provider/EntryId.h"
#include "mapi/provider/GMimeSupport.h"
#include "mapi/provider/Maildir.h"
#include "mapitags.h"
#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

// Also what keeps a header's length in the 32 bits an index entry has for it.
constexpr size_t kMaxHeaderBytes = 256 * 1024;
constexpr ULONG kContentsColumns[] = {PR_ENTRYID,   PR_INSTANCE_KEY,  PR_INTERNET_MESSAGE_ID_A,
                                      PR_SUBJECT_W, PR_MESSAGE_FLAGS, PR_CREATION_TIME};
// Every value a row has, in the order RowValues gives them.
constexpr ULONG kRowTags[] = {
    PR_ENTRYID,       PR_INSTANCE_KEY,  PR_INTERNET_MESSAGE_ID_A, PR_SUBJECT_W,    PR_MESSAGE_CLASS_A,
    PR_MESSAGE_FLAGS, PR_CREATION_TIME, PR_MESSAGE_DELIVERY_TIME, PR_MESSAGE_SIZE, PR_OBJECT_TYPE};

bool SameStamp(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// The modification time of a folder, or zero. A time of the current second is not trusted, since a
// change later in the same clock tick would leave it as it is: such a folder is listed again next time.
timespec FolderStamp(const std::string& path) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) return {};
    if (info.st_mtim.tv_sec >= std::time(nullptr) - 1) return {};
    return info.st_mtim;
}

std::string Trim(std::string_view text) {
    const auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
    return std::string(text);
}

bool StartsWithIgnoringCase(std::string_view text, std::string_view prefix) {
    if (text.size() < prefix.size()) return false;
    for (size_t i = 0; i < prefix.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(text[i])) !=
            std::tolower(static_cast<unsigned char>(prefix[i])))
            return false;
    return true;
}

// An open file descriptor, closed when it goes.
class CFileDescriptor {
public:
    explicit CFileDescriptor(int fd) : m_fd(fd) {}
    CFileDescriptor(const CFileDescriptor&) = delete;
    CFileDescriptor& operator=(const CFileDescriptor&) = delete;
    ~CFileDescriptor() {
        if (m_fd >= 0) close(m_fd);
    }
    int get() const { return m_fd; }

private:
    int m_fd;
};

// The header block of a message file (up to the first empty line, at most kMaxHeaderBytes).
std::string ReadHeaderBlock(int fd) {
    std::string headers;
    char buffer[8192];
    while (headers.size() < kMaxHeaderBytes) {
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got <= 0) break;
        const size_t searchFrom = headers.size() >= 3 ? headers.size() - 3 : 0;
        headers.append(buffer, static_cast<size_t>(got));
        const size_t end = headers.find("\n\n", searchFrom);
        const size_t endCrLf = headers.find("\n\r\n", searchFrom);
        const size_t cut = std::min(end, endCrLf);
        if (cut != std::string::npos) {
            headers.resize(cut + 1);
            break;
        }
    }
    if (headers.size() > kMaxHeaderBytes) headers.resize(kMaxHeaderBytes);
    return headers;
}

// The flag letters of a file name whose key is keyLength bytes long.
std::string_view FlagsOf(std::string_view fileName, size_t keyLength) {
    const std::string_view info = fileName.substr(keyLength);  // ":2,FS", or empty
    return info.size() >= 3 ? info.substr(3) : std::string_view();
}

}  // namespace

std::string HeaderValue(std::string_view headers, std::string_view name) {
    size_t pos = 0;
    while (pos < headers.size()) {
        size_t end = headers.find('\n', pos);
        if (end == std::string_view::npos) end = headers.size();
        const std::string_view line = headers.substr(pos, end - pos);
        pos = end + 1;
        if (line.size() <= name.size() || line[name.size()] != ':' || !StartsWithIgnoringCase(line, name))
            continue;
        std::string value(line.substr(name.size() + 1));
        // Folded continuation lines start with white space.
        while (pos < headers.size() && (headers[pos] == ' ' || headers[pos] == '\t')) {
            size_t next = headers.find('\n', pos);
            if (next == std::string_view::npos) next = headers.size();
            if (!value.empty() && value.back() == '\r') value.pop_back();
            value.append(headers.substr(pos, next - pos));
            pos = next + 1;
        }
        return Trim(value);
    }
    return {};
}

std::string DecodeHeaderText(const std::string& raw) {
    const bool plain = raw.find("=?") == std::string::npos &&
                       std::none_of(raw.begin(), raw.end(), [](char c) { return c & 0x80; });
    if (plain) return raw;
    EnsureGMime();
    return SanitizeUtf8(TakeGString(g_mime_utils_header_decode_text(nullptr, raw.c_str())));
}

CIndexSnapshot::CIndexSnapshot(std::vector<CEntry> entries, std::string text, std::string folderPath,
                               std::uint64_t storeId, std::string folderName)
    : m_entries(std::move(entries)),
      m_text(std::move(text)),
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
            entry.size};
}

// The values are made here, per row asked for, rather than kept: a resident index of a large inbox would
// otherwise hold every column of every message.
const CPropValue* CIndexSnapshot::Find(size_t row, ULONG tag, CPropValue& slot) const {
    const CIndexedMessage message = Message(row);
    switch (PROP_ID(tag)) {
        case PROP_ID(PR_ENTRYID):
            slot = {PR_ENTRYID,
                    EncodeEntryId({EntryKind::Message, m_storeId, m_folderName, std::string(message.key)})};
            break;
        case PROP_ID(PR_INSTANCE_KEY):
            slot = {PR_INSTANCE_KEY, std::vector<BYTE>(message.key.begin(), message.key.end())};
            break;
        case PROP_ID(PR_INTERNET_MESSAGE_ID_A):
            slot = {PR_INTERNET_MESSAGE_ID_A, std::string(message.messageId)};
            break;
        case PROP_ID(PR_SUBJECT_W):
            slot = {PR_SUBJECT_W, Utf8ToWide(message.subject)};
            break;
        case PROP_ID(PR_MESSAGE_CLASS_A):
            slot = {PR_MESSAGE_CLASS_A, std::string("IPM.Note")};
            break;
        case PROP_ID(PR_MESSAGE_FLAGS):
            slot = {PR_MESSAGE_FLAGS,
                    message.flags.find('S') != std::string_view::npos ? std::int32_t{MSGFLAG_READ} : 0};
            break;
        case PROP_ID(PR_CREATION_TIME):
            slot = {PR_CREATION_TIME, message.delivered};
            break;
        case PROP_ID(PR_MESSAGE_DELIVERY_TIME):
            slot = {PR_MESSAGE_DELIVERY_TIME, message.delivered};
            break;
        case PROP_ID(PR_MESSAGE_SIZE):
            slot = {PR_MESSAGE_SIZE,
                    static_cast<std::int32_t>(std::min<std::uint64_t>(message.size, 0x7FFFFFFF))};
            break;
        case PROP_ID(PR_OBJECT_TYPE):
            slot = {PR_OBJECT_TYPE, static_cast<std::int32_t>(MAPI_MESSAGE)};
            break;
        default:
            return nullptr;
    }
    return Answers(slot, tag) ? &slot : nullptr;
}

std::vector<ULONG> CIndexSnapshot::DefaultColumns() const {
    return std::vector<ULONG>(std::begin(kContentsColumns), std::end(kContentsColumns));
}

std::optional<std::vector<size_t>> CIndexSnapshot::IndexedEqual(const SPropValue& value) const {
    if (PROP_ID(value.ulPropTag) != PROP_ID(PR_INTERNET_MESSAGE_ID_A)) return std::nullopt;
    std::string wide;
    std::string_view wanted;
    if (PROP_TYPE(value.ulPropTag) == PT_STRING8 && value.Value.lpszA) {
        wanted = value.Value.lpszA;
    } else if (PROP_TYPE(value.ulPropTag) == PT_UNICODE && value.Value.lpszW) {
        wide = WideToUtf8(value.Value.lpszW);
        wanted = wide;
    } else {
        return std::nullopt;
    }
    std::vector<size_t> rows;
    m_byMessageId.Probe(CRowHash::HashOf(wanted), [&](size_t row) {
        if (MessageId(row) == wanted) rows.push_back(row);
        return false;
    });
    std::sort(rows.begin(), rows.end());
    return rows;
}

std::optional<size_t> CIndexSnapshot::FindByKey(std::string_view key) const {
    std::optional<size_t> first;
    m_byKey.Probe(CRowHash::HashOf(key), [&](size_t row) {
        if (Key(row) == key && (!first || row < *first)) first = row;
        return false;
    });
    return first;
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
    std::vector<CPropValue> values;
    values.reserve(std::size(kRowTags));
    for (const ULONG tag : kRowTags) {
        CPropValue slot{};
        if (Find(row, tag, slot)) values.push_back(std::move(slot));
    }
    return values;
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

    // Adds the messages of folderPath/sub; false when a file vanished between the listing and its reading
    // (renamed or deleted by another program), so that its new name may be missing.
    bool AddFolder(const std::string& folderPath, const char* sub, bool inNew) {
        const std::string folder = folderPath + "/" + sub;
        DIR* dir = opendir(folder.c_str());
        if (!dir) return true;
        bool complete = true;
        while (const dirent* entry = readdir(dir)) {
            if (entry->d_name[0] == '.') continue;
            if (!AddFile(folder, entry->d_name, inNew)) complete = false;
        }
        closedir(dir);
        return complete;
    }

    std::shared_ptr<const CIndexSnapshot> Finish(const std::string& folderPath, std::uint64_t storeId,
                                                 const std::string& folderName) {
        m_keys = CRowHash();
        const std::string_view text(m_text);
        std::sort(m_entries.begin(), m_entries.end(),
                  [&](const CIndexSnapshot::CEntry& a, const CIndexSnapshot::CEntry& b) {
                      if (a.delivered != b.delivered) return a.delivered < b.delivered;
                      return text.substr(a.text, a.keyLength) < text.substr(b.text, b.keyLength);
                  });
        m_entries.shrink_to_fit();
        m_text.shrink_to_fit();
        return std::make_shared<const CIndexSnapshot>(std::move(m_entries), std::move(m_text), folderPath,
                                                      storeId, folderName);
    }

private:
    std::string_view KeyOf(size_t row) const {
        return std::string_view(m_text).substr(m_entries[row].text, m_entries[row].keyLength);
    }

    // False when the file is gone.
    bool AddFile(const std::string& folder, std::string_view fileName, bool inNew) {
        const std::string_view key = MaildirKey(fileName);
        const size_t hash = CRowHash::HashOf(key);
        // The same message in new/ and cur/: the first one seen.
        if (m_keys.Probe(hash, [&](size_t row) { return KeyOf(row) == key; })) return true;
        if (const std::optional<size_t> known =
                m_previous ? m_previous->FindFile(fileName, inNew) : std::nullopt) {
            const CIndexedMessage message = m_previous->Message(*known);
            Append(fileName, key.size(), inNew, message.messageId, message.subject, message.delivered.ticks,
                   message.size, hash);
            return true;
        }
        const std::string path = folder + "/" + std::string(fileName);
        // Opened before it is looked at, so that what is read is what was looked at. Not blocking, so that
        // a stray FIFO cannot stop the listing.
        const CFileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
        struct stat info {};
        // A file that cannot be opened (a symbolic link) is still listed when it is a regular file.
        if ((file.get() >= 0 ? fstat(file.get(), &info) : stat(path.c_str(), &info)) != 0)
            return errno != ENOENT;
        if (!S_ISREG(info.st_mode)) return true;
        const std::string headers = file.get() >= 0 ? ReadHeaderBlock(file.get()) : std::string();
        const std::string messageId = HeaderValue(headers, "Message-ID");
        const std::string subject = DecodeHeaderText(HeaderValue(headers, "Subject"));
        Append(fileName, key.size(), inNew, messageId, subject,
               FileTimeFromUnix(info.st_mtim.tv_sec, static_cast<std::uint32_t>(info.st_mtim.tv_nsec)).ticks,
               static_cast<std::uint64_t>(info.st_size), hash);
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
    for (int attempt = 0;; ++attempt) {
        CBuilder builder(m_snapshot.get());
        // Both are listed even when cur/ lost a file, since the last attempt keeps what it found.
        const bool curComplete = builder.AddFolder(m_folderPath, "cur", false);
        const bool complete = builder.AddFolder(m_folderPath, "new", true) && curComplete;
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
