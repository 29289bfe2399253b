// Entry points of the MAPI function table that this MAPI does not offer. They exist so that every slot of a
// caller's table binds, and say MAPI_E_NO_SUPPORT when called.
#include <cstdlib>

#include "imessage.h"
#include "mapiform.h"
#include "mapiutil.h"

namespace {

// The allocator MAPIGetDefaultMalloc hands out: the C heap, one object for the process.
class CHeapMalloc : public IMalloc {
public:
    HRESULT QueryInterface(REFIID riid, LPVOID* ppvObj) override {
        if (!ppvObj) return E_INVALIDARG;
        *ppvObj = (riid == IID_IUnknown || riid == IID_IMalloc) ? this : nullptr;
        return *ppvObj ? S_OK : E_NOINTERFACE;
    }
    ULONG AddRef() override { return 1; }
    ULONG Release() override { return 1; }
    void* Alloc(SIZE_T cb) override { return std::malloc(cb); }
    void* Realloc(void* pv, SIZE_T cb) override { return std::realloc(pv, cb); }
    void Free(void* pv) override { std::free(pv); }
    SIZE_T GetSize(void*) override { return static_cast<SIZE_T>(-1); }
    int DidAlloc(void*) override { return -1; }
    void HeapMinimize() override {}
};

}  // namespace

STDAPI_(LPMALLOC) MAPIGetDefaultMalloc(void) {
    static CHeapMalloc heap;
    return &heap;
}

STDAPI_(SCODE) OpenIMsgSession(LPMALLOC, ULONG, LPMSGSESS* lppMsgSess) {
    if (lppMsgSess) *lppMsgSess = nullptr;
    return MAPI_E_NO_SUPPORT;
}

STDAPI_(void) CloseIMsgSession(LPMSGSESS) {}

STDAPI_(SCODE)
OpenIMsgOnIStg(LPMSGSESS, LPALLOCATEBUFFER, LPALLOCATEMORE, LPFREEBUFFER, LPMALLOC, LPVOID, LPSTORAGE,
               MSGCALLRELEASE*, ULONG, ULONG, LPMESSAGE* lppMsg) {
    if (lppMsg) *lppMsg = nullptr;
    return MAPI_E_NO_SUPPORT;
}

STDAPI RTFSync(LPMESSAGE, ULONG, BOOL* lpfMessageUpdated) {
    if (lpfMessageUpdated) *lpfMessageUpdated = FALSE;
    return MAPI_E_NO_SUPPORT;
}

STDAPI WrapStoreEntryID(ULONG, LPTSTR, ULONG, LPENTRYID, ULONG*, LPENTRYID* lppWrappedEntry) {
    if (lppWrappedEntry) *lppWrappedEntry = nullptr;
    return MAPI_E_NO_SUPPORT;
}

STDAPI_(SCODE) CreateIProp(LPCIID, ALLOCATEBUFFER*, ALLOCATEMORE*, FREEBUFFER*, LPVOID, LPVOID* lppPropData) {
    if (lppPropData) *lppPropData = nullptr;
    return MAPI_E_NO_SUPPORT;
}

STDAPI_(SCODE)
CreateTable(LPCIID, ALLOCATEBUFFER*, ALLOCATEMORE*, FREEBUFFER*, LPVOID, ULONG, ULONG, LPSPropTagArray,
            LPVOID* lppTableData) {
    if (lppTableData) *lppTableData = nullptr;
    return MAPI_E_NO_SUPPORT;
}

STDAPI HrValidateParameters(int, LPVOID*) {
    return MAPI_E_NO_SUPPORT;
}

STDAPI BuildDisplayTable(LPALLOCATEBUFFER, LPALLOCATEMORE, LPFREEBUFFER, LPMALLOC, HANDLE, unsigned int,
                         LPVOID, ULONG, LPMAPITABLE* lppTable, LPVOID* lppTblData) {
    if (lppTable) *lppTable = nullptr;
    if (lppTblData) *lppTblData = nullptr;
    return MAPI_E_NO_SUPPORT;
}

STDAPI HrValidateIPMSubtree(LPMDB, ULONG, ULONG* lpcValues, LPSPropValue* lppValues, LPMAPIERROR* lpperr) {
    if (lpcValues) *lpcValues = 0;
    if (lppValues) *lppValues = nullptr;
    if (lpperr) *lpperr = nullptr;
    return MAPI_E_NO_SUPPORT;
}

// Notifications are not queued here, so there is never anything to dispatch.
STDAPI HrDispatchNotifications(ULONG) {
    return S_OK;
}
