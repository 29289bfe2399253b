// Sessions of this MAPI: initialisation, profile administration, logon, the store table, and opening
// stores and entries by entry id.
#include <atomic>

#include "mapi/imap/ImapStoreKind.h"
#include "mapi/mime/GMimeSupport.h"
#include "mapi/provider/AddressBook.h"
#include "mapi/provider/MaildirStoreKind.h"
#include "mapi/provider/MapiProp.h"
#include "mapi/provider/Profiles.h"
#include "mapi/provider/QueueNotice.h"
#include "mapi/provider/Store.h"
#include "mapi/runtime/Guarded.h"
#include "mapi/runtime/Table.h"
#include "mapi/spool/Spooler.h"
#include "mapi/spool/SpoolerStatus.h"
#include "mapitags.h"
#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

std::atomic<int> g_initializeCount{0};

// The one place that knows which kind a store is: a store with an IMAP account is on its server.
class CProfileStoreKinds final : public IStoreKinds {
public:
    const IStoreKind& Of(const CStoreConfig& store) const override {
        return store.imap ? ImapStoreKind() : MaildirStoreKind();
    }
    std::vector<const IStoreKind*> All() const override { return {&MaildirStoreKind(), &ImapStoreKind()}; }
};

const CProfileStoreKinds g_storeKinds;

// PR_RESOURCE_FLAGS of the default store.
constexpr std::int32_t kStatusDefaultStore = 0x00000001;

// The store table shows the provider's name before the store's, so a reader that takes the last name
// column of a row takes the store's. The owner's columns come last, so the others keep their places.
constexpr ULONG kStoreColumns[] = {
    PR_INSTANCE_KEY,  PR_ENTRYID,      PR_RECORD_KEY,     PR_PROVIDER_DISPLAY_W, PR_DISPLAY_NAME_W,
    PR_DEFAULT_STORE, PR_MDB_PROVIDER, PR_RESOURCE_FLAGS, PR_EMAIL_ADDRESS_W,    PR_MAILBOX_OWNER_NAME_W};

class CMapiSession : public CComObject<IMAPISession> {
public:
    explicit CMapiSession(CProfile profile) : m_profile(std::move(profile)) {}

    HRESULT GetLastError(HRESULT, ULONG, LPMAPIERROR* lppMAPIError) override {
        if (lppMAPIError) *lppMAPIError = nullptr;
        return MAPI_E_NO_SUPPORT;
    }
    HRESULT GetMsgStoresTable(ULONG, LPMAPITABLE* lppTable) override {
        std::vector<std::vector<CPropValue>> rows;
        for (const CStoreConfig& store : m_profile.stores) {
            const std::vector<BYTE> entryId = EncodeEntryId({EntryKind::Store, store.id, {}, {}});
            rows.push_back({{PR_INSTANCE_KEY, entryId},
                            {PR_ENTRYID, entryId},
                            {PR_RECORD_KEY, entryId},
                            {PR_PROVIDER_DISPLAY_W, g_storeKinds.Of(store).ProviderName()},
                            {PR_DISPLAY_NAME_W, store.displayName},
                            {PR_DEFAULT_STORE, store.isDefault},
                            {PR_MDB_PROVIDER, std::vector<BYTE>(entryId.begin() + 4, entryId.begin() + 20)},
                            {PR_RESOURCE_FLAGS, store.isDefault ? kStatusDefaultStore : 0},
                            {PR_OBJECT_TYPE, static_cast<std::int32_t>(MAPI_STORE)}});
            AddOwner(store, rows.back());
        }
        return MakeRowListTable(std::vector<ULONG>(std::begin(kStoreColumns), std::end(kStoreColumns)),
                                std::move(rows), lppTable);
    }
    HRESULT OpenMsgStore(ULONG_PTR, ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG,
                         LPMDB* lppMDB) override {
        if (!lppMDB) return MAPI_E_INVALID_PARAMETER;
        *lppMDB = nullptr;
        const std::optional<CEntryId> id = DecodeEntryId(reinterpret_cast<const BYTE*>(lpEntryID), cbEntryID);
        if (!id || id->kind != EntryKind::Store) return MAPI_E_INVALID_ENTRYID;
        if (lpInterface && !IsOneOf(*lpInterface, {IID_IMsgStore, IID_IMAPIProp, IID_IUnknown}))
            return MAPI_E_INTERFACE_NOT_SUPPORTED;
        const CStoreConfig* store = FindStore(id->storeId);
        if (!store) return MAPI_E_NOT_FOUND;
        return g_storeKinds.Of(*store).OpenStore(*store, lppMDB);
    }
    HRESULT OpenAddressBook(ULONG_PTR, LPCIID, ULONG, LPADRBOOK* lppAdrBook) override {
        if (!lppAdrBook) return MAPI_E_INVALID_PARAMETER;
        return Guarded([&]() -> HRESULT {
            *lppAdrBook = MakeAddressBook(m_profile).Detach();
            return S_OK;
        });
    }
    HRESULT OpenProfileSection(LPMAPIUID, LPCIID, ULONG, LPPROFSECT*) override { return MAPI_E_NO_SUPPORT; }
    HRESULT GetStatusTable(ULONG, LPMAPITABLE* lppTable) override {
        return Guarded([&]() -> HRESULT {
            std::vector<CPropValue> row = SpoolerStatusRow();
            std::vector<ULONG> columns;
            for (const CPropValue& value : row) columns.push_back(value.ulPropTag);
            return MakeRowListTable(std::move(columns), {std::move(row)}, lppTable);
        });
    }
    HRESULT OpenEntry(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG, ULONG* lpulObjType,
                      LPUNKNOWN* lppUnk) override {
        if (!lppUnk) return MAPI_E_INVALID_PARAMETER;
        *lppUnk = nullptr;
        const std::optional<CEntryId> id = DecodeEntryId(reinterpret_cast<const BYTE*>(lpEntryID), cbEntryID);
        if (!id) return MAPI_E_INVALID_ENTRYID;
        if (id->kind == EntryKind::Spooler) {
            if (lpulObjType) *lpulObjType = MAPI_STATUS;
            return Guarded([&]() -> HRESULT { return HandOut(MakeSpoolerStatus(), lpInterface, lppUnk); });
        }
        const CStoreConfig* store = FindStore(id->storeId);
        if (!store) return MAPI_E_NOT_FOUND;
        return g_storeKinds.Of(*store).OpenEntry(*store, *id, lpInterface, lpulObjType, lppUnk);
    }
    HRESULT CompareEntryIDs(ULONG cbEntryID1, LPENTRYID lpEntryID1, ULONG cbEntryID2, LPENTRYID lpEntryID2,
                            ULONG, ULONG* lpulResult) override {
        return CompareEntryIds(cbEntryID1, lpEntryID1, cbEntryID2, lpEntryID2, lpulResult);
    }
    HRESULT Advise(ULONG, LPENTRYID, ULONG, LPMAPIADVISESINK, ULONG*) override { return MAPI_E_NO_SUPPORT; }
    HRESULT Unadvise(ULONG) override { return MAPI_E_NO_SUPPORT; }
    HRESULT MessageOptions(ULONG_PTR, ULONG, LPTSTR, LPMESSAGE) override { return MAPI_E_NO_SUPPORT; }
    HRESULT QueryDefaultMessageOpt(LPTSTR, ULONG, ULONG*, LPSPropValue*) override {
        return MAPI_E_NO_SUPPORT;
    }
    HRESULT EnumAdrTypes(ULONG, ULONG*, LPTSTR**) override { return MAPI_E_NO_SUPPORT; }
    HRESULT QueryIdentity(ULONG*, LPENTRYID*) override { return MAPI_E_NO_SUPPORT; }
    HRESULT Logoff(ULONG_PTR, ULONG, ULONG) override { return S_OK; }
    HRESULT SetDefaultStore(ULONG, ULONG, LPENTRYID) override { return MAPI_E_NO_SUPPORT; }
    HRESULT AdminServices(ULONG, LPSERVICEADMIN*) override { return MAPI_E_NO_SUPPORT; }
    HRESULT ShowForm(ULONG_PTR, LPMDB, LPMAPIFOLDER, LPCIID, ULONG, LPMESSAGE, ULONG, ULONG, ULONG, ULONG,
                     LPTSTR) override {
        return MAPI_E_NO_SUPPORT;
    }
    HRESULT PrepareForm(LPCIID, LPMESSAGE, ULONG*) override { return MAPI_E_NO_SUPPORT; }

protected:
    bool SupportsInterface(REFIID riid) const override { return riid == IID_IMAPISession; }

private:
    const CStoreConfig* FindStore(std::uint64_t id) const {
        for (const CStoreConfig& store : m_profile.stores)
            if (store.id == id) return &store;
        return nullptr;
    }

    CProfile m_profile;
};

class CProfAdmin : public CComObject<IProfAdmin> {
public:
    HRESULT GetLastError(HRESULT, ULONG, LPMAPIERROR* lppMAPIError) override {
        if (lppMAPIError) *lppMAPIError = nullptr;
        return MAPI_E_NO_SUPPORT;
    }
    // Only the default profile's row carries PR_DEFAULT_PROFILE.
    HRESULT GetProfileTable(ULONG, LPMAPITABLE* lppTable) override {
        std::vector<std::vector<CPropValue>> rows;
        for (const CProfile& profile : LoadProfiles()) {
            rows.push_back({{PR_DISPLAY_NAME_W, profile.name}});
            if (profile.isDefault) rows.back().push_back({PR_DEFAULT_PROFILE, true});
        }
        return MakeRowListTable({PR_DISPLAY_NAME_W, PR_DEFAULT_PROFILE}, std::move(rows), lppTable);
    }
    HRESULT CreateProfile(LPTSTR, LPTSTR, ULONG_PTR, ULONG) override { return MAPI_E_NO_SUPPORT; }
    HRESULT DeleteProfile(LPTSTR, ULONG) override { return MAPI_E_NO_SUPPORT; }
    HRESULT ChangeProfilePassword(LPTSTR, LPTSTR, LPTSTR, ULONG) override { return MAPI_E_NO_SUPPORT; }
    HRESULT CopyProfile(LPTSTR, LPTSTR, LPTSTR, ULONG_PTR, ULONG) override { return MAPI_E_NO_SUPPORT; }
    HRESULT RenameProfile(LPTSTR, LPTSTR, LPTSTR, ULONG_PTR, ULONG) override { return MAPI_E_NO_SUPPORT; }
    HRESULT SetDefaultProfile(LPTSTR, ULONG) override { return MAPI_E_NO_SUPPORT; }
    HRESULT AdminServices(LPTSTR, LPTSTR, ULONG_PTR, ULONG, LPSERVICEADMIN*) override {
        return MAPI_E_NO_SUPPORT;
    }

protected:
    bool SupportsInterface(REFIID riid) const override { return riid == IID_IProfAdmin; }
};

}  // namespace
}  // namespace velmar::mapi

using namespace velmar::mapi;

STDAPI MAPIInitialize(LPVOID) {
    return Guarded([] {
        EnsureGMime();
        // The store wakes the spooler through the session, and the spooler files through the kinds it is
        // handed: neither layer reaches up.
        CSpooler::Instance().UseStoreKinds(g_storeKinds);
        SetQueuedListener([] { CSpooler::Instance().Wake(); });
        ++g_initializeCount;
        return S_OK;
    });
}

STDAPI_(void) MAPIUninitialize(void) {
    int count = g_initializeCount.load();
    while (count > 0 && !g_initializeCount.compare_exchange_weak(count, count - 1)) {
    }
    // The last user is gone: the spooler ends with the delivery under way; what is queued stays queued.
    if (count == 1) {
        CSpooler::Instance().Stop();
        for (const IStoreKind* kind : g_storeKinds.All()) kind->StopAll();
    }
}

STDAPI MAPIAdminProfiles(ULONG, LPPROFADMIN* lppProfAdmin) {
    if (!lppProfAdmin) return MAPI_E_INVALID_PARAMETER;
    *lppProfAdmin = nullptr;
    if (g_initializeCount.load() <= 0) return MAPI_E_NOT_INITIALIZED;
    return Guarded([&]() -> HRESULT {
        *lppProfAdmin = MakeObject<CProfAdmin>().Detach();
        return S_OK;
    });
}

// A named profile must exist. There is no profile dialog here: MAPI_LOGON_UI (or MAPI_USE_DEFAULT) with
// no name logs on to the default profile instead of asking.
STDAPI MAPILogonEx(ULONG_PTR, LPTSTR lpszProfileName, LPTSTR, ULONG ulFlags, LPMAPISESSION* lppSession) {
    if (!lppSession) return MAPI_E_INVALID_PARAMETER;
    *lppSession = nullptr;
    if (g_initializeCount.load() <= 0) return MAPI_E_NOT_INITIALIZED;
    return Guarded([&]() -> HRESULT {
        std::wstring name;
        if (lpszProfileName)
            name = (ulFlags & MAPI_UNICODE)
                       ? std::wstring(lpszProfileName)
                       : velmar::Utf8ToWide(reinterpret_cast<const char*>(lpszProfileName));
        const std::vector<CProfile> profiles = LoadProfiles();
        const CProfile* chosen = nullptr;
        for (const CProfile& profile : profiles) {
            const bool wanted = name.empty()
                                    ? (ulFlags & (MAPI_LOGON_UI | MAPI_USE_DEFAULT)) && profile.isDefault
                                    : profile.name == name;
            if (wanted) {
                chosen = &profile;
                break;
            }
        }
        if (!chosen) return MAPI_E_LOGON_FAILED;
        *lppSession = MakeObject<CMapiSession>(*chosen).Detach();
        CSpooler::Instance().Watch(*chosen);
        for (const CStoreConfig& store : chosen->stores) g_storeKinds.Of(store).StartSync(store);
        return S_OK;
    });
}
