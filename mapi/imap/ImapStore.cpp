#include "mapi/imap/ImapStore.h"

#include "mapi/imap/ImapFolder.h"
#include "mapi/imap/ImapStoreKind.h"
#include "mapi/imap/ImapSync.h"
#include "mapi/provider/Maildir.h"
#include "mapi/runtime/Guarded.h"

namespace velmar::mapi {
namespace {

class CImapStore final : public CMessageStore {
public:
    CImapStore(CStoreConfig config, std::shared_ptr<CImapSync> sync)
        : CMessageStore(config), m_config(std::move(config)), m_sync(std::move(sync)) {}

protected:
    std::vector<BYTE> StandardFolderId(EStandardFolder folder) const override {
        std::string name;
        switch (folder) {
            case EStandardFolder::Inbox:
                name = ImapFolderName(kImapInbox);
                break;
            case EStandardFolder::Outbox:
                name = kOutboxFolder;
                break;  // this machine's
            case EStandardFolder::Sent:
                name = ImapFolderName(
                    m_sync->FolderOfRole(EImapRole::Sent).value_or(UsualFolderOfRole(EImapRole::Sent)));
                break;
            case EStandardFolder::Trash:
                name = ImapFolderName(
                    m_sync->FolderOfRole(EImapRole::Trash).value_or(UsualFolderOfRole(EImapRole::Trash)));
                break;
        }
        return EncodeEntryId({EntryKind::Folder, m_config.id, name, {}});
    }
    HRESULT OpenDecodedEntry(const CEntryId& id, LPCIID lpInterface, ULONG* lpulObjType,
                             LPUNKNOWN* lppUnk) const override {
        return OpenImapEntry(m_config, id, lpInterface, lpulObjType, lppUnk);
    }
    std::wstring ProviderName() const override { return kImapProviderName; }

private:
    CStoreConfig m_config;
    std::shared_ptr<CImapSync> m_sync;
};

}  // namespace

HRESULT OpenImapStore(const CStoreConfig& config, LPMDB* lppMDB) {
    if (!lppMDB) return MAPI_E_INVALID_PARAMETER;
    *lppMDB = nullptr;
    // The Outbox, where the spooler finds what to send, is this machine's.
    if (!config.imap || !EnsureMaildir(config.path, kOutboxFolder)) return MAPI_E_NOT_FOUND;
    return Guarded([&]() -> HRESULT {
        *lppMDB = MakeObject<CImapStore>(config, CImapSync::ForStore(config)).Detach();
        return S_OK;
    });
}

HRESULT OpenImapEntry(const CStoreConfig& config, const CEntryId& id, LPCIID lpInterface, ULONG* lpulObjType,
                      LPUNKNOWN* lppUnk) {
    if (!lppUnk) return MAPI_E_INVALID_PARAMETER;
    *lppUnk = nullptr;
    if (id.storeId != config.id || !config.imap) return MAPI_E_INVALID_ENTRYID;
    return Guarded([&]() -> HRESULT {
        if (id.kind == EntryKind::Store) {
            if (lpulObjType) *lpulObjType = MAPI_STORE;
            return HandOut(MakeObject<CImapStore>(config, CImapSync::ForStore(config)), lpInterface, lppUnk);
        }
        // The Outbox and its drafts are Maildir entries of the store's own folder.
        if (!IsImapFolderName(id.folder)) return OpenStoreEntry(config, id, lpInterface, lpulObjType, lppUnk);
        const std::string mailbox = id.folder.substr(1);
        if (id.kind == EntryKind::Folder) {
            if (lpulObjType) *lpulObjType = MAPI_FOLDER;
            return HandOut(MakeObject<CImapFolder>(config, CImapSync::ForStore(config), mailbox), lpInterface,
                           lppUnk);
        }
        if (id.kind == EntryKind::Message)
            return OpenImapMessage(config, CImapSync::ForStore(config), mailbox, id.message, lpInterface,
                                   lpulObjType, lppUnk);
        return MAPI_E_INVALID_ENTRYID;
    });
}

}  // namespace velmar::mapi
