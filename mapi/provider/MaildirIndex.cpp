#include "mapi/provider/MaildirIndex.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstring>

#include "mapi/provider/EntryId.h"
#include "mapi/provider/GMimeSupport.h"
#include "mapi/provider/Maildir.h"
#include "mapitags.h"
#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

constexpr size_t kMaxHeaderBytes = 256 * 1024;
constexpr ULONG kContentsColumns[] = {PR_ENTRYID,   PR_INSTANCE_KEY,  PR_INTERNET_MESSAGE_ID_A,
                                      PR_SUBJECT_W, PR_MESSAGE_FLAGS, PR_CREATION_TIME};

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

}  // namespace

std::string ReadHeaderBlock(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return {};
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
    close(fd);
    if (headers.size() > kMaxHeaderBytes) headers.resize(kMaxHeaderBytes);
    return headers;
}

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

CIndexSnapshot::CIndexSnapshot(std::vector<CIndexedMessage> messages, std::string folderPath)
    : m_messages(std::move(messages)), m_folderPath(std::move(folderPath)) {
    m_byMessageId.reserve(m_messages.size());
    m_byKey.reserve(m_messages.size());
    for (size_t i = 0; i < m_messages.size(); ++i) {
        m_byMessageId.emplace(m_messages[i].messageId, i);
        m_byKey.emplace(m_messages[i].key, i);
    }
}

const CPropValue* CIndexSnapshot::Find(size_t row, ULONG tag) const {
    for (const CPropValue& value : m_messages[row].values)
        if (Answers(value, tag)) return &value;
    return nullptr;
}

std::vector<ULONG> CIndexSnapshot::DefaultColumns() const {
    return std::vector<ULONG>(std::begin(kContentsColumns), std::end(kContentsColumns));
}

std::optional<std::vector<size_t>> CIndexSnapshot::IndexedEqual(const SPropValue& value) const {
    if (PROP_ID(value.ulPropTag) != PROP_ID(PR_INTERNET_MESSAGE_ID_A)) return std::nullopt;
    std::string wanted;
    if (PROP_TYPE(value.ulPropTag) == PT_STRING8 && value.Value.lpszA)
        wanted = value.Value.lpszA;
    else if (PROP_TYPE(value.ulPropTag) == PT_UNICODE && value.Value.lpszW)
        wanted = WideToUtf8(value.Value.lpszW);
    else
        return std::nullopt;
    std::vector<size_t> rows;
    const auto [first, last] = m_byMessageId.equal_range(wanted);
    for (auto it = first; it != last; ++it) rows.push_back(it->second);
    std::sort(rows.begin(), rows.end());
    return rows;
}

const CIndexedMessage* CIndexSnapshot::FindByKey(const std::string& key) const {
    const auto found = m_byKey.find(key);
    return found == m_byKey.end() ? nullptr : &m_messages[found->second];
}

std::string CIndexSnapshot::PathOf(const std::string& key) const {
    const CIndexedMessage* message = FindByKey(key);
    if (!message) return {};
    return m_folderPath + (message->inNew ? "/new/" : "/cur/") + message->fileName;
}

CMaildirIndex::CMaildirIndex(std::string folderPath, std::uint64_t storeId, std::string folderName)
    : m_folderPath(std::move(folderPath)), m_storeId(storeId), m_folderName(std::move(folderName)) {}

void CMaildirIndex::FillValues(CIndexedMessage& message) const {
    const std::int32_t flags = message.flags.find('S') != std::string::npos ? MSGFLAG_READ : 0;
    const CEntryId id{EntryKind::Message, m_storeId, m_folderName, message.key};
    message.values = {
        {PR_ENTRYID, EncodeEntryId(id)},
        {PR_INSTANCE_KEY, std::vector<BYTE>(message.key.begin(), message.key.end())},
        {PR_INTERNET_MESSAGE_ID_A, message.messageId},
        {PR_SUBJECT_W, message.subject},
        {PR_MESSAGE_CLASS_A, std::string("IPM.Note")},
        {PR_MESSAGE_FLAGS, flags},
        {PR_CREATION_TIME, message.delivered},
        {PR_MESSAGE_DELIVERY_TIME, message.delivered},
        {PR_MESSAGE_SIZE, static_cast<std::int32_t>(std::min<std::uint64_t>(message.size, 0x7FFFFFFF))},
        {PR_OBJECT_TYPE, static_cast<std::int32_t>(MAPI_MESSAGE)},
    };
}

bool CMaildirIndex::ScanSubfolder(const char* sub, bool inNew,
                                  std::unordered_map<std::string, CIndexedMessage>& current) {
    const std::string folder = m_folderPath + "/" + sub;
    DIR* dir = opendir(folder.c_str());
    if (!dir) return false;
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        const std::string fileName = entry->d_name;
        CMaildirName name = SplitMaildirName(fileName);
        if (current.count(name.key)) continue;  // the same message in new/ and cur/: the first one seen
        const CIndexedMessage* known = m_snapshot ? m_snapshot->FindByKey(name.key) : nullptr;
        CIndexedMessage message;
        if (known) {
            message = *known;
            if (known->fileName == fileName && known->inNew == inNew) {
                current.emplace(name.key, std::move(message));
                continue;
            }
        } else {
            struct stat info {};
            const std::string path = folder + "/" + fileName;
            if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
            const std::string headers = ReadHeaderBlock(path);
            message.messageId = HeaderValue(headers, "Message-ID");
            message.subject = Utf8ToWide(DecodeHeaderText(HeaderValue(headers, "Subject")));
            message.delivered =
                FileTimeFromUnix(info.st_mtim.tv_sec, static_cast<std::uint32_t>(info.st_mtim.tv_nsec));
            message.size = static_cast<std::uint64_t>(info.st_size);
        }
        message.key = name.key;
        message.fileName = fileName;
        message.inNew = inNew;
        message.flags = name.flags;
        FillValues(message);
        current.emplace(name.key, std::move(message));
    }
    closedir(dir);
    return true;
}

std::shared_ptr<const CIndexSnapshot> CMaildirIndex::Refresh() {
    std::lock_guard lock(m_lock);
    const timespec newStamp = FolderStamp(m_folderPath + "/new");
    const timespec curStamp = FolderStamp(m_folderPath + "/cur");
    const bool trusted = newStamp.tv_sec != 0 && curStamp.tv_sec != 0;
    if (m_snapshot && trusted && SameStamp(newStamp, m_newStamp) && SameStamp(curStamp, m_curStamp))
        return m_snapshot;
    std::unordered_map<std::string, CIndexedMessage> current;
    ScanSubfolder("cur", false, current);
    ScanSubfolder("new", true, current);
    std::vector<CIndexedMessage> messages;
    messages.reserve(current.size());
    for (auto& [key, message] : current) messages.push_back(std::move(message));
    std::sort(messages.begin(), messages.end(), [](const CIndexedMessage& a, const CIndexedMessage& b) {
        return a.delivered.ticks != b.delivered.ticks ? a.delivered.ticks < b.delivered.ticks : a.key < b.key;
    });
    m_snapshot = std::make_shared<const CIndexSnapshot>(std::move(messages), m_folderPath);
    m_newStamp = newStamp;
    m_curStamp = curStamp;
    return m_snapshot;
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
