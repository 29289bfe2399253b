#include "mapi/imap/ImapIndex.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <ctime>

#include "mapi/mime/HeaderBlock.h"
#include "mapi/provider/ContentsRow.h"
#include "mapi/provider/EntryId.h"
#include "mapi/provider/MaildirWriter.h"
#include "support/FileDescriptor.h"

namespace velmar::mapi {
namespace {

// The saved index: this magic, the folder state, the entry count and the text size, then the entries and
// the text, all little-endian as this machine writes them (the cache is this machine's own).
constexpr char kMagic[8] = {'V', 'I', 'M', 'A', 'P', 'I', 'X', '1'};

struct CSavedHeader {
    char magic[8];
    std::uint32_t uidValidity;
    std::uint32_t uidNext;
    std::uint64_t highestModSeq;
    std::uint64_t count;
    std::uint64_t textSize;
};

bool ReadAll(int fd, void* into, size_t size) {
    auto* bytes = static_cast<char*>(into);
    while (size > 0) {
        const ssize_t got = read(fd, bytes, size);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        bytes += got;
        size -= static_cast<size_t>(got);
    }
    return true;
}

}  // namespace

std::string ImapFolderName(const std::string& mailbox) {
    // Deliberate: appended, not "/" + mailbox, which GCC 12 at -O3 takes for an overlapping copy.
    std::string name(1, '/');
    name += mailbox;
    return name;
}

bool IsImapFolderName(const std::string& folder) {
    return folder.size() > 1 && folder.front() == '/';
}

std::string ImapMessageKey(std::uint32_t uidValidity, std::uint32_t uid) {
    return std::to_string(uidValidity) + ":" + std::to_string(uid);
}

std::optional<std::pair<std::uint32_t, std::uint32_t>> ParseImapMessageKey(std::string_view key) {
    const size_t colon = key.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    std::uint32_t validity = 0, uid = 0;
    const char* end = key.data() + key.size();
    const auto first = std::from_chars(key.data(), key.data() + colon, validity);
    const auto second = std::from_chars(key.data() + colon + 1, end, uid);
    if (first.ec != std::errc() || first.ptr != key.data() + colon || second.ec != std::errc() ||
        second.ptr != end || uid == 0)
        return std::nullopt;
    return std::make_pair(validity, uid);
}

CImapSnapshot::CImapSnapshot(CImapFolderState state, std::vector<CEntry> entries, std::string text,
                             std::uint64_t storeId, std::string folderName)
    : m_state(state),
      m_entries(std::move(entries)),
      m_text(std::move(text)),
      m_byMessageId(m_entries.size()),
      m_storeId(storeId),
      m_folderName(std::move(folderName)) {
    for (size_t row = 0; row < m_entries.size(); ++row)
        m_byMessageId.Insert(CRowHash::HashOf(MessageId(row)), static_cast<std::uint32_t>(row));
}

CImapIndexed CImapSnapshot::Message(size_t row) const {
    const CEntry& entry = m_entries[row];
    const std::string_view text(m_text);
    return {entry.uid,
            entry.flags,
            entry.internalDate,
            entry.size,
            text.substr(entry.text, entry.messageIdLength),
            text.substr(entry.text + entry.messageIdLength, entry.subjectLength)};
}

std::optional<size_t> CImapSnapshot::RowOfUid(std::uint32_t uid) const {
    const auto found =
        std::lower_bound(m_entries.begin(), m_entries.end(), uid,
                         [](const CEntry& entry, std::uint32_t wanted) { return entry.uid < wanted; });
    if (found == m_entries.end() || found->uid != uid) return std::nullopt;
    return static_cast<size_t>(found - m_entries.begin());
}

const CPropValue* CImapSnapshot::Find(size_t row, ULONG tag, CPropValue& slot) const {
    const CImapIndexed message = Message(row);
    const std::string key = ImapMessageKey(m_state.uidValidity, message.uid);
    CContentsFacts facts;
    facts.storeId = m_storeId;
    facts.folder = m_folderName;
    facts.key = key;
    facts.messageId = message.messageId;
    facts.subject = message.subject;
    facts.read = (message.flags & kImapSeen) != 0;
    facts.delivered = FileTimeFromUnix(message.internalDate);
    facts.size = message.size;
    return ContentsValue(facts, tag, slot);
}

std::vector<ULONG> CImapSnapshot::DefaultColumns() const {
    return ContentsColumns();
}

std::optional<std::vector<size_t>> CImapSnapshot::IndexedEqual(const SPropValue& value) const {
    return RowsWithMessageId(value, m_byMessageId, [this](size_t row) { return MessageId(row); });
}

std::vector<CPropValue> CImapSnapshot::RowValues(size_t row) const {
    return ContentsRowValues(*this, row);
}

size_t CImapSnapshot::UnreadCount() const {
    return static_cast<size_t>(std::count_if(m_entries.begin(), m_entries.end(),
                                             [](const CEntry& entry) { return !(entry.flags & kImapSeen); }));
}

bool CImapSnapshot::Save(const std::string& path) const {
    CSavedHeader header{};
    std::memcpy(header.magic, kMagic, sizeof kMagic);
    header.uidValidity = m_state.uidValidity;
    header.uidNext = m_state.uidNext;
    header.highestModSeq = m_state.highestModSeq;
    header.count = m_entries.size();
    header.textSize = m_text.size();
    std::string bytes(reinterpret_cast<const char*>(&header), sizeof header);
    bytes.append(reinterpret_cast<const char*>(m_entries.data()), m_entries.size() * sizeof(CEntry));
    bytes.append(m_text);
    // A cache: a file a crash cut short is refused by Load, and the index is read from the server again.
    return ReplaceFile(path, bytes, false) == 0;
}

std::shared_ptr<const CImapSnapshot> CImapSnapshot::Load(const std::string& path, std::uint64_t storeId,
                                                         const std::string& folderName) {
    const CFileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    CSavedHeader header{};
    if (file.get() < 0 || !ReadAll(file.get(), &header, sizeof header) ||
        std::memcmp(header.magic, kMagic, sizeof kMagic) != 0)
        return nullptr;
    // A damaged file is no index: sizes are checked before anything is taken in.
    constexpr std::uint64_t kMostEntries = 100'000'000;
    if (header.count > kMostEntries || header.textSize > kMostEntries * 2 * kMaxHeaderValueBytes)
        return nullptr;
    std::vector<CEntry> entries(static_cast<size_t>(header.count));
    std::string text(static_cast<size_t>(header.textSize), '\0');
    if (!ReadAll(file.get(), entries.data(), entries.size() * sizeof(CEntry)) ||
        !ReadAll(file.get(), text.data(), text.size()))
        return nullptr;
    for (size_t i = 0; i < entries.size(); ++i) {
        const CEntry& entry = entries[i];
        if ((i > 0 && entries[i - 1].uid >= entry.uid) ||
            entry.text + entry.messageIdLength + entry.subjectLength > text.size())
            return nullptr;
    }
    return std::make_shared<const CImapSnapshot>(
        CImapFolderState{header.uidValidity, header.uidNext, header.highestModSeq}, std::move(entries),
        std::move(text), storeId, folderName);
}

CImapSnapshotBuilder::CImapSnapshotBuilder(const CImapSnapshot* from, std::uint64_t storeId,
                                           std::string folderName)
    : m_storeId(storeId), m_folderName(std::move(folderName)) {
    if (!from) return;
    m_entries = from->m_entries;
    m_text = from->m_text;
    m_state = from->m_state;
}

void CImapSnapshotBuilder::Reset() {
    m_changed = m_changed || !m_entries.empty();
    m_entries.clear();
    m_text.clear();
    m_state = {};
}

void CImapSnapshotBuilder::Add(CImapHeaderRow&& row) {
    CImapSnapshot::CEntry entry;
    entry.uid = row.uid;
    entry.flags = row.flags;
    // Until its details come (SetDetails), a message counts as delivered when the index first saw it.
    entry.internalDate = static_cast<std::int64_t>(time(nullptr));
    entry.text = m_text.size();
    const std::string messageId = row.messageId.substr(0, kMaxHeaderValueBytes);
    const std::string subject = DecodeHeaderText(row.subjectField).substr(0, kMaxHeaderValueBytes);
    entry.messageIdLength = static_cast<std::uint32_t>(messageId.size());
    entry.subjectLength = static_cast<std::uint32_t>(subject.size());
    m_text += messageId;
    m_text += subject;
    // The text of a replaced entry stays behind unused until the index is built anew from the server.
    const auto at = FirstAtOrAbove(entry.uid);
    if (at != m_entries.end() && at->uid == entry.uid) {
        // A UID names one message for good: the internal date and size it had stay (size 0: never came).
        if (at->size != 0) {
            entry.internalDate = at->internalDate;
            entry.size = at->size;
        }
        *at = entry;
    } else {
        m_entries.insert(at, entry);
    }
    m_changed = true;
}

std::vector<CImapSnapshot::CEntry>::iterator CImapSnapshotBuilder::FirstAtOrAbove(std::uint32_t uid) {
    return std::lower_bound(
        m_entries.begin(), m_entries.end(), uid,
        [](const CImapSnapshot::CEntry& existing, std::uint32_t wanted) { return existing.uid < wanted; });
}

CImapSnapshot::CEntry* CImapSnapshotBuilder::EntryOf(std::uint32_t uid) {
    const auto found = FirstAtOrAbove(uid);
    return found != m_entries.end() && found->uid == uid ? &*found : nullptr;
}

void CImapSnapshotBuilder::SetFlags(std::uint32_t uid, std::uint32_t flags) {
    CImapSnapshot::CEntry* entry = EntryOf(uid);
    if (!entry || entry->flags == flags) return;
    entry->flags = flags;
    m_changed = true;
}

void CImapSnapshotBuilder::SetDetails(const CImapDetailsRow& row) {
    CImapSnapshot::CEntry* entry = EntryOf(row.uid);
    if (!entry) return;
    if (row.internalDate != 0) entry->internalDate = row.internalDate;
    entry->size = row.size;
    m_changed = true;
}

void CImapSnapshotBuilder::KeepOnly(const std::vector<std::uint32_t>& uids) {
    const size_t before = m_entries.size();
    std::erase_if(m_entries, [&uids](const CImapSnapshot::CEntry& entry) {
        return !std::binary_search(uids.begin(), uids.end(), entry.uid);
    });
    m_changed = m_changed || m_entries.size() != before;
}

std::shared_ptr<const CImapSnapshot> CImapSnapshotBuilder::Build() {
    // Text left behind by replaced and dropped messages goes once it is the larger part.
    size_t used = 0;
    for (const CImapSnapshot::CEntry& entry : m_entries) used += entry.messageIdLength + entry.subjectLength;
    if (used * 2 < m_text.size()) {
        std::string compact;
        compact.reserve(used);
        for (CImapSnapshot::CEntry& entry : m_entries) {
            const size_t at = compact.size();
            compact.append(m_text, entry.text, entry.messageIdLength + entry.subjectLength);
            entry.text = at;
        }
        m_text.swap(compact);
    }
    return std::make_shared<const CImapSnapshot>(m_state, std::move(m_entries), std::move(m_text), m_storeId,
                                                 m_folderName);
}

}  // namespace velmar::mapi
