/* Extended MAPI: initialisation, logon, sessions, profile administration and the address book. */
#pragma once

#include "mapidefs.h"
#include "mapiguid.h"
#include "mapitags.h"

typedef SCODE(STDMETHODCALLTYPE ALLOCATEBUFFER)(ULONG cbSize, LPVOID* lppBuffer);
typedef SCODE(STDMETHODCALLTYPE ALLOCATEMORE)(ULONG cbSize, LPVOID lpObject, LPVOID* lppBuffer);
typedef ULONG(STDMETHODCALLTYPE FREEBUFFER)(LPVOID lpBuffer);
typedef ALLOCATEBUFFER* LPALLOCATEBUFFER;
typedef ALLOCATEMORE* LPALLOCATEMORE;
typedef FREEBUFFER* LPFREEBUFFER;

typedef struct {
    ULONG ulVersion;
    ULONG ulFlags;
} MAPIINIT_0, *LPMAPIINIT_0;
#define MAPI_INIT_VERSION 0
#define MAPI_MULTITHREAD_NOTIFICATIONS ((ULONG)0x00000001)
#define MAPI_NO_COINIT ((ULONG)0x00000008)

/* MAPILogonEx. */
#define MAPI_LOGON_UI ((ULONG)0x00000001)
#define MAPI_NEW_SESSION ((ULONG)0x00000002)
#define MAPI_ALLOW_OTHERS ((ULONG)0x00000008)
#define MAPI_EXPLICIT_PROFILE ((ULONG)0x00000010)
#define MAPI_EXTENDED ((ULONG)0x00000020)
#define MAPI_USE_DEFAULT ((ULONG)0x00000040)
#define MAPI_FORCE_DOWNLOAD ((ULONG)0x00001000)
#define MAPI_SERVICE_UI_ALWAYS ((ULONG)0x00002000)
#define MAPI_NO_MAIL ((ULONG)0x00008000)
#define MAPI_NT_SERVICE ((ULONG)0x00010000)
#define MAPI_PASSWORD_UI ((ULONG)0x00020000)
#define MAPI_TIMEOUT_SHORT ((ULONG)0x00100000)

/* IMAPISession::Logoff. */
#define MAPI_LOGOFF_SHARED ((ULONG)0x00000001)
#define MAPI_LOGOFF_UI ((ULONG)0x00000002)

/* IMAPISession::OpenMsgStore. */
#define MDB_NO_DIALOG ((ULONG)0x00000001)
#define MDB_WRITE ((ULONG)0x00000004)
#define MDB_TEMPORARY ((ULONG)0x00000020)
#define MDB_NO_MAIL ((ULONG)0x00000080)

struct IProfSect;
typedef IProfSect* LPPROFSECT;
struct IMsgServiceAdmin;
typedef IMsgServiceAdmin* LPSERVICEADMIN;
typedef struct _ADRPARM* LPADRPARM;
typedef void(STDMETHODCALLTYPE DISMISSMODELESS)(ULONG_PTR ulUIParam, LPVOID lpvContext);
typedef DISMISSMODELESS* LPFNDISMISS;
typedef SCODE(STDMETHODCALLTYPE* LPFNBUTTON)(ULONG_PTR ulUIParam, LPVOID lpvContext, ULONG cbEntryID,
                                             LPENTRYID lpSelection, ULONG ulFlags);

struct IAddrBook : public IMAPIProp {
    virtual HRESULT OpenEntry(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG ulFlags,
                              ULONG* lpulObjType, LPUNKNOWN* lppUnk) = 0;
    virtual HRESULT CompareEntryIDs(ULONG cbEntryID1, LPENTRYID lpEntryID1, ULONG cbEntryID2,
                                    LPENTRYID lpEntryID2, ULONG ulFlags, ULONG* lpulResult) = 0;
    virtual HRESULT Advise(ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulEventMask,
                           LPMAPIADVISESINK lpAdviseSink, ULONG* lpulConnection) = 0;
    virtual HRESULT Unadvise(ULONG ulConnection) = 0;
    virtual HRESULT CreateOneOff(LPTSTR lpszName, LPTSTR lpszAdrType, LPTSTR lpszAddress, ULONG ulFlags,
                                 ULONG* lpcbEntryID, LPENTRYID* lppEntryID) = 0;
    virtual HRESULT NewEntry(ULONG_PTR ulUIParam, ULONG ulFlags, ULONG cbEIDContainer,
                             LPENTRYID lpEIDContainer, ULONG cbEIDNewEntryTpl, LPENTRYID lpEIDNewEntryTpl,
                             ULONG* lpcbEIDNewEntry, LPENTRYID* lppEIDNewEntry) = 0;
    virtual HRESULT ResolveName(ULONG_PTR ulUIParam, ULONG ulFlags, LPTSTR lpszNewEntryTitle,
                                LPADRLIST lpAdrList) = 0;
    virtual HRESULT Address(ULONG_PTR* lpulUIParam, LPADRPARM lpAdrParms, LPADRLIST* lppAdrList) = 0;
    virtual HRESULT Details(ULONG_PTR* lpulUIParam, LPFNDISMISS lpfnDismiss, LPVOID lpvDismissContext,
                            ULONG cbEntryID, LPENTRYID lpEntryID, LPFNBUTTON lpfButtonCallback,
                            LPVOID lpvButtonContext, LPTSTR lpszButtonText, ULONG ulFlags) = 0;
    virtual HRESULT RecipOptions(ULONG_PTR ulUIParam, ULONG ulFlags, LPADRENTRY lpRecip) = 0;
    virtual HRESULT QueryDefaultRecipOpt(LPTSTR lpszAdrType, ULONG ulFlags, ULONG* lpcValues,
                                         LPSPropValue* lppOptions) = 0;
    virtual HRESULT GetPAB(ULONG* lpcbEntryID, LPENTRYID* lppEntryID) = 0;
    virtual HRESULT SetPAB(ULONG cbEntryID, LPENTRYID lpEntryID) = 0;
    virtual HRESULT GetDefaultDir(ULONG* lpcbEntryID, LPENTRYID* lppEntryID) = 0;
    virtual HRESULT SetDefaultDir(ULONG cbEntryID, LPENTRYID lpEntryID) = 0;
    virtual HRESULT GetSearchPath(ULONG ulFlags, LPSRowSet* lppSearchPath) = 0;
    virtual HRESULT SetSearchPath(ULONG ulFlags, LPSRowSet lpSearchPath) = 0;
    virtual HRESULT PrepareRecips(ULONG ulFlags, LPSPropTagArray lpPropTagArray, LPADRLIST lpRecipList) = 0;
};
typedef IAddrBook* LPADRBOOK;

struct IMAPISession : public IUnknown {
    virtual HRESULT GetLastError(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) = 0;
    virtual HRESULT GetMsgStoresTable(ULONG ulFlags, LPMAPITABLE* lppTable) = 0;
    virtual HRESULT OpenMsgStore(ULONG_PTR ulUIParam, ULONG cbEntryID, LPENTRYID lpEntryID,
                                 LPCIID lpInterface, ULONG ulFlags, LPMDB* lppMDB) = 0;
    virtual HRESULT OpenAddressBook(ULONG_PTR ulUIParam, LPCIID lpInterface, ULONG ulFlags,
                                    LPADRBOOK* lppAdrBook) = 0;
    virtual HRESULT OpenProfileSection(LPMAPIUID lpUID, LPCIID lpInterface, ULONG ulFlags,
                                       LPPROFSECT* lppProfSect) = 0;
    virtual HRESULT GetStatusTable(ULONG ulFlags, LPMAPITABLE* lppTable) = 0;
    virtual HRESULT OpenEntry(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG ulFlags,
                              ULONG* lpulObjType, LPUNKNOWN* lppUnk) = 0;
    virtual HRESULT CompareEntryIDs(ULONG cbEntryID1, LPENTRYID lpEntryID1, ULONG cbEntryID2,
                                    LPENTRYID lpEntryID2, ULONG ulFlags, ULONG* lpulResult) = 0;
    virtual HRESULT Advise(ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulEventMask,
                           LPMAPIADVISESINK lpAdviseSink, ULONG* lpulConnection) = 0;
    virtual HRESULT Unadvise(ULONG ulConnection) = 0;
    virtual HRESULT MessageOptions(ULONG_PTR ulUIParam, ULONG ulFlags, LPTSTR lpszAdrType,
                                   LPMESSAGE lpMessage) = 0;
    virtual HRESULT QueryDefaultMessageOpt(LPTSTR lpszAdrType, ULONG ulFlags, ULONG* lpcValues,
                                           LPSPropValue* lppOptions) = 0;
    virtual HRESULT EnumAdrTypes(ULONG ulFlags, ULONG* lpcAdrTypes, LPTSTR** lpppszAdrTypes) = 0;
    virtual HRESULT QueryIdentity(ULONG* lpcbEntryID, LPENTRYID* lppEntryID) = 0;
    virtual HRESULT Logoff(ULONG_PTR ulUIParam, ULONG ulFlags, ULONG ulReserved) = 0;
    virtual HRESULT SetDefaultStore(ULONG ulFlags, ULONG cbEntryID, LPENTRYID lpEntryID) = 0;
    virtual HRESULT AdminServices(ULONG ulFlags, LPSERVICEADMIN* lppServiceAdmin) = 0;
    virtual HRESULT ShowForm(ULONG_PTR ulUIParam, LPMDB lpMsgStore, LPMAPIFOLDER lpParentFolder,
                             LPCIID lpInterface, ULONG ulMessageToken, LPMESSAGE lpMessageSent, ULONG ulFlags,
                             ULONG ulMessageStatus, ULONG ulMessageFlags, ULONG ulAccess,
                             LPTSTR lpszMessageClass) = 0;
    virtual HRESULT PrepareForm(LPCIID lpInterface, LPMESSAGE lpMessage, ULONG* lpulMessageToken) = 0;
};
typedef IMAPISession* LPMAPISESSION;

struct IProfAdmin : public IUnknown {
    virtual HRESULT GetLastError(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) = 0;
    virtual HRESULT GetProfileTable(ULONG ulFlags, LPMAPITABLE* lppTable) = 0;
    virtual HRESULT CreateProfile(LPTSTR lpszProfileName, LPTSTR lpszPassword, ULONG_PTR ulUIParam,
                                  ULONG ulFlags) = 0;
    virtual HRESULT DeleteProfile(LPTSTR lpszProfileName, ULONG ulFlags) = 0;
    virtual HRESULT ChangeProfilePassword(LPTSTR lpszProfileName, LPTSTR lpszOldPassword,
                                          LPTSTR lpszNewPassword, ULONG ulFlags) = 0;
    virtual HRESULT CopyProfile(LPTSTR lpszOldProfileName, LPTSTR lpszOldPassword, LPTSTR lpszNewProfileName,
                                ULONG_PTR ulUIParam, ULONG ulFlags) = 0;
    virtual HRESULT RenameProfile(LPTSTR lpszOldProfileName, LPTSTR lpszOldPassword,
                                  LPTSTR lpszNewProfileName, ULONG_PTR ulUIParam, ULONG ulFlags) = 0;
    virtual HRESULT SetDefaultProfile(LPTSTR lpszProfileName, ULONG ulFlags) = 0;
    virtual HRESULT AdminServices(LPTSTR lpszProfileName, LPTSTR lpszPassword, ULONG_PTR ulUIParam,
                                  ULONG ulFlags, LPSERVICEADMIN* lppServiceAdmin) = 0;
};
typedef IProfAdmin* LPPROFADMIN;

STDAPI MAPIInitialize(LPVOID lpMapiInit);
STDAPI_(void) MAPIUninitialize(void);
STDAPI MAPILogonEx(ULONG_PTR ulUIParam, LPTSTR lpszProfileName, LPTSTR lpszPassword, ULONG ulFlags,
                   LPMAPISESSION* lppSession);
STDAPI_(SCODE) MAPIAllocateBuffer(ULONG cbSize, LPVOID* lppBuffer);
STDAPI_(SCODE) MAPIAllocateMore(ULONG cbSize, LPVOID lpObject, LPVOID* lppBuffer);
STDAPI_(ULONG) MAPIFreeBuffer(LPVOID lpBuffer);
STDAPI MAPIAdminProfiles(ULONG ulFlags, LPPROFADMIN* lppProfAdmin);
