/* MAPI forms: the form manager, the forms it loads, and the interfaces a form and its host (the message
   site and view context) talk through. Slot orders and parameters as in the SDK; the selection dialogs and
   form containers of the SDK are declared but this MAPI's form manager does not offer them. */
#pragma once

#include "mapix.h"

struct IPersistMessage;
struct IMAPIMessageSite;
struct IMAPIViewContext;
struct IMAPIViewAdviseSink;
struct IMAPIFormAdviseSink;
struct IMAPIFormInfo;
struct IMAPIFormMgr;
struct IMAPIFormContainer;
struct IMAPIForm;
typedef IPersistMessage* LPPERSISTMESSAGE;
typedef IMAPIMessageSite* LPMAPIMESSAGESITE;
typedef IMAPIViewContext* LPMAPIVIEWCONTEXT;
typedef IMAPIViewAdviseSink* LPMAPIVIEWADVISESINK;
typedef IMAPIFormAdviseSink* LPMAPIFORMADVISESINK;
typedef IMAPIFormInfo* LPMAPIFORMINFO;
typedef IMAPIFormMgr* LPMAPIFORMMGR;
typedef IMAPIFormContainer* LPMAPIFORMCONTAINER;
typedef IMAPIForm* LPMAPIFORM;
typedef ULONG HFRMREG;

typedef struct tagRECT {
    LONG left;
    LONG top;
    LONG right;
    LONG bottom;
} RECT, *LPRECT;
typedef const RECT* LPCRECT;
typedef CLSID* LPCLSID;

/* IMAPIForm::ShutdownForm save options. */
#define SAVEOPTS_SAVEIFDIRTY 0
#define SAVEOPTS_NOSAVE 1
#define SAVEOPTS_PROMPTSAVE 2

/* IMAPIViewContext::GetViewStatus. */
#define VCSTATUS_NEXT 0x00000001
#define VCSTATUS_PREV 0x00000002
#define VCSTATUS_MODAL 0x00000004
#define VCSTATUS_INTERACTIVE 0x00000008
#define VCSTATUS_READONLY 0x00000010
#define VCSTATUS_DELETE 0x00010000
#define VCSTATUS_COPY 0x00020000
#define VCSTATUS_MOVE 0x00040000
#define VCSTATUS_SUBMIT 0x00080000
#define VCSTATUS_DELETE_IS_MOVE 0x00100000
#define VCSTATUS_SAVE 0x00200000
#define VCSTATUS_NEW_MESSAGE 0x00400000

/* IMAPIViewContext::ActivateNext. */
#define VCDIR_NEXT VCSTATUS_NEXT
#define VCDIR_PREV VCSTATUS_PREV
#define VCDIR_DELETE VCSTATUS_DELETE
#define VCDIR_MOVE VCSTATUS_MOVE

typedef struct {
    ULONG ulFlags;
    HANDLE hDevMode;
    HANDLE hDevNames;
    ULONG ulFirstPageNumber;
    ULONG fPrintAttachments;
} FORMPRINTSETUP, *LPFORMPRINTSETUP;

struct IPersistMessage : public IUnknown {
    virtual HRESULT GetLastError(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) = 0;
    virtual HRESULT GetClassID(LPCLSID lpClassID) = 0;
    virtual HRESULT IsDirty() = 0;
    virtual HRESULT InitNew(LPMAPIMESSAGESITE pMessageSite, LPMESSAGE pMessage) = 0;
    virtual HRESULT Load(LPMAPIMESSAGESITE pMessageSite, LPMESSAGE pMessage, ULONG ulMessageStatus,
                         ULONG ulMessageFlags) = 0;
    virtual HRESULT Save(LPMESSAGE pMessage, ULONG fSameAsLoad) = 0;
    virtual HRESULT SaveCompleted(LPMESSAGE pMessage) = 0;
    virtual HRESULT HandsOffMessage() = 0;
};

struct IMAPIMessageSite : public IUnknown {
    virtual HRESULT GetLastError(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) = 0;
    virtual HRESULT GetSession(LPMAPISESSION* ppSession) = 0;
    virtual HRESULT GetStore(LPMDB* ppStore) = 0;
    virtual HRESULT GetFolder(LPMAPIFOLDER* ppFolder) = 0;
    virtual HRESULT GetMessage(LPMESSAGE* ppmsg) = 0;
    virtual HRESULT GetFormManager(LPMAPIFORMMGR* ppFormMgr) = 0;
    virtual HRESULT NewMessage(ULONG fComposeInFolder, LPMAPIFOLDER pFolderFocus,
                               LPPERSISTMESSAGE pPersistMessage, LPMESSAGE* ppMessage,
                               LPMAPIMESSAGESITE* ppMessageSite, LPMAPIVIEWCONTEXT* ppViewContext) = 0;
    virtual HRESULT CopyMessage(LPMAPIFOLDER pFolderDestination) = 0;
    virtual HRESULT MoveMessage(LPMAPIFOLDER pFolderDestination, LPMAPIVIEWCONTEXT pViewContext,
                                LPCRECT prcPosRect) = 0;
    virtual HRESULT DeleteMessage(LPMAPIVIEWCONTEXT pViewContext, LPCRECT prcPosRect) = 0;
    virtual HRESULT SaveMessage() = 0;
    virtual HRESULT SubmitMessage(ULONG ulFlags) = 0;
    virtual HRESULT GetSiteStatus(ULONG* lpulStatus) = 0;
};

struct IMAPIForm : public IUnknown {
    virtual HRESULT GetLastError(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) = 0;
    virtual HRESULT SetViewContext(LPMAPIVIEWCONTEXT pViewContext) = 0;
    virtual HRESULT GetViewContext(LPMAPIVIEWCONTEXT* ppViewContext) = 0;
    virtual HRESULT ShutdownForm(ULONG ulSaveOptions) = 0;
    virtual HRESULT DoVerb(LONG iVerb, LPMAPIVIEWCONTEXT lpViewContext, ULONG_PTR hwndParent,
                           LPCRECT lprcPosRect) = 0;
    virtual HRESULT Advise(LPMAPIVIEWADVISESINK pAdvise, ULONG_PTR* pdwStatus) = 0;
    virtual HRESULT Unadvise(ULONG_PTR ulConnection) = 0;
};

struct IMAPIViewContext : public IUnknown {
    virtual HRESULT GetLastError(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) = 0;
    virtual HRESULT SetAdviseSink(LPMAPIFORMADVISESINK pmvns) = 0;
    virtual HRESULT ActivateNext(ULONG ulDir, LPCRECT prcPosRect) = 0;
    virtual HRESULT GetPrintSetup(ULONG ulFlags, LPFORMPRINTSETUP* lppFormPrintSetup) = 0;
    virtual HRESULT GetSaveStream(ULONG* pulFlags, ULONG* pulFormat, LPSTREAM* ppstm) = 0;
    virtual HRESULT GetViewStatus(ULONG* lpulStatus) = 0;
};

struct IMAPIFormAdviseSink : public IUnknown {
    virtual HRESULT OnChange(ULONG ulDir) = 0;
    virtual HRESULT OnActivateNext(LPCSTR lpszMessageClass, ULONG ulMessageStatus, ULONG ulMessageFlags,
                                   LPPERSISTMESSAGE* ppPersistMessage) = 0;
};

struct IMAPIViewAdviseSink : public IUnknown {
    virtual HRESULT OnShutdown() = 0;
    virtual HRESULT OnNewMessage() = 0;
    virtual HRESULT OnPrint(ULONG dwPageNumber, HRESULT hrStatus) = 0;
    virtual HRESULT OnSubmitted() = 0;
    virtual HRESULT OnSaved() = 0;
};

typedef struct {
    ULONG cValues;
    LPCSTR aMessageClass[MAPI_DIM];
} SMESSAGECLASSARRAY, *LPSMESSAGECLASSARRAY;

typedef struct {
    ULONG cForms;
    LPMAPIFORMINFO aFormInfo[MAPI_DIM];
} SMAPIFORMINFOARRAY, *LPSMAPIFORMINFOARRAY;

struct SMAPIFormPropArray;
typedef SMAPIFormPropArray* LPMAPIFORMPROPARRAY;

struct IMAPIFormMgr : public IUnknown {
    virtual HRESULT GetLastError(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) = 0;
    virtual HRESULT LoadForm(ULONG_PTR ulUIParam, ULONG ulFlags, LPCSTR lpszMessageClass,
                             ULONG ulMessageStatus, ULONG ulMessageFlags, LPMAPIFOLDER pFolderFocus,
                             LPMAPIMESSAGESITE pMessageSite, LPMESSAGE pmsg, LPMAPIVIEWCONTEXT pViewContext,
                             REFIID riid, LPVOID* ppvObj) = 0;
    virtual HRESULT ResolveMessageClass(LPCSTR szMsgClass, ULONG ulFlags, LPMAPIFOLDER pFolderFocus,
                                        LPMAPIFORMINFO* ppResult) = 0;
    virtual HRESULT ResolveMultipleMessageClasses(LPSMESSAGECLASSARRAY pMsgClasses, ULONG ulFlags,
                                                  LPMAPIFOLDER pFolderFocus,
                                                  LPSMAPIFORMINFOARRAY* pfrminfoarray) = 0;
    virtual HRESULT CalcFormPropSet(LPSMAPIFORMINFOARRAY pfrminfoarray, ULONG ulFlags,
                                    LPMAPIFORMPROPARRAY* ppResults) = 0;
    virtual HRESULT CreateForm(ULONG_PTR ulUIParam, ULONG ulFlags, LPMAPIFORMINFO pfrminfoToActivate,
                               REFIID refiidToAsk, LPVOID* ppvObj) = 0;
    virtual HRESULT SelectForm(ULONG_PTR ulUIParam, ULONG ulFlags, LPCTSTR pszTitle, LPMAPIFOLDER pfld,
                               LPMAPIFORMINFO* ppfrminfoReturned) = 0;
    virtual HRESULT SelectMultipleForms(ULONG_PTR ulUIParam, ULONG ulFlags, LPCTSTR pszTitle,
                                        LPMAPIFOLDER pfld, LPSMAPIFORMINFOARRAY pfrminfoarray,
                                        LPSMAPIFORMINFOARRAY* ppfrminfoarray) = 0;
    virtual HRESULT SelectFormContainer(ULONG_PTR ulUIParam, ULONG ulFlags, LPMAPIFORMCONTAINER* lppfcnt) = 0;
    virtual HRESULT OpenFormContainer(HFRMREG hfrmreg, LPUNKNOWN lpunk, LPMAPIFORMCONTAINER* lppfcnt) = 0;
    virtual HRESULT PrepareForm(ULONG_PTR ulUIParam, ULONG ulFlags, LPMAPIFORMINFO pfrminfo) = 0;
    virtual HRESULT IsInConflict(ULONG ulMessageFlags, ULONG ulMessageStatus, LPCSTR szMessageClass,
                                 LPMAPIFOLDER pFolderFocus) = 0;
};

STDAPI MAPIOpenFormMgr(LPMAPISESSION pSession, LPMAPIFORMMGR* ppmgr);
