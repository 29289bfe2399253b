/* MAPI's utility functions: property and row helpers, streams on files, compressed RTF. */
#pragma once

#include "mapix.h"

STDAPI HrGetOneProp(LPMAPIPROP lpMapiProp, ULONG ulPropTag, LPSPropValue* lppProp);
STDAPI HrSetOneProp(LPMAPIPROP lpMapiProp, LPSPropValue lpProp);
STDAPI_(LPSPropValue) PpropFindProp(LPSPropValue lpPropArray, ULONG cValues, ULONG ulPropTag);
STDAPI_(void) FreeProws(LPSRowSet lpRows);
STDAPI_(void) FreePadrlist(LPADRLIST lpAdrlist);
STDAPI_(SCODE) ScCountProps(int cValues, LPSPropValue lpPropArray, ULONG* lpcb);
STDAPI_(SCODE) ScCopyProps(int cValues, LPSPropValue lpPropArray, LPVOID lpvDst, ULONG* lpcb);
STDAPI_(SCODE)
ScDupPropset(int cValues, LPSPropValue lpPropArray, LPALLOCATEBUFFER lpAllocateBuffer,
             LPSPropValue* lppPropArray);
STDAPI_(SCODE)
PropCopyMore(LPSPropValue lpSPropValueDest, LPSPropValue lpSPropValueSrc, ALLOCATEMORE* lpfAllocMore,
             LPVOID lpvObject);
STDAPI HrQueryAllRows(LPMAPITABLE lpTable, LPSPropTagArray lpPropTags, LPSRestriction lpRestriction,
                      LPSSortOrderSet lpSortOrderSet, LONG crowsMax, LPSRowSet* lppRows);
STDAPI_(LPMALLOC) MAPIGetDefaultMalloc(void);

/* Streams on files: the prefix names a temporary file to create when SOF_UNIQUEFILENAME is given. */
#define SOF_UNIQUEFILENAME ((ULONG)0x80000000)
STDAPI OpenStreamOnFile(LPALLOCATEBUFFER lpAllocateBuffer, LPFREEBUFFER lpFreeBuffer, ULONG ulFlags,
                        LPCSTR lpszFileName, LPCSTR lpszPrefix, LPSTREAM* lppStream);
STDAPI OpenStreamOnFileW(LPALLOCATEBUFFER lpAllocateBuffer, LPFREEBUFFER lpFreeBuffer, ULONG ulFlags,
                         LPCWSTR lpszFileName, LPCWSTR lpszPrefix, LPSTREAM* lppStream);

/* Compressed RTF. */
#define MAPI_READ_UNCOMPRESSED ((ULONG)0x00000000)
#define STORE_UNCOMPRESSED_RTF ((ULONG)0x00008000)
#define MAPI_NATIVE_BODY ((ULONG)0x00010000)
#define MAPI_NATIVE_BODY_TYPE_RTF ((ULONG)0x00000001)
#define MAPI_NATIVE_BODY_TYPE_HTML ((ULONG)0x00000002)
#define MAPI_NATIVE_BODY_TYPE_PLAINTEXT ((ULONG)0x00000004)

typedef struct {
    ULONG size;
    ULONG ulFlags;
    ULONG ulInCodePage;
    ULONG ulOutCodePage;
} RTF_WCSINFO;

typedef struct {
    ULONG size;
    ULONG ulStreamFlags;
} RTF_WCSRETINFO;

STDAPI WrapCompressedRTFStream(LPSTREAM lpCompressedRTFStream, ULONG ulFlags,
                               LPSTREAM* lpUncompressedRTFStream);
STDAPI WrapCompressedRTFStreamEx(LPSTREAM lpCompressedRTFStream, const RTF_WCSINFO* pWCSInfo,
                                 LPSTREAM* lppUncompressedRTFStream, RTF_WCSRETINFO* pRetInfo);
STDAPI RTFSync(LPMESSAGE lpMessage, ULONG ulFlags, BOOL* lpfMessageUpdated);

/* Entry points kept for the loader's table that this MAPI does not support. */
STDAPI WrapStoreEntryID(ULONG ulFlags, LPTSTR lpszDLLName, ULONG cbOrigEntry, LPENTRYID lpOrigEntry,
                        ULONG* lpcbWrappedEntry, LPENTRYID* lppWrappedEntry);
STDAPI_(SCODE)
CreateIProp(LPCIID lpInterface, ALLOCATEBUFFER* lpAllocateBuffer, ALLOCATEMORE* lpAllocateMore,
            FREEBUFFER* lpFreeBuffer, LPVOID lpvReserved, LPVOID* lppPropData);
STDAPI_(SCODE)
CreateTable(LPCIID lpInterface, ALLOCATEBUFFER* lpAllocateBuffer, ALLOCATEMORE* lpAllocateMore,
            FREEBUFFER* lpFreeBuffer, LPVOID lpvReserved, ULONG ulTableType, ULONG ulPropTagIndexColumn,
            LPSPropTagArray lpSPropTagArrayColumns, LPVOID* lppTableData);
STDAPI HrValidateParameters(int eMethod, LPVOID* ppFirstArg);
STDAPI BuildDisplayTable(LPALLOCATEBUFFER lpAllocateBuffer, LPALLOCATEMORE lpAllocateMore,
                         LPFREEBUFFER lpFreeBuffer, LPMALLOC lpMalloc, HANDLE hInstance, unsigned int cPages,
                         LPVOID lpPage, ULONG ulFlags, LPMAPITABLE* lppTable, LPVOID* lppTblData);
STDAPI HrValidateIPMSubtree(LPMDB lpMDB, ULONG ulFlags, ULONG* lpcValues, LPSPropValue* lppValues,
                            LPMAPIERROR* lpperr);
STDAPI HrDispatchNotifications(ULONG ulFlags);
