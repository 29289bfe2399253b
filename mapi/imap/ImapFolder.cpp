#include "mapi/imap/ImapFolder.h"

#include <algorithm>
#include <iterator>

#include "mapi/imap/ImapMailboxName.h"
#include "mapi/imap/ImapStore.h"
#include "mapi/provider/ContentsRow.h"
#include "mapi/provider/Folder.h"
#include "mapi/provider/Message.h"
#include "mapi/runtime/Guarded.h"
#include "mapi/runtime/Table.h"
#include "mapitags.h"

namespace velmar::mapi {
namespace {

constexpr ULONG kHierarchyColumns[] = {PR_ENTRYID, PR_DISPLAY_NAME_W, PR_CONTENT_COUNT, PR_SUBFOLDERS};

std::vector<BYTE> ImapFolderId(std::uint64_t storeId, const std::string& mailbox) {
    return EncodeEntryId({EntryKind::Folder, storeId, ImapFolderName(mailbox), {}});
}

std::wstring ImapFolderDisplayName(const std::string& mailbox) {
    return mailbox == kImapInbox ? L"Posteingang" : DecodeMailboxName(mailbox);
}

// A message's place on the server: its UID in its folder; the read flag is the server's \Seen.
class CImapPlace final : public IMessagePlace {
public:
    CImapPlace(std::shared_ptr<CImapSync> sync, std::uint64_t storeId, std::string mailbox,
               std::uint32_t uidValidity, const CImapIndexed& indexed)
        : m_sync(std::move(sync)),
          m_storeId(storeId),
          m_mailbox(std::move(mailbox)),
          m_uidValidity(uidValidity),
          m_uid(indexed.uid),
          m_flags(indexed.flags),
          m_internalDate(indexed.internalDate),
          m_size(indexed.size) {}

    void AddProperties(std::vector<CPropValue>& props, std::int32_t& flags) const override {
        if (m_flags & kImapSeen) flags |= MSGFLAG_READ;
        const std::string key = ImapMessageKey(m_uidValidity, m_uid);
        const std::vector<BYTE> entryId =
            EncodeEntryId({EntryKind::Message, m_storeId, ImapFolderName(m_mailbox), key, {}});
        const CFileTime delivered = FileTimeFromUnix(m_internalDate);
        props.push_back({PR_ENTRYID, entryId});
        props.push_back({PR_RECORD_KEY, entryId});
        props.push_back({PR_SEARCH_KEY, std::vector<BYTE>(key.begin(), key.end())});
        props.push_back({PR_PARENT_ENTRYID, ImapFolderId(m_storeId, m_mailbox)});
        props.push_back({PR_STORE_ENTRYID, EncodeEntryId({EntryKind::Store, m_storeId, {}, {}})});
        props.push_back({PR_CREATION_TIME, delivered});
        props.push_back({PR_MESSAGE_DELIVERY_TIME, delivered});
        props.push_back({PR_LAST_MODIFICATION_TIME, delivered});
        props.push_back(
            {PR_MESSAGE_SIZE, static_cast<std::int32_t>(std::min<std::uint64_t>(m_size, 0x7FFFFFFF))});
    }

    HRESULT SetReadFlag(bool read) override {
        std::string error;
        if (!m_sync->SetSeen(m_mailbox, m_uidValidity, m_uid, read, error)) return MAPI_E_NETWORK_ERROR;
        m_flags = read ? m_flags | kImapSeen : m_flags & ~static_cast<std::uint32_t>(kImapSeen);
        return S_OK;
    }

private:
    std::shared_ptr<CImapSync> m_sync;
    std::uint64_t m_storeId;
    std::string m_mailbox;
    std::uint32_t m_uidValidity;
    std::uint32_t m_uid;
    std::uint32_t m_flags;
    std::int64_t m_internalDate;
    std::uint64_t m_size;
};

// The attachments' bodies an opened message left on the server, fetched through the account's cache.
class CImapLeftOutBodies final : public ILeftOutBodies {
public:
    CImapLeftOutBodies(std::shared_ptr<CImapSync> sync, std::string mailbox, std::uint32_t uidValidity,
                       std::uint32_t uid, std::map<std::string, std::uint64_t> leftOut)
        : m_sync(std::move(sync)),
          m_mailbox(std::move(mailbox)),
          m_uidValidity(uidValidity),
          m_uid(uid),
          m_leftOut(std::move(leftOut)) {}

    std::optional<std::uint64_t> LeftOut(const std::string& section) const override {
        const auto found = m_leftOut.find(section);
        return found != m_leftOut.end() ? std::optional(found->second) : std::nullopt;
    }
    int OpenBody(const std::string& section) override {
        std::string error;
        return m_sync->OpenPart(m_mailbox, m_uidValidity, m_uid, section, error);
    }

private:
    std::shared_ptr<CImapSync> m_sync;
    std::string m_mailbox;
    std::uint32_t m_uidValidity;
    std::uint32_t m_uid;
    std::map<std::string, std::uint64_t> m_leftOut;
};

}  // namespace

HRESULT OpenImapMessage(const CStoreConfig& store, const std::shared_ptr<CImapSync>& sync,
                        const std::string& mailbox, const std::string& key, LPCIID lpInterface,
                        ULONG* lpulObjType, LPUNKNOWN* lppUnk) {
    const auto parsed = ParseImapMessageKey(key);
    if (!parsed) return MAPI_E_INVALID_ENTRYID;
    const std::uint32_t uidValidity = parsed->first;
    const std::uint32_t uid = parsed->second;
    const std::shared_ptr<const CImapSnapshot> snapshot = sync->Snapshot(mailbox);
    // A UIDVALIDITY other than the index's names a message of a folder that is no more.
    if (!snapshot || snapshot->State().uidValidity != uidValidity) return MAPI_E_NOT_FOUND;
    const std::optional<size_t> row = snapshot->RowOfUid(uid);
    if (!row) return MAPI_E_NOT_FOUND;
    // A message the cache holds opens at once. Another is fetched when its content is first asked for, so
    // that a lookup that only finds it (and perhaps marks it read) never waits for its bytes; with the
    // server away it cannot be had, which opening it says at once.
    if (!sync->IsCached(mailbox, uidValidity, uid) && sync->ServerAway()) return MAPI_E_NETWORK_ERROR;
    CImapIndexed indexed = snapshot->Message(*row);
    // Found before the index had its internal date (a message just come): the server is asked for it, so
    // that the message's time is the server's, never the moment the index first saw it.
    if (indexed.size == 0) {
        std::int64_t internalDate = 0;
        if (std::string ignored; sync->InternalDateOf(mailbox, uidValidity, uid, internalDate, ignored))
            indexed.internalDate = internalDate;
    }
    CComPtr<CMimeMessage> message = MakeObject<CMimeMessage>(
        [sync, mailbox, uidValidity, uid, size = indexed.size] {
            std::string error;
            std::map<std::string, std::uint64_t> leftOut;
            CMessageFile file{sync->OpenMessage(mailbox, uidValidity, uid, size, leftOut, error), nullptr};
            if (file.fd >= 0 && !leftOut.empty())
                file.leftOut =
                    std::make_shared<CImapLeftOutBodies>(sync, mailbox, uidValidity, uid, std::move(leftOut));
            return file;
        },
        snapshot->RowValues(*row),
        std::make_unique<CImapPlace>(sync, store.id, mailbox, uidValidity, indexed));
    if (lpulObjType) *lpulObjType = MAPI_MESSAGE;
    return HandOut(std::move(message), lpInterface, lppUnk);
}

std::vector<CPropValue> CImapFolder::Properties() const {
    const std::vector<BYTE> entryId = ImapFolderId(m_store.id, m_mailbox);
    std::vector<CPropValue> props{
        {PR_ENTRYID, entryId},
        {PR_RECORD_KEY, entryId},
        {PR_DISPLAY_NAME_W, ImapFolderDisplayName(m_mailbox)},
        {PR_OBJECT_TYPE, static_cast<std::int32_t>(MAPI_FOLDER)},
        {PR_SUBFOLDERS, m_mailbox == kImapInbox},
        {PR_FOLDER_TYPE, static_cast<std::int32_t>(FOLDER_GENERIC)},
        {PR_CONTAINER_CLASS_W, std::wstring(L"IPF.Note")},
        {PR_PARENT_ENTRYID, ImapFolderId(m_store.id, kImapInbox)},
        {PR_STORE_ENTRYID, EncodeEntryId({EntryKind::Store, m_store.id, {}, {}})},
    };
    if (const std::shared_ptr<const CImapSnapshot> snapshot = m_sync->Snapshot(m_mailbox)) {
        props.push_back({PR_CONTENT_COUNT, static_cast<std::int32_t>(snapshot->RowCount())});
        props.push_back({PR_CONTENT_UNREAD, static_cast<std::int32_t>(snapshot->UnreadCount())});
    }
    return props;
}

HRESULT CImapFolder::GetContentsTable(ULONG ulFlags, LPMAPITABLE* lppTable) {
    if (!lppTable) return MAPI_E_INVALID_PARAMETER;
    *lppTable = nullptr;
    return Guarded([&]() -> HRESULT {
        std::shared_ptr<const ITableRows> rows;
        if (!(ulFlags & MAPI_ASSOCIATED)) rows = m_sync->Snapshot(m_mailbox);
        // No associated contents, and a folder never seen on the server is an empty one.
        if (!rows)
            rows = std::make_shared<CRowList>(ContentsColumns(), std::vector<std::vector<CPropValue>>{});
        *lppTable = MakeTable(std::move(rows)).Detach();
        return S_OK;
    });
}

HRESULT CImapFolder::GetHierarchyTable(ULONG, LPMAPITABLE* lppTable) {
    std::vector<std::vector<CPropValue>> rows;
    // The inbox is the root of the store's folders; the others list none.
    if (m_mailbox == kImapInbox) {
        for (const std::string& name : m_sync->FolderNames()) {
            if (name == kImapInbox) continue;
            rows.push_back({{PR_ENTRYID, ImapFolderId(m_store.id, name)},
                            {PR_DISPLAY_NAME_W, ImapFolderDisplayName(name)},
                            {PR_OBJECT_TYPE, static_cast<std::int32_t>(MAPI_FOLDER)},
                            {PR_SUBFOLDERS, false}});
        }
    }
    return MakeRowListTable(std::vector<ULONG>(std::begin(kHierarchyColumns), std::end(kHierarchyColumns)),
                            std::move(rows), lppTable);
}

HRESULT CImapFolder::OpenEntry(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG,
                               ULONG* lpulObjType, LPUNKNOWN* lppUnk) {
    if (!lppUnk) return MAPI_E_INVALID_PARAMETER;
    *lppUnk = nullptr;
    const std::optional<CEntryId> id =
        lpEntryID
            ? DecodeEntryId(reinterpret_cast<const BYTE*>(lpEntryID), cbEntryID)
            : std::optional<CEntryId>(CEntryId{EntryKind::Folder, m_store.id, ImapFolderName(m_mailbox), {}});
    if (!id) return MAPI_E_INVALID_ENTRYID;
    return OpenImapEntry(m_store, *id, lpInterface, lpulObjType, lppUnk);
}

HRESULT CImapFolder::CopyMessages(LPENTRYLIST lpMsgList, LPCIID, LPVOID lpDestFolder, ULONG_PTR,
                                  LPMAPIPROGRESS, ULONG ulFlags) {
    if (!lpMsgList || !lpDestFolder) return MAPI_E_INVALID_PARAMETER;
    return Guarded([&]() -> HRESULT {
        const std::optional<CEntryId> destination = FolderEntryIdOf(static_cast<IMAPIFolder*>(lpDestFolder));
        if (!destination) return MAPI_E_INVALID_PARAMETER;
        // Another store, or this machine's Outbox: not the server's to do.
        if (destination->storeId != m_store.id || !IsImapFolderName(destination->folder))
            return MAPI_E_DECLINE_COPY;
        const std::string target = destination->folder.substr(1);
        const bool move = ulFlags & MESSAGE_MOVE;
        const std::shared_ptr<const CImapSnapshot> snapshot = m_sync->Snapshot(m_mailbox);
        HRESULT result = S_OK;
        for (ULONG i = 0; i < lpMsgList->cValues; ++i) {
            const SBinary& entry = lpMsgList->lpbin[i];
            const std::optional<CEntryId> id = DecodeEntryId(entry.lpb, entry.cb);
            const auto key = id && id->kind == EntryKind::Message && id->storeId == m_store.id &&
                                     id->folder == ImapFolderName(m_mailbox)
                                 ? ParseImapMessageKey(id->message)
                                 : std::nullopt;
            if (!key || !snapshot || snapshot->State().uidValidity != key->first) {
                result = MAPI_W_PARTIAL_COMPLETION;
                continue;
            }
            if (move && target == m_mailbox) continue;
            std::string error;
            if (!m_sync->Transfer(m_mailbox, key->first, key->second, target, move, error))
                result = MAPI_W_PARTIAL_COMPLETION;
        }
        return result;
    });
}

}  // namespace velmar::mapi
