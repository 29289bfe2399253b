#include "mail/MapiFunctions.h"

#include <array>
#include <atomic>
#include <mutex>

#include "mail/MapiLibrary.h"

namespace velmar::mail {

const CMapiExportName kMapiExportNames[kMapiExportNameCount] = {
    {MapiSlot::MAPIAllocateBuffer, "MAPIAllocateBuffer"},
    {MapiSlot::MAPIAllocateMore, "MAPIAllocateMore"},
    {MapiSlot::MAPIFreeBuffer, "MAPIFreeBuffer"},
    {MapiSlot::HrGetOneProp, "HrGetOneProp@12"},
    {MapiSlot::HrGetOneProp, "HrGetOneProp"},
    {MapiSlot::MAPIInitialize, "MAPIInitialize"},
    {MapiSlot::MAPIUninitialize, "MAPIUninitialize"},
    {MapiSlot::FreeProws, "FreeProws@4"},
    {MapiSlot::FreeProws, "FreeProws"},
    {MapiSlot::PpropFindProp, "PpropFindProp@12"},
    {MapiSlot::PpropFindProp, "PpropFindProp"},
    {MapiSlot::ScDupPropset, "ScDupPropset@16"},
    {MapiSlot::ScDupPropset, "ScDupPropset"},
    {MapiSlot::ScCountProps, "ScCountProps@12"},
    {MapiSlot::ScCountProps, "ScCountProps"},
    {MapiSlot::ScCopyProps, "ScCopyProps@16"},
    {MapiSlot::ScCopyProps, "ScCopyProps"},
    {MapiSlot::OpenIMsgOnIStg, "OpenIMsgOnIStg@44"},
    {MapiSlot::OpenIMsgOnIStg, "OpenIMsgOnIStg"},
    {MapiSlot::MAPIGetDefaultMalloc, "MAPIGetDefaultMalloc@0"},
    {MapiSlot::MAPIGetDefaultMalloc, "MAPIGetDefaultMalloc"},
    {MapiSlot::OpenStreamOnFile, "OpenStreamOnFile"},
    {MapiSlot::OpenStreamOnFileW, "OpenStreamOnFileW"},
    {MapiSlot::CloseIMsgSession, "CloseIMsgSession@4"},
    {MapiSlot::CloseIMsgSession, "CloseIMsgSession"},
    {MapiSlot::OpenIMsgSession, "OpenIMsgSession@12"},
    {MapiSlot::OpenIMsgSession, "OpenIMsgSession"},
    {MapiSlot::HrQueryAllRows, "HrQueryAllRows@24"},
    {MapiSlot::HrQueryAllRows, "HrQueryAllRows"},
    {MapiSlot::RTFSync, "RTFSync"},
    {MapiSlot::HrSetOneProp, "HrSetOneProp@8"},
    {MapiSlot::HrSetOneProp, "HrSetOneProp"},
    {MapiSlot::FreePadrlist, "FreePadrlist@4"},
    {MapiSlot::FreePadrlist, "FreePadrlist"},
    {MapiSlot::PropCopyMore, "PropCopyMore@16"},
    {MapiSlot::PropCopyMore, "PropCopyMore"},
    {MapiSlot::WrapCompressedRTFStream, "WrapCompressedRTFStream"},
    {MapiSlot::WrapStoreEntryID, "WrapStoreEntryID@24"},
    {MapiSlot::WrapStoreEntryID, "WrapStoreEntryID"},
    {MapiSlot::CreateIProp, "CreateIProp@24"},
    {MapiSlot::CreateIProp, "CreateIProp"},
    {MapiSlot::CreateTable, "CreateTable@36"},
    {MapiSlot::CreateTable, "CreateTable"},
    {MapiSlot::HrValidateParameters, "HrValidateParameters@8"},
    {MapiSlot::HrValidateParameters, "HrValidateParameters"},
    {MapiSlot::BuildDisplayTable, "BuildDisplayTable@40"},
    {MapiSlot::BuildDisplayTable, "BuildDisplayTable"},
    {MapiSlot::MNLS_lstrlenW, "MNLS_lstrlenW"},
    {MapiSlot::MAPILogonEx, "MAPILogonEx"},
    {MapiSlot::MAPIAdminProfiles, "MAPIAdminProfiles"},
    {MapiSlot::HrValidateIPMSubtree, "HrValidateIPMSubtree@20"},
    {MapiSlot::HrValidateIPMSubtree, "HrValidateIPMSubtree"},
    {MapiSlot::WrapCompressedRTFStreamEx, "WrapCompressedRTFStreamEx"},
    {MapiSlot::HrDispatchNotifications, "HrDispatchNotifications@4"},
    {MapiSlot::HrDispatchNotifications, "HrDispatchNotifications"},
};

namespace {

std::array<std::atomic<void*>, static_cast<size_t>(MapiSlot::Count)> g_slots{};
LibraryHandle g_clientLibrary = nullptr;
LibraryHandle g_systemLibrary = nullptr;
std::mutex g_loadLock;

// Fills each still-empty slot from library, walking the rows in order.
void FillFrom(LibraryHandle library) {
    for (const CMapiExportName& row : kMapiExportNames) {
        std::atomic<void*>& slot = g_slots[static_cast<size_t>(row.slot)];
        if (!slot.load()) slot.store(FindExport(library, row.name));
    }
}

}  // namespace

void LoadMapiFunctions() {
    std::lock_guard lock(g_loadLock);
    if (!g_clientLibrary) g_clientLibrary = LoadDefaultClientLibrary();
    if (g_clientLibrary) FillFrom(g_clientLibrary);
    if (!g_systemLibrary) g_systemLibrary = LoadSystemMapiLibrary();
    if (!g_systemLibrary || g_systemLibrary == g_clientLibrary) return;
    FillFrom(g_systemLibrary);
}

void* MapiFunction(MapiSlot slot) {
    std::atomic<void*>& entry = g_slots[static_cast<size_t>(slot)];
    if (void* function = entry.load()) return function;
    LoadMapiFunctions();
    return entry.load();
}

SCODE VMAPIAllocateBuffer(ULONG cbSize, LPVOID* lppBuffer) {
    const auto allocate = BoundMapiFunction<PFN_MAPIAllocateBuffer>(MapiSlot::MAPIAllocateBuffer);
    return allocate ? allocate(cbSize, lppBuffer) : E_FAIL;
}

SCODE VMAPIAllocateMore(ULONG cbSize, LPVOID lpObject, LPVOID* lppBuffer) {
    const auto allocate = BoundMapiFunction<PFN_MAPIAllocateMore>(MapiSlot::MAPIAllocateMore);
    return allocate ? allocate(cbSize, lpObject, lppBuffer) : E_FAIL;
}

HRESULT VMAPIOpenFormMgr(LPMAPISESSION lpSession, LPMAPIFORMMGR* lppFormMgr) {
    using PFN_MAPIOpenFormMgr = HRESULT(STDMETHODCALLTYPE*)(LPMAPISESSION, LPMAPIFORMMGR*);
    // No session, no forms: asked without one, the library is not bothered (Wine's stub would end us).
    if (!lpSession) {
        if (lppFormMgr) *lppFormMgr = nullptr;
        return MAPI_E_INVALID_PARAMETER;
    }
    static std::atomic<void*> s_openFormMgr{nullptr};
    if (!s_openFormMgr.load()) {
        LoadMapiFunctions();
        std::lock_guard lock(g_loadLock);
        // Only the plain name: a 64-bit library never decorates it, and Wine's mapi32 keeps the decorated
        // one as a stub that ends the process when called.
        for (LibraryHandle library : {g_clientLibrary, g_systemLibrary}) {
            if (!s_openFormMgr.load()) s_openFormMgr.store(FindExport(library, "MAPIOpenFormMgr"));
        }
    }
    const auto openFormMgr = reinterpret_cast<PFN_MAPIOpenFormMgr>(s_openFormMgr.load());
    if (!openFormMgr) {
        if (lppFormMgr) *lppFormMgr = nullptr;
        return E_FAIL;
    }
    return openFormMgr(lpSession, lppFormMgr);
}

ULONG VMAPIFreeBuffer(LPVOID lpBuffer) {
    if (!lpBuffer) return 0;
    const auto release = BoundMapiFunction<PFN_MAPIFreeBuffer>(MapiSlot::MAPIFreeBuffer);
    return release ? release(lpBuffer) : 0;
}

}  // namespace velmar::mail
