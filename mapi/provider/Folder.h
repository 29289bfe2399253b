// The folders of this provider: what every kind of folder offers alike (CMapiFolder), and a Maildir++ folder,
// whose contents table comes from the folder index and its messages from their files.
#pragma once

#include <optional>

#include "mapi/provider/EntryId.h"
#include "mapi/provider/MapiProp.h"
#include "mapi/provider/Profiles.h"

namespace velmar::mapi {

// The entry id of a folder object, when it is one of this provider's.
std::optional<CEntryId> FolderEntryIdOf(IMAPIFolder* folder);

// What every folder of this provider offers alike: no searches, no folder changes, no status bits of a
// message's own (always 0), and the read flags of listed messages set one message at a time.
class CMapiFolder : public CMapiProp<IMAPIFolder> {
public:
    HRESULT SetSearchCriteria(LPSRestriction, LPENTRYLIST, ULONG) override { return MAPI_E_NO_SUPPORT; }
    HRESULT GetSearchCriteria(ULONG, LPSRestriction*, LPENTRYLIST*, ULONG*) override {
        return MAPI_E_NO_SUPPORT;
    }
    HRESULT DeleteMessages(LPENTRYLIST, ULONG_PTR, LPMAPIPROGRESS, ULONG) override {
        return MAPI_E_NO_SUPPORT;
    }
    HRESULT CreateFolder(ULONG, LPTSTR, LPTSTR, LPCIID, ULONG, IMAPIFolder**) override {
        return MAPI_E_NO_SUPPORT;
    }
    HRESULT CopyFolder(ULONG, LPENTRYID, LPCIID, LPVOID, LPTSTR, ULONG_PTR, LPMAPIPROGRESS, ULONG) override {
        return MAPI_E_NO_SUPPORT;
    }
    HRESULT DeleteFolder(ULONG, LPENTRYID, ULONG_PTR, LPMAPIPROGRESS, ULONG) override {
        return MAPI_E_NO_SUPPORT;
    }
    // Each listed message opened and its read flag set; MAPI_W_PARTIAL_COMPLETION when one fails,
    // MAPI_E_NO_SUPPORT for the whole folder (no list).
    HRESULT SetReadFlags(LPENTRYLIST lpMsgList, ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress,
                         ULONG ulFlags) override;
    HRESULT GetMessageStatus(ULONG, LPENTRYID, ULONG, ULONG* lpulMessageStatus) override {
        if (!lpulMessageStatus) return MAPI_E_INVALID_PARAMETER;
        *lpulMessageStatus = 0;
        return S_OK;
    }
    HRESULT SetMessageStatus(ULONG, LPENTRYID, ULONG, ULONG, ULONG*) override { return MAPI_E_NO_SUPPORT; }
    HRESULT SaveContentsSort(LPSSortOrderSet, ULONG) override { return MAPI_E_NO_SUPPORT; }
    HRESULT EmptyFolder(ULONG_PTR, LPMAPIPROGRESS, ULONG) override { return MAPI_E_NO_SUPPORT; }

protected:
    bool SupportsInterface(REFIID riid) const override {
        return IsOneOf(riid, {IID_IMAPIFolder, IID_IMAPIContainer, IID_IMAPIProp});
    }
};

class CMaildirFolder : public CMapiFolder {
public:
    CMaildirFolder(CStoreConfig store, std::string folderName)
        : m_store(std::move(store)), m_folderName(std::move(folderName)) {}

    HRESULT GetContentsTable(ULONG ulFlags, LPMAPITABLE* lppTable) override;
    HRESULT GetHierarchyTable(ULONG ulFlags, LPMAPITABLE* lppTable) override;
    HRESULT OpenEntry(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG ulFlags,
                      ULONG* lpulObjType, LPUNKNOWN* lppUnk) override;
    HRESULT CreateMessage(LPCIID lpInterface, ULONG ulFlags, LPMESSAGE* lppMessage) override;
    // Within the store: a move renames the files into the other folder, a copy writes new ones. A folder of
    // another store is declined (MAPI_E_DECLINE_COPY); messages not found give MAPI_W_PARTIAL_COMPLETION.
    HRESULT CopyMessages(LPENTRYLIST lpMsgList, LPCIID lpInterface, LPVOID lpDestFolder, ULONG_PTR ulUIParam,
                         LPMAPIPROGRESS lpProgress, ULONG ulFlags) override;

protected:
    std::vector<CPropValue> Properties() const override;

private:
    CStoreConfig m_store;
    std::string m_folderName;
};

}  // namespace velmar::mapi
