// A message store over a Maildir++ tree, its folders, and the opening of entries by entry id. The store
// object serves other kinds of store too (one on an IMAP server, whose Outbox is a Maildir folder of this
// machine), which give their own standard folders and open their own entries.
#pragma once

#include "mapi/provider/EntryId.h"
#include "mapi/provider/MapiProp.h"
#include "mapi/provider/Profiles.h"

namespace velmar::mapi {

// The folders every store has.
enum class EStandardFolder { Inbox, Outbox, Sent, Trash };

class CMessageStore : public CMapiProp<IMsgStore> {
public:
    explicit CMessageStore(CStoreConfig config) : m_config(std::move(config)) {}

    HRESULT Advise(ULONG, LPENTRYID, ULONG, LPMAPIADVISESINK, ULONG*) override { return MAPI_E_NO_SUPPORT; }
    HRESULT Unadvise(ULONG) override { return MAPI_E_NO_SUPPORT; }
    HRESULT CompareEntryIDs(ULONG cbEntryID1, LPENTRYID lpEntryID1, ULONG cbEntryID2, LPENTRYID lpEntryID2,
                            ULONG ulFlags, ULONG* lpulResult) override;
    HRESULT OpenEntry(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG ulFlags,
                      ULONG* lpulObjType, LPUNKNOWN* lppUnk) override;
    HRESULT SetReceiveFolder(LPTSTR, ULONG, ULONG, LPENTRYID) override { return MAPI_E_NO_SUPPORT; }
    HRESULT GetReceiveFolder(LPTSTR lpszMessageClass, ULONG ulFlags, ULONG* lpcbEntryID,
                             LPENTRYID* lppEntryID, LPTSTR* lppszExplicitClass) override;
    HRESULT GetReceiveFolderTable(ULONG, LPMAPITABLE*) override { return MAPI_E_NO_SUPPORT; }
    HRESULT StoreLogoff(ULONG*) override { return S_OK; }
    HRESULT AbortSubmit(ULONG, LPENTRYID, ULONG) override { return MAPI_E_NO_SUPPORT; }
    HRESULT GetOutgoingQueue(ULONG, LPMAPITABLE*) override { return MAPI_E_NO_SUPPORT; }
    HRESULT SetLockState(LPMESSAGE, ULONG) override { return MAPI_E_NO_SUPPORT; }
    HRESULT FinishedMsg(ULONG, ULONG, LPENTRYID) override { return MAPI_E_NO_SUPPORT; }
    HRESULT NotifyNewMail(LPNOTIFICATION) override { return MAPI_E_NO_SUPPORT; }

    const CStoreConfig& Config() const { return m_config; }

protected:
    std::vector<CPropValue> Properties() const override;
    bool SupportsInterface(REFIID riid) const override {
        return IsOneOf(riid, {IID_IMsgStore, IID_IMAPIProp});
    }
    // The entry id of one of the store's standard folders (here its Maildir++ folders). Throws
    // std::bad_alloc.
    virtual std::vector<BYTE> StandardFolderId(EStandardFolder folder) const;
    // Opens a folder or message of the store by its decoded entry id (here OpenStoreEntry).
    virtual HRESULT OpenDecodedEntry(const CEntryId& id, LPCIID lpInterface, ULONG* lpulObjType,
                                     LPUNKNOWN* lppUnk) const;
    virtual std::wstring ProviderName() const;

private:
    CStoreConfig m_config;
};

// Creates the store's standard folders where missing and opens it; MAPI_E_NOT_FOUND when the Maildir
// cannot be made.
HRESULT OpenMaildirStore(const CStoreConfig& config, LPMDB* lppMDB);

// Opens a folder or message of a store by its decoded entry id, as the interface asked for.
HRESULT OpenStoreEntry(const CStoreConfig& config, const CEntryId& id, LPCIID lpInterface, ULONG* lpulObjType,
                       LPUNKNOWN* lppUnk);

// Adds the owner's PR_EMAIL_ADDRESS_W and PR_MAILBOX_OWNER_NAME_W (see Profiles.h) to a store's properties
// or its store table row. Throws std::bad_alloc.
void AddOwner(const CStoreConfig& config, std::vector<CPropValue>& props);

// Compares two entry ids of this provider: *lpulResult is TRUE when they name the same object.
HRESULT CompareEntryIds(ULONG cb1, LPENTRYID id1, ULONG cb2, LPENTRYID id2, ULONG* lpulResult);

}  // namespace velmar::mapi
