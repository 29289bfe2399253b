#include "mapi/provider/Folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <fstream>
#include <iterator>

#include "mapi/provider/DraftMessage.h"
#include "mapi/provider/EntryId.h"
#include "mapi/provider/Maildir.h"
#include "mapi/provider/MaildirIndex.h"
#include "mapi/provider/MaildirWriter.h"
#include "mapi/provider/Store.h"
#include "mapi/runtime/Guarded.h"
#include "mapi/runtime/ProviderBuffers.h"
#include "mapi/runtime/Table.h"
#include "mapitags.h"
#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

constexpr ULONG kHierarchyColumns[] = {PR_ENTRYID, PR_DISPLAY_NAME_W, PR_CONTENT_COUNT, PR_SUBFOLDERS};

std::vector<CPropValue> FolderRow(const CStoreConfig& store, const std::string& folderName) {
    return {{PR_ENTRYID, EncodeEntryId({EntryKind::Folder, store.id, folderName, {}})},
            {PR_DISPLAY_NAME_W, FolderDisplayName(folderName)},
            {PR_OBJECT_TYPE, static_cast<std::int32_t>(MAPI_FOLDER)},
            {PR_SUBFOLDERS, folderName.empty()}};
}

bool ReadWholeFile(const std::string& path, std::string& bytes) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return false;
    bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    return !file.bad();
}

}  // namespace

std::optional<CEntryId> FolderEntryIdOf(IMAPIFolder* folder) {
    LPSPropValue raw = nullptr;
    if (!folder || FAILED(HrGetOneProp(folder, PR_ENTRYID, &raw))) return std::nullopt;
    const MapiBuffer<SPropValue> value(raw);
    std::optional<CEntryId> id = DecodeEntryId(value->Value.bin.lpb, value->Value.bin.cb);
    if (!id || id->kind != EntryKind::Folder) return std::nullopt;
    return id;
}

HRESULT CMapiFolder::SetReadFlags(LPENTRYLIST lpMsgList, ULONG_PTR, LPMAPIPROGRESS, ULONG ulFlags) {
    if (!lpMsgList) return MAPI_E_NO_SUPPORT;  // all messages of the folder: not offered
    HRESULT result = S_OK;
    for (ULONG i = 0; i < lpMsgList->cValues; ++i) {
        LPUNKNOWN object = nullptr;
        ULONG type = 0;
        const SBinary& entry = lpMsgList->lpbin[i];
        if (FAILED(OpenEntry(entry.cb, reinterpret_cast<LPENTRYID>(entry.lpb), &IID_IMessage, 0, &type,
                             &object))) {
            result = MAPI_W_PARTIAL_COMPLETION;
            continue;
        }
        CComPtr<IMessage> message(static_cast<IMessage*>(object));
        if (FAILED(message->SetReadFlag(ulFlags))) result = MAPI_W_PARTIAL_COMPLETION;
    }
    return result;
}

std::vector<CPropValue> CMaildirFolder::Properties() const {
    std::vector<CPropValue> props = FolderRow(m_store, m_folderName);
    const auto snapshot =
        IndexForFolder(FolderPath(m_store.path, m_folderName), m_store.id, m_folderName)->Refresh();
    props.push_back({PR_CONTENT_COUNT, static_cast<std::int32_t>(snapshot->RowCount())});
    props.push_back({PR_CONTENT_UNREAD, static_cast<std::int32_t>(snapshot->UnreadCount())});
    props.push_back({PR_FOLDER_TYPE, static_cast<std::int32_t>(FOLDER_GENERIC)});
    props.push_back({PR_CONTAINER_CLASS_W, std::wstring(L"IPF.Note")});
    props.push_back({PR_RECORD_KEY, EncodeEntryId({EntryKind::Folder, m_store.id, m_folderName, {}})});
    props.push_back(
        {PR_PARENT_ENTRYID, EncodeEntryId({EntryKind::Folder, m_store.id, std::string(kInboxFolder), {}})});
    props.push_back({PR_STORE_ENTRYID, EncodeEntryId({EntryKind::Store, m_store.id, {}, {}})});
    return props;
}

HRESULT CMaildirFolder::GetContentsTable(ULONG ulFlags, LPMAPITABLE* lppTable) {
    if (!lppTable) return MAPI_E_INVALID_PARAMETER;
    *lppTable = nullptr;
    return Guarded([&]() -> HRESULT {
        std::shared_ptr<const ITableRows> rows;
        if (ulFlags & MAPI_ASSOCIATED)
            rows = std::make_shared<CRowList>(std::vector<ULONG>{PR_ENTRYID},
                                              std::vector<std::vector<CPropValue>>{});
        else
            rows =
                IndexForFolder(FolderPath(m_store.path, m_folderName), m_store.id, m_folderName)->Refresh();
        *lppTable = MakeTable(std::move(rows)).Detach();
        return S_OK;
    });
}

HRESULT CMaildirFolder::GetHierarchyTable(ULONG, LPMAPITABLE* lppTable) {
    std::vector<std::vector<CPropValue>> rows;
    // Only the inbox, the root of a Maildir++ tree, has subfolders. A folder or a cur/ that is a symbolic
    // link is none: links are not followed below a store.
    if (m_folderName.empty()) {
        if (DIR* dir = opendir(m_store.path.c_str())) {
            const auto isFolder = [&](const std::string& path) {
                struct stat info {};
                return fstatat(dirfd(dir), path.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
                       S_ISDIR(info.st_mode);
            };
            while (const dirent* entry = readdir(dir)) {
                const std::string name = entry->d_name;
                if (!IsValidFolderName(name) || name.empty() || !isFolder(name) || !isFolder(name + "/cur"))
                    continue;
                rows.push_back(FolderRow(m_store, name));
            }
            closedir(dir);
        }
    }
    return MakeRowListTable(std::vector<ULONG>(std::begin(kHierarchyColumns), std::end(kHierarchyColumns)),
                            std::move(rows), lppTable);
}

HRESULT CMaildirFolder::OpenEntry(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG,
                                  ULONG* lpulObjType, LPUNKNOWN* lppUnk) {
    if (!lppUnk) return MAPI_E_INVALID_PARAMETER;
    *lppUnk = nullptr;
    if (!lpEntryID)
        return OpenStoreEntry(m_store, {EntryKind::Folder, m_store.id, m_folderName, {}}, lpInterface,
                              lpulObjType, lppUnk);
    const std::optional<CEntryId> id = DecodeEntryId(reinterpret_cast<const BYTE*>(lpEntryID), cbEntryID);
    if (!id) return MAPI_E_INVALID_ENTRYID;
    return OpenStoreEntry(m_store, *id, lpInterface, lpulObjType, lppUnk);
}

HRESULT CMaildirFolder::CreateMessage(LPCIID lpInterface, ULONG, LPMESSAGE* lppMessage) {
    if (!lppMessage) return MAPI_E_INVALID_PARAMETER;
    *lppMessage = nullptr;
    return Guarded([&]() -> HRESULT {
        LPUNKNOWN message = nullptr;
        const HRESULT hr = HandOut(MakeObject<CDraftMessage>(m_store, m_folderName), lpInterface, &message);
        *lppMessage = static_cast<LPMESSAGE>(message);
        return hr;
    });
}

HRESULT CMaildirFolder::CopyMessages(LPENTRYLIST lpMsgList, LPCIID, LPVOID lpDestFolder, ULONG_PTR,
                                     LPMAPIPROGRESS, ULONG ulFlags) {
    if (!lpMsgList || !lpDestFolder) return MAPI_E_INVALID_PARAMETER;
    return Guarded([&]() -> HRESULT {
        const std::optional<CEntryId> destination = FolderEntryIdOf(static_cast<IMAPIFolder*>(lpDestFolder));
        if (!destination) return MAPI_E_INVALID_PARAMETER;
        // Another store: not this provider's to do.
        if (destination->storeId != m_store.id) return MAPI_E_DECLINE_COPY;
        if (!EnsureMaildir(m_store.path, destination->folder)) return MAPI_E_CALL_FAILED;
        const std::string destinationPath = FolderPath(m_store.path, destination->folder);
        const bool move = ulFlags & MESSAGE_MOVE;
        const auto snapshot =
            IndexForFolder(FolderPath(m_store.path, m_folderName), m_store.id, m_folderName)->Refresh();
        HRESULT result = S_OK;
        for (ULONG i = 0; i < lpMsgList->cValues; ++i) {
            const SBinary& entry = lpMsgList->lpbin[i];
            const std::optional<CEntryId> id = DecodeEntryId(entry.lpb, entry.cb);
            const std::optional<size_t> row = id && id->kind == EntryKind::Message &&
                                                      id->storeId == m_store.id && id->folder == m_folderName
                                                  ? snapshot->FindMessage(id->message, id->file)
                                                  : std::nullopt;
            if (!row) {
                result = MAPI_W_PARTIAL_COMPLETION;
                continue;
            }
            if (move && destination->folder == m_folderName) continue;
            const CIndexedMessage message = snapshot->Message(*row);
            const std::string source = snapshot->PathOf(*row);
            int error = 0;
            if (move) {
                // The same name in the other folder: key and flags go with the message.
                error = MoveDurably(source, destinationPath + (message.inNew ? "/new/" : "/cur/") +
                                                std::string(message.fileName));
            } else {
                std::string bytes;
                error = ReadWholeFile(source, bytes)
                            ? WriteMaildirMessage(destinationPath, bytes, false, message.flags).error
                            : EIO;
            }
            if (error) result = MAPI_W_PARTIAL_COMPLETION;
        }
        return result;
    });
}

}  // namespace velmar::mapi
