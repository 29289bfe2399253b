// A folder on the IMAP server: its contents table is the folder's index (never waiting for the server);
// its messages are fetched when opened (through the account's cache); the read flag is stored on the
// server; a move within the store (the form's delete, to the deleted-items folder) is the server's MOVE.
#pragma once

#include <memory>

#include "mapi/imap/ImapSync.h"
#include "mapi/provider/Folder.h"

namespace velmar::mapi {

class CImapFolder : public CMapiFolder {
public:
    // mailbox: the server's name of the folder.
    CImapFolder(CStoreConfig store, std::shared_ptr<CImapSync> sync, std::string mailbox)
        : m_store(std::move(store)), m_sync(std::move(sync)), m_mailbox(std::move(mailbox)) {}

    HRESULT GetContentsTable(ULONG ulFlags, LPMAPITABLE* lppTable) override;
    HRESULT GetHierarchyTable(ULONG ulFlags, LPMAPITABLE* lppTable) override;
    HRESULT OpenEntry(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG ulFlags,
                      ULONG* lpulObjType, LPUNKNOWN* lppUnk) override;
    // New messages are made in the Outbox, which is this machine's.
    HRESULT CreateMessage(LPCIID, ULONG, LPMESSAGE* lppMessage) override {
        if (lppMessage) *lppMessage = nullptr;
        return MAPI_E_NO_SUPPORT;
    }
    // Only moves and copies within the store; a folder of another store is declined (MAPI_E_DECLINE_COPY),
    // messages that could not be moved give MAPI_W_PARTIAL_COMPLETION.
    HRESULT CopyMessages(LPENTRYLIST lpMsgList, LPCIID lpInterface, LPVOID lpDestFolder, ULONG_PTR ulUIParam,
                         LPMAPIPROGRESS lpProgress, ULONG ulFlags) override;

protected:
    std::vector<CPropValue> Properties() const override;

private:
    CStoreConfig m_store;
    std::shared_ptr<CImapSync> m_sync;
    std::string m_mailbox;
};

// Opens the message with this key ("<UIDVALIDITY>:<UID>") of the folder; MAPI_E_NOT_FOUND for a message
// the index does not know (or knows under another UIDVALIDITY), MAPI_E_NETWORK_ERROR when its bytes are
// neither cached nor to be had from the server.
HRESULT OpenImapMessage(const CStoreConfig& store, const std::shared_ptr<CImapSync>& sync,
                        const std::string& mailbox, const std::string& key, LPCIID lpInterface,
                        ULONG* lpulObjType, LPUNKNOWN* lppUnk);

}  // namespace velmar::mapi
