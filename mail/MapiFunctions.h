// The process-wide table of MAPI entry points. The mail layer links no MAPI library: every entry point is
// bound at run time, first from the default mail client's MAPI library, then from the system's for what
// that one lacks. A caller that finds its slot empty asks the loader once more, then takes its failure path.
#pragma once

#include <cstddef>

#include "mail/MapiHeaders.h"

namespace velmar::mail {

// The 34 slots, in the order of the table.
enum class MapiSlot : std::size_t {
    MAPIAllocateBuffer,
    MAPIAllocateMore,
    MAPIFreeBuffer,
    HrGetOneProp,
    MAPIInitialize,
    MAPIUninitialize,
    FreeProws,
    PpropFindProp,
    ScDupPropset,
    ScCountProps,
    ScCopyProps,
    OpenIMsgOnIStg,
    MAPIGetDefaultMalloc,
    OpenStreamOnFile,
    OpenStreamOnFileW,
    CloseIMsgSession,
    OpenIMsgSession,
    HrQueryAllRows,
    RTFSync,
    HrSetOneProp,
    FreePadrlist,
    PropCopyMore,
    WrapCompressedRTFStream,
    WrapStoreEntryID,
    CreateIProp,
    CreateTable,
    HrValidateParameters,
    BuildDisplayTable,
    MNLS_lstrlenW,
    MAPILogonEx,
    MAPIAdminProfiles,
    HrValidateIPMSubtree,
    WrapCompressedRTFStreamEx,
    HrDispatchNotifications,
    Count
};

// One row of the table: a slot and an exported name. A slot has two rows when 32-bit MAPI libraries
// export it with a decorated name; the decorated name comes first.
struct CMapiExportName {
    MapiSlot slot;
    const char* name;
};
inline constexpr std::size_t kMapiExportNameCount = 55;
extern const CMapiExportName kMapiExportNames[kMapiExportNameCount];

// Fills the empty slots (see above). Safe to call from any thread and any number of times; a filled slot
// is never cleared.
void LoadMapiFunctions();
// The slot's function, loading once more when it is empty; null when no library has it.
void* MapiFunction(MapiSlot slot);

// The signatures of the entry points the mail layer calls.
using PFN_MAPIAllocateBuffer = SCODE(STDMETHODCALLTYPE*)(ULONG, LPVOID*);
using PFN_MAPIAllocateMore = SCODE(STDMETHODCALLTYPE*)(ULONG, LPVOID, LPVOID*);
using PFN_MAPIFreeBuffer = ULONG(STDMETHODCALLTYPE*)(LPVOID);
using PFN_HrGetOneProp = HRESULT(STDMETHODCALLTYPE*)(LPMAPIPROP, ULONG, LPSPropValue*);
using PFN_MAPIInitialize = HRESULT(STDMETHODCALLTYPE*)(LPVOID);
using PFN_MAPIUninitialize = void(STDMETHODCALLTYPE*)();
using PFN_FreeProws = void(STDMETHODCALLTYPE*)(LPSRowSet);
using PFN_HrQueryAllRows = HRESULT(STDMETHODCALLTYPE*)(LPMAPITABLE, LPSPropTagArray, LPSRestriction,
                                                       LPSSortOrderSet, LONG, LPSRowSet*);
using PFN_FreePadrlist = void(STDMETHODCALLTYPE*)(LPADRLIST);
using PFN_MAPILogonEx = HRESULT(STDMETHODCALLTYPE*)(ULONG_PTR, LPTSTR, LPTSTR, ULONG, LPMAPISESSION*);
using PFN_MAPIAdminProfiles = HRESULT(STDMETHODCALLTYPE*)(ULONG, LPPROFADMIN*);
using PFN_MAPIGetDefaultMalloc = LPMALLOC(STDMETHODCALLTYPE*)();
using PFN_OpenStreamOnFile = HRESULT(STDMETHODCALLTYPE*)(LPALLOCATEBUFFER, LPFREEBUFFER, ULONG, LPCSTR,
                                                         LPCSTR, LPSTREAM*);
using PFN_OpenStreamOnFileW = HRESULT(STDMETHODCALLTYPE*)(LPALLOCATEBUFFER, LPFREEBUFFER, ULONG, LPCWSTR,
                                                          LPCWSTR, LPSTREAM*);
using PFN_WrapCompressedRTFStream = HRESULT(STDMETHODCALLTYPE*)(LPSTREAM, ULONG, LPSTREAM*);
using PFN_WrapCompressedRTFStreamEx = HRESULT(STDMETHODCALLTYPE*)(LPSTREAM, const RTF_WCSINFO*, LPSTREAM*,
                                                                  RTF_WCSRETINFO*);

template <class Function>
Function BoundMapiFunction(MapiSlot slot) {
    return reinterpret_cast<Function>(MapiFunction(slot));
}

// The allocation wrappers with their fixed failure results: E_FAIL when MAPI cannot be bound;
// VMAPIFreeBuffer of null returns 0 without loading anything.
[[nodiscard]] SCODE VMAPIAllocateBuffer(ULONG cbSize, LPVOID* lppBuffer);
[[nodiscard]] SCODE VMAPIAllocateMore(ULONG cbSize, LPVOID lpObject, LPVOID* lppBuffer);
ULONG VMAPIFreeBuffer(LPVOID lpBuffer);

// MAPIOpenFormMgr, which is not a slot of the table: looked up in the client's library, then in the
// system's. E_FAIL (and a null manager) when neither exports it; MAPI_E_INVALID_PARAMETER without a session.
[[nodiscard]] HRESULT VMAPIOpenFormMgr(LPMAPISESSION lpSession, LPMAPIFORMMGR* lppFormMgr);

}  // namespace velmar::mail
