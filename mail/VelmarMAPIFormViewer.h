// CVelmarMAPIFormViewer: the host of a MAPI form. A form asks its message site where the message lives and
// has it carry out what the user does (new message, delete, save, submit); its view context tells it what
// the viewer offers. One object serves as site, view advise sink and view context, with one reference
// count across the three; it lives as long as the form and the sites it made hold it.
//
// Every call but AddRef and Release comes from the form on the thread that owns its windows.
#pragma once

#include <atomic>
#include <memory>

#include "mail/ClientMapiHolders.h"
#include "mail/FormHost.h"
#include "mail/MapiHeaders.h"
#include "support/RefCounted.h"

class CVelmarMAPIFormViewer : public IMAPIMessageSite,
                              public IMAPIViewAdviseSink,
                              public IMAPIViewContext,
                              private velmar::CRefCounted {
public:
    // Takes a reference to each interface given. ulParentWindow 0: the active window. host may be null
    // (no message boxes then).
    CVelmarMAPIFormViewer(LPMDB lpMDB, LPMAPISESSION lpMAPISession, LPMAPIFOLDER lpFolder,
                          LPMESSAGE lpMessage, ULONG_PTR ulParentWindow,
                          std::shared_ptr<velmar::mail::IFormHost> host);
    CVelmarMAPIFormViewer(const CVelmarMAPIFormViewer&) = delete;
    CVelmarMAPIFormViewer& operator=(const CVelmarMAPIFormViewer&) = delete;

    // IUnknown, shared by the three interfaces.
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, LPVOID* ppvObj) override;
    ULONG STDMETHODCALLTYPE AddRef() override { return AddReference(); }
    ULONG STDMETHODCALLTYPE Release() override { return ReleaseReference(); }

    // IMAPIMessageSite (GetLastError serves IMAPIViewContext too).
    HRESULT STDMETHODCALLTYPE GetLastError(HRESULT hResult, ULONG ulFlags,
                                           LPMAPIERROR* lppMAPIError) override;
    HRESULT STDMETHODCALLTYPE GetSession(LPMAPISESSION* ppSession) override;
    HRESULT STDMETHODCALLTYPE GetStore(LPMDB* ppStore) override;
    HRESULT STDMETHODCALLTYPE GetFolder(LPMAPIFOLDER* ppFolder) override;
    HRESULT STDMETHODCALLTYPE GetMessage(LPMESSAGE* ppmsg) override;
    HRESULT STDMETHODCALLTYPE GetFormManager(LPMAPIFORMMGR* ppFormMgr) override;
    HRESULT STDMETHODCALLTYPE NewMessage(ULONG fComposeInFolder, LPMAPIFOLDER pFolderFocus,
                                         LPPERSISTMESSAGE pPersistMessage, LPMESSAGE* ppMessage,
                                         LPMAPIMESSAGESITE* ppMessageSite,
                                         LPMAPIVIEWCONTEXT* ppViewContext) override;
    HRESULT STDMETHODCALLTYPE CopyMessage(LPMAPIFOLDER pFolderDestination) override;
    HRESULT STDMETHODCALLTYPE MoveMessage(LPMAPIFOLDER pFolderDestination, LPMAPIVIEWCONTEXT pViewContext,
                                          LPCRECT prcPosRect) override;
    HRESULT STDMETHODCALLTYPE DeleteMessage(LPMAPIVIEWCONTEXT pViewContext, LPCRECT prcPosRect) override;
    HRESULT STDMETHODCALLTYPE SaveMessage() override;
    HRESULT STDMETHODCALLTYPE SubmitMessage(ULONG ulFlags) override;
    HRESULT STDMETHODCALLTYPE GetSiteStatus(ULONG* lpulStatus) override;

    // IMAPIViewAdviseSink: the viewer has no view to update.
    HRESULT STDMETHODCALLTYPE OnShutdown() override;
    HRESULT STDMETHODCALLTYPE OnNewMessage() override;
    HRESULT STDMETHODCALLTYPE OnPrint(ULONG dwPageNumber, HRESULT hrStatus) override;
    HRESULT STDMETHODCALLTYPE OnSubmitted() override;
    HRESULT STDMETHODCALLTYPE OnSaved() override;

    // IMAPIViewContext.
    HRESULT STDMETHODCALLTYPE SetAdviseSink(LPMAPIFORMADVISESINK pmvns) override;
    HRESULT STDMETHODCALLTYPE ActivateNext(ULONG ulDir, LPCRECT prcPosRect) override;
    HRESULT STDMETHODCALLTYPE GetPrintSetup(ULONG ulFlags, LPFORMPRINTSETUP* lppFormPrintSetup) override;
    HRESULT STDMETHODCALLTYPE GetSaveStream(ULONG* pulFlags, ULONG* pulFormat, LPSTREAM* ppstm) override;
    HRESULT STDMETHODCALLTYPE GetViewStatus(ULONG* lpulStatus) override;

    // Makes persistMessage (or, when null, the form's IPersistMessage) the form's persistence that the site
    // saves and submits through; a former one is handed off first.
    void SetPersist(LPMAPIFORM lpForm, LPPERSISTMESSAGE lpPersistMessage);
    // The form shown through this site is on screen for as long as the viewer holds the token.
    void KeepOnScreen(std::shared_ptr<void> token) { m_onScreen = std::move(token); }

private:
    // The last slot of the site's table; only Release destroys the viewer.
    virtual ~CVelmarMAPIFormViewer();

    ULONG_PTR m_hwndParent;
    velmar::CComPtr<IMAPIFolder> m_lpFolder;
    velmar::CComPtr<IMessage> m_lpMessage;
    velmar::CComPtr<IMsgStore> m_lpMDB;
    velmar::CComPtr<IMAPISession> m_lpMAPISession;
    // What the form registers through SetAdviseSink.
    velmar::CComPtr<IMAPIFormAdviseSink> m_lpMapiFormAdviseSink;
    velmar::CComPtr<IPersistMessage> m_lpPersistMessage;
    std::shared_ptr<velmar::mail::IFormHost> m_pHost;
    std::shared_ptr<void> m_onScreen;
};
