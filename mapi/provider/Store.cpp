#include "mapi/provider/Store.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "mapi/provider/Folder.h"
#include "mapi/provider/Maildir.h"
#include "mapi/provider/MaildirIndex.h"
#include "mapi/provider/MaildirPlace.h"
#include "mapi/provider/MaildirStoreKind.h"
#include "mapi/provider/Message.h"
#include "mapi/runtime/Guarded.h"
#include "mapitags.h"
#include "support/FileDescriptor.h"
#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

// PR_STORE_SUPPORT_MASK bits.
constexpr std::int32_t kStoreEntryIdUnique = 0x00000001;
constexpr std::int32_t kStoreAttachOk = 0x00000020;
constexpr std::int32_t kStoreRestrictionOk = 0x00000080;
constexpr std::int32_t kStoreSortOk = 0x00000100;
constexpr std::int32_t kStoreHtmlOk = 0x00010000;
constexpr std::int32_t kStoreUnicodeOk = 0x00040000;

std::vector<BYTE> FolderId(const CStoreConfig& config, const char* folder) {
    return EncodeEntryId({EntryKind::Folder, config.id, folder, {}});
}

// Hands an object out as OpenEntry does, with its object type.
template <class T>
HRESULT HandOutEntry(CComPtr<T> object, LPCIID requested, ULONG type, ULONG* lpulObjType, LPUNKNOWN* out) {
    if (lpulObjType) *lpulObjType = type;
    return HandOut(std::move(object), requested, out);
}

// The inode number of an open message file, or of the file at path when it could not be opened; 0 when
// neither can be looked at.
std::uint64_t InodeOf(int fd, const std::string& path) {
    struct stat info {};
    if ((fd >= 0 ? fstat(fd, &info) : lstat(path.c_str(), &info)) != 0) return 0;
    return static_cast<std::uint64_t>(info.st_ino);
}

HRESULT OpenMessage(const CStoreConfig& config, const CEntryId& id, LPCIID lpInterface, ULONG* lpulObjType,
                    LPUNKNOWN* lppUnk) {
    const std::string folderPath = FolderPath(config.path, id.folder);
    const std::shared_ptr<CMaildirIndex> index = IndexForFolder(folderPath, config.id, id.folder);
    // The entry id came from a table of this index, so the last listing normally knows it: the folder is
    // listed again only for a message it lacks, or when the file was renamed after the listing.
    std::shared_ptr<const CIndexSnapshot> snapshot = index->Last();
    if (!snapshot || !snapshot->FindMessage(id.message, id.file)) snapshot = index->Refresh();
    std::optional<size_t> row;
    std::vector<CPropValue> fallback;
    CFileDescriptor fd;
    std::uint64_t inode = 0;
    for (int attempt = 0;; ++attempt) {
        row = snapshot->FindMessage(id.message, id.file);
        if (!row) return MAPI_E_NOT_FOUND;
        fallback = snapshot->RowValues(*row);
        const std::string path = snapshot->PathOf(*row);
        fd = CFileDescriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
        const int openError = fd.get() >= 0 ? 0 : errno;
        inode = InodeOf(fd.get(), path);
        if (id.file && inode != 0 && inode != *id.file) {
            // The file found is another than the one the entry id names: that one is gone, unless the
            // listing is out of date.
            fd.Reset();
            if (attempt > 0) return MAPI_E_NOT_FOUND;
        } else if (fd.get() >= 0 || openError != ENOENT || attempt == kRenameRetries) {
            break;
        }
        snapshot = index->Rescan();
    }
    const CIndexedMessage indexed = snapshot->Message(*row);
    CMessageLocation location{config.id,
                              id.folder,
                              folderPath,
                              std::string(indexed.key),
                              std::string(indexed.fileName),
                              indexed.inNew,
                              std::string(indexed.flags),
                              indexed.delivered,
                              indexed.size,
                              indexed.file,
                              inode};
    return HandOutEntry(
        MakeObject<CMimeMessage>(fd.Detach(), std::move(fallback), MakeMaildirPlace(std::move(location))),
        lpInterface, MAPI_MESSAGE, lpulObjType, lppUnk);
}

}  // namespace

HRESULT OpenStoreEntry(const CStoreConfig& config, const CEntryId& id, LPCIID lpInterface, ULONG* lpulObjType,
                       LPUNKNOWN* lppUnk) {
    if (!lppUnk) return MAPI_E_INVALID_PARAMETER;
    *lppUnk = nullptr;
    if (id.storeId != config.id) return MAPI_E_INVALID_ENTRYID;
    return Guarded([&]() -> HRESULT {
        switch (id.kind) {
            case EntryKind::Store:
                return HandOutEntry(MakeObject<CMessageStore>(config), lpInterface, MAPI_STORE, lpulObjType,
                                    lppUnk);
            case EntryKind::Folder: {
                if (!IsValidFolderName(id.folder)) return MAPI_E_INVALID_ENTRYID;
                if (!EnsureMaildir(config.path, id.folder)) return MAPI_E_NOT_FOUND;
                return HandOutEntry(MakeObject<CMaildirFolder>(config, id.folder), lpInterface, MAPI_FOLDER,
                                    lpulObjType, lppUnk);
            }
            case EntryKind::Message:
                if (!IsValidFolderName(id.folder)) return MAPI_E_INVALID_ENTRYID;
                return OpenMessage(config, id, lpInterface, lpulObjType, lppUnk);
            case EntryKind::Spooler:
                break;  // the session's, not a store's
        }
        return MAPI_E_INVALID_ENTRYID;
    });
}

std::wstring CMessageStore::ProviderName() const {
    return kMaildirProviderName;
}

HRESULT OpenMaildirStore(const CStoreConfig& config, LPMDB* lppMDB) {
    if (!lppMDB) return MAPI_E_INVALID_PARAMETER;
    *lppMDB = nullptr;
    for (const char* folder : {kInboxFolder, kSentFolder, kOutboxFolder, kTrashFolder})
        if (!EnsureMaildir(config.path, folder)) return MAPI_E_NOT_FOUND;
    return Guarded([&]() -> HRESULT {
        *lppMDB = MakeObject<CMessageStore>(config).Detach();
        return S_OK;
    });
}

HRESULT CompareEntryIds(ULONG cb1, LPENTRYID id1, ULONG cb2, LPENTRYID id2, ULONG* lpulResult) {
    if (!lpulResult) return MAPI_E_INVALID_PARAMETER;
    const auto first = DecodeEntryId(reinterpret_cast<const BYTE*>(id1), cb1);
    const auto second = DecodeEntryId(reinterpret_cast<const BYTE*>(id2), cb2);
    if (!first || !second) return MAPI_E_UNKNOWN_ENTRYID;
    *lpulResult = first->kind == second->kind && first->storeId == second->storeId &&
                  first->folder == second->folder && first->message == second->message &&
                  first->file == second->file;
    return S_OK;
}

void AddOwner(const CStoreConfig& config, std::vector<CPropValue>& props) {
    if (!config.ownerAddress.empty()) props.push_back({PR_EMAIL_ADDRESS_W, config.ownerAddress});
    if (std::wstring name = OwnerName(config); !name.empty())
        props.push_back({PR_MAILBOX_OWNER_NAME_W, std::move(name)});
}

std::vector<CPropValue> CMessageStore::Properties() const {
    const std::vector<BYTE> entryId = EncodeEntryId({EntryKind::Store, m_config.id, {}, {}});
    std::vector<CPropValue> props{
        {PR_DISPLAY_NAME_W, m_config.displayName},
        {PR_ENTRYID, entryId},
        {PR_RECORD_KEY, entryId},
        {PR_STORE_RECORD_KEY, entryId},
        {PR_STORE_ENTRYID, entryId},
        {PR_OBJECT_TYPE, static_cast<std::int32_t>(MAPI_STORE)},
        {PR_DEFAULT_STORE, m_config.isDefault},
        {PR_PROVIDER_DISPLAY_W, ProviderName()},
        {PR_STORE_SUPPORT_MASK, kStoreEntryIdUnique | kStoreAttachOk | kStoreRestrictionOk | kStoreSortOk |
                                    kStoreHtmlOk | kStoreUnicodeOk},
        {PR_IPM_SUBTREE_ENTRYID, StandardFolderId(EStandardFolder::Inbox)},
        {PR_IPM_OUTBOX_ENTRYID, StandardFolderId(EStandardFolder::Outbox)},
        {PR_IPM_SENTMAIL_ENTRYID, StandardFolderId(EStandardFolder::Sent)},
        {PR_IPM_WASTEBASKET_ENTRYID, StandardFolderId(EStandardFolder::Trash)},
        {PR_MAILBOX_OWNER_ENTRYID, MakeOneOffEntryId(m_config.ownerAddress, L"SMTP", m_config.ownerAddress)},
    };
    AddOwner(m_config, props);
    return props;
}

HRESULT CMessageStore::CompareEntryIDs(ULONG cbEntryID1, LPENTRYID lpEntryID1, ULONG cbEntryID2,
                                       LPENTRYID lpEntryID2, ULONG, ULONG* lpulResult) {
    return CompareEntryIds(cbEntryID1, lpEntryID1, cbEntryID2, lpEntryID2, lpulResult);
}

HRESULT CMessageStore::OpenEntry(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG,
                                 ULONG* lpulObjType, LPUNKNOWN* lppUnk) {
    if (!lppUnk) return MAPI_E_INVALID_PARAMETER;
    *lppUnk = nullptr;
    // No entry id opens the root folder, which is the inbox.
    const std::vector<BYTE> inbox = StandardFolderId(EStandardFolder::Inbox);
    const std::optional<CEntryId> id =
        !lpEntryID || cbEntryID == 0 ? DecodeEntryId(inbox.data(), inbox.size())
                                     : DecodeEntryId(reinterpret_cast<const BYTE*>(lpEntryID), cbEntryID);
    if (!id) return MAPI_E_INVALID_ENTRYID;
    return OpenDecodedEntry(*id, lpInterface, lpulObjType, lppUnk);
}

std::vector<BYTE> CMessageStore::StandardFolderId(EStandardFolder folder) const {
    switch (folder) {
        case EStandardFolder::Inbox:
            return FolderId(m_config, kInboxFolder);
        case EStandardFolder::Outbox:
            return FolderId(m_config, kOutboxFolder);
        case EStandardFolder::Sent:
            return FolderId(m_config, kSentFolder);
        case EStandardFolder::Trash:
            return FolderId(m_config, kTrashFolder);
    }
    return {};
}

HRESULT CMessageStore::OpenDecodedEntry(const CEntryId& id, LPCIID lpInterface, ULONG* lpulObjType,
                                        LPUNKNOWN* lppUnk) const {
    return OpenStoreEntry(m_config, id, lpInterface, lpulObjType, lppUnk);
}

HRESULT CMessageStore::GetReceiveFolder(LPTSTR, ULONG, ULONG* lpcbEntryID, LPENTRYID* lppEntryID,
                                        LPTSTR* lppszExplicitClass) {
    if (!lpcbEntryID || !lppEntryID) return MAPI_E_INVALID_PARAMETER;
    *lpcbEntryID = 0;
    *lppEntryID = nullptr;
    if (lppszExplicitClass) *lppszExplicitClass = nullptr;
    // Every message class is received in the inbox.
    const std::vector<BYTE> inbox = StandardFolderId(EStandardFolder::Inbox);
    LPVOID block = nullptr;
    if (const SCODE sc = MAPIAllocateBuffer(static_cast<ULONG>(inbox.size()), &block); FAILED(sc)) return sc;
    std::memcpy(block, inbox.data(), inbox.size());
    if (lppszExplicitClass) {
        // The class that matched: the empty default class, in the width the caller asked for.
        LPVOID text = nullptr;
        if (const SCODE sc = MAPIAllocateMore(sizeof(WCHAR), block, &text); FAILED(sc)) {
            MAPIFreeBuffer(block);
            return sc;
        }
        std::memset(text, 0, sizeof(WCHAR));
        *lppszExplicitClass = static_cast<LPTSTR>(text);
    }
    *lpcbEntryID = static_cast<ULONG>(inbox.size());
    *lppEntryID = static_cast<LPENTRYID>(block);
    return S_OK;
}

}  // namespace velmar::mapi
