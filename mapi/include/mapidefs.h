/* MAPI's base definitions: property types and values, tables, restrictions, entry identifiers, and the
 * interfaces of properties, containers, folders, stores, messages and attachments. */
#pragma once

#include "mapicode.h"
#include "mapiwin.h"

#ifndef MAPI_DIM
#define MAPI_DIM 1
#endif

/* ---- flags shared by many calls ---- */
#define MAPI_UNICODE ((ULONG)0x80000000)
#define MAPI_MODIFY ((ULONG)0x00000001)
#define MAPI_ACCESS_MODIFY ((ULONG)0x00000001)
#define MAPI_ACCESS_READ ((ULONG)0x00000002)
#define MAPI_ACCESS_DELETE ((ULONG)0x00000004)
#define MAPI_ACCESS_CREATE_HIERARCHY ((ULONG)0x00000008)
#define MAPI_ACCESS_CREATE_CONTENTS ((ULONG)0x00000010)
#define MAPI_ACCESS_CREATE_ASSOCIATED ((ULONG)0x00000020)
#define MAPI_CREATE ((ULONG)0x00000002)
#define MAPI_BEST_ACCESS ((ULONG)0x00000010)
#define MAPI_DEFERRED_ERRORS ((ULONG)0x00000008)
#define MAPI_ASSOCIATED ((ULONG)0x00000040)
#define MAPI_DIALOG ((ULONG)0x00000008)
#define MAPI_NO_STRINGS ((ULONG)0x00000001)
#define MAPI_NO_IDS ((ULONG)0x00000002)
#define MAPI_DECLINE_OK ((ULONG)0x00000004)
#define MAPI_MOVE ((ULONG)0x00000001)
#define MAPI_NOREPLACE ((ULONG)0x00000002)

#define KEEP_OPEN_READONLY ((ULONG)0x00000001)
#define KEEP_OPEN_READWRITE ((ULONG)0x00000002)
#define FORCE_SAVE ((ULONG)0x00000004)

/* IMAPIFolder::CopyMessages. */
#define MESSAGE_MOVE ((ULONG)0x00000001)
#define MESSAGE_DIALOG ((ULONG)0x00000002)

/* Object types (PR_OBJECT_TYPE and OpenEntry's type out parameter). */
#define MAPI_STORE ((ULONG)0x00000001)
#define MAPI_ADDRBOOK ((ULONG)0x00000002)
#define MAPI_FOLDER ((ULONG)0x00000003)
#define MAPI_ABCONT ((ULONG)0x00000004)
#define MAPI_MESSAGE ((ULONG)0x00000005)
#define MAPI_MAILUSER ((ULONG)0x00000006)
#define MAPI_ATTACH ((ULONG)0x00000007)
#define MAPI_DISTLIST ((ULONG)0x00000008)
#define MAPI_PROFSECT ((ULONG)0x00000009)
#define MAPI_STATUS ((ULONG)0x0000000A)
#define MAPI_SESSION ((ULONG)0x0000000B)
#define MAPI_FORMINFO ((ULONG)0x0000000C)

/* ---- entry identifiers ---- */
typedef struct _ENTRYID {
    BYTE abFlags[4];
    BYTE ab[MAPI_DIM];
} ENTRYID, *LPENTRYID;
#define CbNewENTRYID(cb) (offsetof(ENTRYID, ab) + (cb))

typedef struct _MAPIUID {
    BYTE ab[16];
} MAPIUID, *LPMAPIUID;

/* ---- properties ---- */
#define MV_FLAG 0x1000
#define PT_UNSPECIFIED ((ULONG)0)
#define PT_NULL ((ULONG)1)
#define PT_I2 ((ULONG)2)
#define PT_LONG ((ULONG)3)
#define PT_R4 ((ULONG)4)
#define PT_DOUBLE ((ULONG)5)
#define PT_CURRENCY ((ULONG)6)
#define PT_APPTIME ((ULONG)7)
#define PT_ERROR ((ULONG)10)
#define PT_BOOLEAN ((ULONG)11)
#define PT_OBJECT ((ULONG)13)
#define PT_I8 ((ULONG)20)
#define PT_STRING8 ((ULONG)30)
#define PT_UNICODE ((ULONG)31)
#define PT_SYSTIME ((ULONG)64)
#define PT_CLSID ((ULONG)72)
#define PT_BINARY ((ULONG)258)
#define PT_SHORT PT_I2
#define PT_I4 PT_LONG
#define PT_FLOAT PT_R4
#define PT_R8 PT_DOUBLE
#define PT_LONGLONG PT_I8
#define PT_TSTRING PT_UNICODE
#define PT_MV_I2 (MV_FLAG | PT_I2)
#define PT_MV_LONG (MV_FLAG | PT_LONG)
#define PT_MV_R4 (MV_FLAG | PT_R4)
#define PT_MV_DOUBLE (MV_FLAG | PT_DOUBLE)
#define PT_MV_CURRENCY (MV_FLAG | PT_CURRENCY)
#define PT_MV_APPTIME (MV_FLAG | PT_APPTIME)
#define PT_MV_SYSTIME (MV_FLAG | PT_SYSTIME)
#define PT_MV_STRING8 (MV_FLAG | PT_STRING8)
#define PT_MV_BINARY (MV_FLAG | PT_BINARY)
#define PT_MV_UNICODE (MV_FLAG | PT_UNICODE)
#define PT_MV_CLSID (MV_FLAG | PT_CLSID)
#define PT_MV_I8 (MV_FLAG | PT_I8)
#define PT_MV_TSTRING PT_MV_UNICODE

#define PROP_TYPE_MASK ((ULONG)0x0000FFFF)
#define PROP_TYPE(ulPropTag) (((ULONG)(ulPropTag)) & PROP_TYPE_MASK)
#define PROP_ID(ulPropTag) (((ULONG)(ulPropTag)) >> 16)
#define PROP_TAG(ulPropType, ulPropID) ((((ULONG)(ulPropID)) << 16) | ((ULONG)(ulPropType)))
#define CHANGE_PROP_TYPE(ulPropTag, ulPropType) \
    (((ULONG)0xFFFF0000 & (ULONG)(ulPropTag)) | (ULONG)(ulPropType))
#define PROP_ID_NULL 0
#define PROP_ID_INVALID 0xFFFF
#define PR_NULL PROP_TAG(PT_NULL, PROP_ID_NULL)
#define MV_INSTANCE 0x2000
#define MVI_FLAG (MV_FLAG | MV_INSTANCE)
#define MVI_PROP(tag) ((tag) | MVI_FLAG)

typedef struct _SPropTagArray {
    ULONG cValues;
    ULONG aulPropTag[MAPI_DIM];
} SPropTagArray, *LPSPropTagArray;
#define CbNewSPropTagArray(c) (offsetof(SPropTagArray, aulPropTag) + (c) * sizeof(ULONG))
#define CbSPropTagArray(p) CbNewSPropTagArray((p)->cValues)
#define SizedSPropTagArray(n, name) \
    struct _SPropTagArray_##name {  \
        ULONG cValues;              \
        ULONG aulPropTag[n];        \
    } name

typedef struct _SBinary {
    ULONG cb;
    LPBYTE lpb;
} SBinary, *LPSBinary;

typedef union tagCY {
    struct {
        ULONG Lo;
        LONG Hi;
    } s;
    LONGLONG int64;
} CY, CURRENCY;

typedef struct _SShortArray {
    ULONG cValues;
    short* lpi;
} SShortArray;
typedef struct _SLongArray {
    ULONG cValues;
    LONG* lpl;
} SLongArray;
typedef struct _SRealArray {
    ULONG cValues;
    float* lpflt;
} SRealArray;
typedef struct _SDoubleArray {
    ULONG cValues;
    double* lpdbl;
} SDoubleArray;
typedef struct _SCurrencyArray {
    ULONG cValues;
    CURRENCY* lpcur;
} SCurrencyArray;
typedef struct _SAppTimeArray {
    ULONG cValues;
    double* lpat;
} SAppTimeArray;
typedef struct _SDateTimeArray {
    ULONG cValues;
    FILETIME* lpft;
} SDateTimeArray;
typedef struct _SBinaryArray {
    ULONG cValues;
    SBinary* lpbin;
} SBinaryArray;
typedef struct _SLPSTRArray {
    ULONG cValues;
    LPSTR* lppszA;
} SLPSTRArray;
typedef struct _SWStringArray {
    ULONG cValues;
    LPWSTR* lppszW;
} SWStringArray;
typedef struct _SGuidArray {
    ULONG cValues;
    GUID* lpguid;
} SGuidArray;
typedef struct _SLargeIntegerArray {
    ULONG cValues;
    LARGE_INTEGER* lpli;
} SLargeIntegerArray;
typedef SBinaryArray ENTRYLIST, *LPENTRYLIST;

typedef union _PV {
    short int i;
    LONG l;
    ULONG ul;
    float flt;
    double dbl;
    unsigned short int b;
    CURRENCY cur;
    double at;
    FILETIME ft;
    LPSTR lpszA;
    SBinary bin;
    LPWSTR lpszW;
    LPGUID lpguid;
    LARGE_INTEGER li;
    SShortArray MVi;
    SLongArray MVl;
    SRealArray MVflt;
    SDoubleArray MVdbl;
    SCurrencyArray MVcur;
    SAppTimeArray MVat;
    SDateTimeArray MVft;
    SBinaryArray MVbin;
    SLPSTRArray MVszA;
    SWStringArray MVszW;
    SGuidArray MVguid;
    SLargeIntegerArray MVli;
    SCODE err;
    LONG x;
} __UPV;

typedef struct _SPropValue {
    ULONG ulPropTag;
    ULONG dwAlignPad;
    union _PV Value;
} SPropValue, *LPSPropValue;

typedef struct _SPropProblem {
    ULONG ulIndex;
    ULONG ulPropTag;
    SCODE scode;
} SPropProblem, *LPSPropProblem;

typedef struct _SPropProblemArray {
    ULONG cProblem;
    SPropProblem aProblem[MAPI_DIM];
} SPropProblemArray, *LPSPropProblemArray;

typedef struct _MAPIERROR {
    ULONG ulVersion;
    LPTSTR lpszError;
    LPTSTR lpszComponent;
    ULONG ulLowLevelError;
    ULONG ulContext;
} MAPIERROR, *LPMAPIERROR;

#define MNID_ID 0
#define MNID_STRING 1
typedef struct _MAPINAMEID {
    LPGUID lpguid;
    ULONG ulKind;
    union {
        LONG lID;
        LPWSTR lpwstrName;
    } Kind;
} MAPINAMEID, *LPMAPINAMEID;

/* ---- rows and address lists ---- */
typedef struct _SRow {
    ULONG ulAdrEntryPad;
    ULONG cValues;
    LPSPropValue lpProps;
} SRow, *LPSRow;

typedef struct _SRowSet {
    ULONG cRows;
    SRow aRow[MAPI_DIM];
} SRowSet, *LPSRowSet;
#define CbNewSRowSet(c) (offsetof(SRowSet, aRow) + (c) * sizeof(SRow))

typedef struct _ADRENTRY {
    ULONG ulReserved1;
    ULONG cValues;
    LPSPropValue rgPropVals;
} ADRENTRY, *LPADRENTRY;

typedef struct _ADRLIST {
    ULONG cEntries;
    ADRENTRY aEntries[MAPI_DIM];
} ADRLIST, *LPADRLIST;
#define CbNewADRLIST(c) (offsetof(ADRLIST, aEntries) + (c) * sizeof(ADRENTRY))

/* ---- restrictions ---- */
#define RES_AND ((ULONG)0x00000000)
#define RES_OR ((ULONG)0x00000001)
#define RES_NOT ((ULONG)0x00000002)
#define RES_CONTENT ((ULONG)0x00000003)
#define RES_PROPERTY ((ULONG)0x00000004)
#define RES_COMPAREPROPS ((ULONG)0x00000005)
#define RES_BITMASK ((ULONG)0x00000006)
#define RES_SIZE ((ULONG)0x00000007)
#define RES_EXIST ((ULONG)0x00000008)
#define RES_SUBRESTRICTION ((ULONG)0x00000009)
#define RES_COMMENT ((ULONG)0x0000000A)

#define RELOP_LT ((ULONG)0)
#define RELOP_LE ((ULONG)1)
#define RELOP_GT ((ULONG)2)
#define RELOP_GE ((ULONG)3)
#define RELOP_EQ ((ULONG)4)
#define RELOP_NE ((ULONG)5)
#define RELOP_RE ((ULONG)6)

#define FL_FULLSTRING ((ULONG)0x00000000)
#define FL_SUBSTRING ((ULONG)0x00000001)
#define FL_PREFIX ((ULONG)0x00000002)
#define FL_IGNORECASE ((ULONG)0x00010000)
#define FL_IGNORENONSPACE ((ULONG)0x00020000)
#define FL_LOOSE ((ULONG)0x00040000)

#define BMR_EQZ ((ULONG)0)
#define BMR_NEZ ((ULONG)1)

struct _SRestriction;
typedef struct _SAndRestriction {
    ULONG cRes;
    struct _SRestriction* lpRes;
} SAndRestriction;
typedef struct _SOrRestriction {
    ULONG cRes;
    struct _SRestriction* lpRes;
} SOrRestriction;
typedef struct _SNotRestriction {
    ULONG ulReserved;
    struct _SRestriction* lpRes;
} SNotRestriction;
typedef struct _SContentRestriction {
    ULONG ulFuzzyLevel;
    ULONG ulPropTag;
    LPSPropValue lpProp;
} SContentRestriction;
typedef struct _SPropertyRestriction {
    ULONG relop;
    ULONG ulPropTag;
    LPSPropValue lpProp;
} SPropertyRestriction;
typedef struct _SComparePropsRestriction {
    ULONG relop;
    ULONG ulPropTag1;
    ULONG ulPropTag2;
} SComparePropsRestriction;
typedef struct _SBitMaskRestriction {
    ULONG relBMR;
    ULONG ulPropTag;
    ULONG ulMask;
} SBitMaskRestriction;
typedef struct _SSizeRestriction {
    ULONG relop;
    ULONG ulPropTag;
    ULONG cb;
} SSizeRestriction;
typedef struct _SExistRestriction {
    ULONG ulReserved1;
    ULONG ulPropTag;
    ULONG ulReserved2;
} SExistRestriction;
typedef struct _SSubRestriction {
    ULONG ulSubObject;
    struct _SRestriction* lpRes;
} SSubRestriction;
typedef struct _SCommentRestriction {
    ULONG cValues;
    struct _SRestriction* lpRes;
    LPSPropValue lpProp;
} SCommentRestriction;

typedef struct _SRestriction {
    ULONG rt;
    union {
        SComparePropsRestriction resCompareProps;
        SAndRestriction resAnd;
        SOrRestriction resOr;
        SNotRestriction resNot;
        SContentRestriction resContent;
        SPropertyRestriction resProperty;
        SBitMaskRestriction resBitMask;
        SSizeRestriction resSize;
        SExistRestriction resExist;
        SSubRestriction resSub;
        SCommentRestriction resComment;
    } res;
} SRestriction, *LPSRestriction;

/* ---- sorting ---- */
#define TABLE_SORT_ASCEND ((ULONG)0x00000000)
#define TABLE_SORT_DESCEND ((ULONG)0x00000001)
#define TABLE_SORT_COMBINE ((ULONG)0x00000002)

typedef struct _SSortOrder {
    ULONG ulPropTag;
    ULONG ulOrder;
} SSortOrder, *LPSSortOrder;

typedef struct _SSortOrderSet {
    ULONG cSorts;
    ULONG cCategories;
    ULONG cExpanded;
    SSortOrder aSort[MAPI_DIM];
} SSortOrderSet, *LPSSortOrderSet;
#define CbNewSSortOrderSet(c) (offsetof(SSortOrderSet, aSort) + (c) * sizeof(SSortOrder))

/* ---- tables ---- */
typedef ULONG BOOKMARK;
#define BOOKMARK_BEGINNING ((BOOKMARK)0)
#define BOOKMARK_CURRENT ((BOOKMARK)1)
#define BOOKMARK_END ((BOOKMARK)2)

#define TBL_ALL_COLUMNS ((ULONG)0x00000001)
#define TBL_ASYNC ((ULONG)0x00000001)
#define TBL_BATCH ((ULONG)0x00000002)
#define TBL_NOADVANCE ((ULONG)0x00000001)
#define TBL_NOWAIT ((ULONG)0x00000001)

#define TBLSTAT_COMPLETE ((ULONG)0)
#define TBLTYPE_SNAPSHOT ((ULONG)0)
#define TBLTYPE_KEYSET ((ULONG)1)
#define TBLTYPE_DYNAMIC ((ULONG)2)

struct IMAPIAdviseSink;
typedef IMAPIAdviseSink* LPMAPIADVISESINK;
struct IMAPIProgress;
typedef IMAPIProgress* LPMAPIPROGRESS;
struct _NOTIFICATION;
typedef struct _NOTIFICATION* LPNOTIFICATION;

struct IMAPITable : public IUnknown {
    virtual HRESULT GetLastError(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) = 0;
    virtual HRESULT Advise(ULONG ulEventMask, LPMAPIADVISESINK lpAdviseSink, ULONG* lpulConnection) = 0;
    virtual HRESULT Unadvise(ULONG ulConnection) = 0;
    virtual HRESULT GetStatus(ULONG* lpulTableStatus, ULONG* lpulTableType) = 0;
    virtual HRESULT SetColumns(LPSPropTagArray lpPropTagArray, ULONG ulFlags) = 0;
    virtual HRESULT QueryColumns(ULONG ulFlags, LPSPropTagArray* lpPropTagArray) = 0;
    virtual HRESULT GetRowCount(ULONG ulFlags, ULONG* lpulCount) = 0;
    virtual HRESULT SeekRow(BOOKMARK bkOrigin, LONG lRowCount, LONG* lplRowsSought) = 0;
    virtual HRESULT SeekRowApprox(ULONG ulNumerator, ULONG ulDenominator) = 0;
    virtual HRESULT QueryPosition(ULONG* lpulRow, ULONG* lpulNumerator, ULONG* lpulDenominator) = 0;
    virtual HRESULT FindRow(LPSRestriction lpRestriction, BOOKMARK bkOrigin, ULONG ulFlags) = 0;
    virtual HRESULT Restrict(LPSRestriction lpRestriction, ULONG ulFlags) = 0;
    virtual HRESULT CreateBookmark(BOOKMARK* lpbkPosition) = 0;
    virtual HRESULT FreeBookmark(BOOKMARK bkPosition) = 0;
    virtual HRESULT SortTable(LPSSortOrderSet lpSortCriteria, ULONG ulFlags) = 0;
    virtual HRESULT QuerySortOrder(LPSSortOrderSet* lppSortCriteria) = 0;
    virtual HRESULT QueryRows(LONG lRowCount, ULONG ulFlags, LPSRowSet* lppRows) = 0;
    virtual HRESULT Abort() = 0;
    virtual HRESULT ExpandRow(ULONG cbInstanceKey, LPBYTE pbInstanceKey, ULONG ulRowCount, ULONG ulFlags,
                              LPSRowSet* lppRows, ULONG* lpulMoreRows) = 0;
    virtual HRESULT CollapseRow(ULONG cbInstanceKey, LPBYTE pbInstanceKey, ULONG ulFlags,
                                ULONG* lpulRowCount) = 0;
    virtual HRESULT WaitForCompletion(ULONG ulFlags, ULONG ulTimeout, ULONG* lpulTableStatus) = 0;
    virtual HRESULT GetCollapseState(ULONG ulFlags, ULONG cbInstanceKey, LPBYTE lpbInstanceKey,
                                     ULONG* lpcbCollapseState, LPBYTE* lppbCollapseState) = 0;
    virtual HRESULT SetCollapseState(ULONG ulFlags, ULONG cbCollapseState, LPBYTE pbCollapseState,
                                     BOOKMARK* lpbkLocation) = 0;
};
typedef IMAPITable* LPMAPITABLE;

/* ---- properties interface and its descendants ---- */
struct IMAPIProp : public IUnknown {
    virtual HRESULT GetLastError(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) = 0;
    virtual HRESULT SaveChanges(ULONG ulFlags) = 0;
    virtual HRESULT GetProps(LPSPropTagArray lpPropTagArray, ULONG ulFlags, ULONG* lpcValues,
                             LPSPropValue* lppPropArray) = 0;
    virtual HRESULT GetPropList(ULONG ulFlags, LPSPropTagArray* lppPropTagArray) = 0;
    virtual HRESULT OpenProperty(ULONG ulPropTag, LPCIID lpiid, ULONG ulInterfaceOptions, ULONG ulFlags,
                                 LPUNKNOWN* lppUnk) = 0;
    virtual HRESULT SetProps(ULONG cValues, LPSPropValue lpPropArray, LPSPropProblemArray* lppProblems) = 0;
    virtual HRESULT DeleteProps(LPSPropTagArray lpPropTagArray, LPSPropProblemArray* lppProblems) = 0;
    virtual HRESULT CopyTo(ULONG ciidExclude, LPCIID rgiidExclude, LPSPropTagArray lpExcludeProps,
                           ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress, LPCIID lpInterface,
                           LPVOID lpDestObj, ULONG ulFlags, LPSPropProblemArray* lppProblems) = 0;
    virtual HRESULT CopyProps(LPSPropTagArray lpIncludeProps, ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress,
                              LPCIID lpInterface, LPVOID lpDestObj, ULONG ulFlags,
                              LPSPropProblemArray* lppProblems) = 0;
    virtual HRESULT GetNamesFromIDs(LPSPropTagArray* lppPropTags, LPGUID lpPropSetGuid, ULONG ulFlags,
                                    ULONG* lpcPropNames, LPMAPINAMEID** lpppPropNames) = 0;
    virtual HRESULT GetIDsFromNames(ULONG cPropNames, LPMAPINAMEID* lppPropNames, ULONG ulFlags,
                                    LPSPropTagArray* lppPropTags) = 0;
};
typedef IMAPIProp* LPMAPIPROP;

struct IMAPIContainer : public IMAPIProp {
    virtual HRESULT GetContentsTable(ULONG ulFlags, LPMAPITABLE* lppTable) = 0;
    virtual HRESULT GetHierarchyTable(ULONG ulFlags, LPMAPITABLE* lppTable) = 0;
    virtual HRESULT OpenEntry(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG ulFlags,
                              ULONG* lpulObjType, LPUNKNOWN* lppUnk) = 0;
    virtual HRESULT SetSearchCriteria(LPSRestriction lpRestriction, LPENTRYLIST lpContainerList,
                                      ULONG ulSearchFlags) = 0;
    virtual HRESULT GetSearchCriteria(ULONG ulFlags, LPSRestriction* lppRestriction,
                                      LPENTRYLIST* lppContainerList, ULONG* lpulSearchState) = 0;
};
typedef IMAPIContainer* LPMAPICONTAINER;

struct IMessage;
typedef IMessage* LPMESSAGE;
struct IAttach;
typedef IAttach* LPATTACH;

#define FOLDER_ROOT ((ULONG)0x00000000)
#define FOLDER_GENERIC ((ULONG)0x00000001)
#define FOLDER_SEARCH ((ULONG)0x00000002)
#define DEL_MESSAGES ((ULONG)0x00000008)
#define DEL_FOLDERS ((ULONG)0x00000004)
#define DEL_ASSOCIATED ((ULONG)0x00000008)
#define OPEN_IF_EXISTS ((ULONG)0x00000001)
#define MESSAGE_DIALOG ((ULONG)0x00000002)
#define CLEAR_READ_FLAG ((ULONG)0x00000004)
#define SUPPRESS_RECEIPT ((ULONG)0x00000001)
#define GENERATE_RECEIPT_ONLY ((ULONG)0x00000010)
#define CLEAR_RN_PENDING ((ULONG)0x00000020)
#define CLEAR_NRN_PENDING ((ULONG)0x00000040)

struct IMAPIFolder : public IMAPIContainer {
    virtual HRESULT CreateMessage(LPCIID lpInterface, ULONG ulFlags, LPMESSAGE* lppMessage) = 0;
    virtual HRESULT CopyMessages(LPENTRYLIST lpMsgList, LPCIID lpInterface, LPVOID lpDestFolder,
                                 ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress, ULONG ulFlags) = 0;
    virtual HRESULT DeleteMessages(LPENTRYLIST lpMsgList, ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress,
                                   ULONG ulFlags) = 0;
    virtual HRESULT CreateFolder(ULONG ulFolderType, LPTSTR lpszFolderName, LPTSTR lpszFolderComment,
                                 LPCIID lpInterface, ULONG ulFlags, IMAPIFolder** lppFolder) = 0;
    virtual HRESULT CopyFolder(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, LPVOID lpDestFolder,
                               LPTSTR lpszNewFolderName, ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress,
                               ULONG ulFlags) = 0;
    virtual HRESULT DeleteFolder(ULONG cbEntryID, LPENTRYID lpEntryID, ULONG_PTR ulUIParam,
                                 LPMAPIPROGRESS lpProgress, ULONG ulFlags) = 0;
    virtual HRESULT SetReadFlags(LPENTRYLIST lpMsgList, ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress,
                                 ULONG ulFlags) = 0;
    virtual HRESULT GetMessageStatus(ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulFlags,
                                     ULONG* lpulMessageStatus) = 0;
    virtual HRESULT SetMessageStatus(ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulNewStatus,
                                     ULONG ulNewStatusMask, ULONG* lpulOldStatus) = 0;
    virtual HRESULT SaveContentsSort(LPSSortOrderSet lpSortCriteria, ULONG ulFlags) = 0;
    virtual HRESULT EmptyFolder(ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress, ULONG ulFlags) = 0;
};
typedef IMAPIFolder* LPMAPIFOLDER;

struct IMsgStore : public IMAPIProp {
    virtual HRESULT Advise(ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulEventMask,
                           LPMAPIADVISESINK lpAdviseSink, ULONG* lpulConnection) = 0;
    virtual HRESULT Unadvise(ULONG ulConnection) = 0;
    virtual HRESULT CompareEntryIDs(ULONG cbEntryID1, LPENTRYID lpEntryID1, ULONG cbEntryID2,
                                    LPENTRYID lpEntryID2, ULONG ulFlags, ULONG* lpulResult) = 0;
    virtual HRESULT OpenEntry(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG ulFlags,
                              ULONG* lpulObjType, LPUNKNOWN* lppUnk) = 0;
    virtual HRESULT SetReceiveFolder(LPTSTR lpszMessageClass, ULONG ulFlags, ULONG cbEntryID,
                                     LPENTRYID lpEntryID) = 0;
    virtual HRESULT GetReceiveFolder(LPTSTR lpszMessageClass, ULONG ulFlags, ULONG* lpcbEntryID,
                                     LPENTRYID* lppEntryID, LPTSTR* lppszExplicitClass) = 0;
    virtual HRESULT GetReceiveFolderTable(ULONG ulFlags, LPMAPITABLE* lppTable) = 0;
    virtual HRESULT StoreLogoff(ULONG* lpulFlags) = 0;
    virtual HRESULT AbortSubmit(ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulFlags) = 0;
    virtual HRESULT GetOutgoingQueue(ULONG ulFlags, LPMAPITABLE* lppTable) = 0;
    virtual HRESULT SetLockState(LPMESSAGE lpMessage, ULONG ulLockState) = 0;
    virtual HRESULT FinishedMsg(ULONG ulFlags, ULONG cbEntryID, LPENTRYID lpEntryID) = 0;
    virtual HRESULT NotifyNewMail(LPNOTIFICATION lpNotification) = 0;
};
typedef IMsgStore* LPMDB;

/* Recipient types. */
#define MAPI_ORIG 0
#define MAPI_TO 1
#define MAPI_CC 2
#define MAPI_BCC 3
#define MAPI_P1 0x10000000
#define MAPI_SUBMITTED 0x80000000

/* ModifyRecipients. */
#define MODRECIP_ADD ((ULONG)0x00000002)
#define MODRECIP_MODIFY ((ULONG)0x00000004)
#define MODRECIP_REMOVE ((ULONG)0x00000008)

/* SubmitMessage. */
#define FORCE_SUBMIT ((ULONG)0x00000001)

/* PR_MESSAGE_FLAGS. */
#define MSGFLAG_READ ((ULONG)0x00000001)
#define MSGFLAG_UNMODIFIED ((ULONG)0x00000002)
#define MSGFLAG_SUBMIT ((ULONG)0x00000004)
#define MSGFLAG_UNSENT ((ULONG)0x00000008)
#define MSGFLAG_HASATTACH ((ULONG)0x00000010)
#define MSGFLAG_FROMME ((ULONG)0x00000020)
#define MSGFLAG_ASSOCIATED ((ULONG)0x00000040)
#define MSGFLAG_RESEND ((ULONG)0x00000080)
#define MSGFLAG_RN_PENDING ((ULONG)0x00000100)
#define MSGFLAG_NRN_PENDING ((ULONG)0x00000200)

/* PR_ATTACH_METHOD. */
#define NO_ATTACHMENT ((ULONG)0x00000000)
#define ATTACH_BY_VALUE ((ULONG)0x00000001)
#define ATTACH_BY_REFERENCE ((ULONG)0x00000002)
#define ATTACH_BY_REF_RESOLVE ((ULONG)0x00000003)
#define ATTACH_BY_REF_ONLY ((ULONG)0x00000004)
#define ATTACH_EMBEDDED_MSG ((ULONG)0x00000005)
#define ATTACH_OLE ((ULONG)0x00000006)

struct IMessage : public IMAPIProp {
    virtual HRESULT GetAttachmentTable(ULONG ulFlags, LPMAPITABLE* lppTable) = 0;
    virtual HRESULT OpenAttach(ULONG ulAttachmentNum, LPCIID lpInterface, ULONG ulFlags,
                               LPATTACH* lppAttach) = 0;
    virtual HRESULT CreateAttach(LPCIID lpInterface, ULONG ulFlags, ULONG* lpulAttachmentNum,
                                 LPATTACH* lppAttach) = 0;
    virtual HRESULT DeleteAttach(ULONG ulAttachmentNum, ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress,
                                 ULONG ulFlags) = 0;
    virtual HRESULT GetRecipientTable(ULONG ulFlags, LPMAPITABLE* lppTable) = 0;
    virtual HRESULT ModifyRecipients(ULONG ulFlags, LPADRLIST lpMods) = 0;
    virtual HRESULT SubmitMessage(ULONG ulFlags) = 0;
    virtual HRESULT SetReadFlag(ULONG ulFlags) = 0;
};

struct IAttach : public IMAPIProp {};

/* Status objects: the rows of IMAPISession::GetStatusTable, opened with OpenEntry. */
#define MAPI_STORE_PROVIDER ((ULONG)33)
#define MAPI_AB_PROVIDER ((ULONG)35)
#define MAPI_TRANSPORT_PROVIDER ((ULONG)36)
#define MAPI_SPOOLER ((ULONG)37)
#define MAPI_SUBSYSTEM ((ULONG)39)

#define FLUSH_UPLOAD ((ULONG)0x00000002)
#define FLUSH_DOWNLOAD ((ULONG)0x00000004)
#define FLUSH_FORCE ((ULONG)0x00000008)
#define FLUSH_NO_UI ((ULONG)0x00000010)
#define FLUSH_ASYNC_OK ((ULONG)0x00000020)

struct IMAPIStatus : public IMAPIProp {
    virtual HRESULT ValidateState(ULONG_PTR ulUIParam, ULONG ulFlags) = 0;
    virtual HRESULT SettingsDialog(ULONG_PTR ulUIParam, ULONG ulFlags) = 0;
    virtual HRESULT ChangePassword(LPTSTR lpOldPass, LPTSTR lpNewPass, ULONG ulFlags) = 0;
    virtual HRESULT FlushQueues(ULONG_PTR ulUIParam, ULONG cbTargetTransport, LPENTRYID lpTargetTransport,
                                ULONG ulFlags) = 0;
};
typedef IMAPIStatus* LPMAPISTATUS;
