#include "mail/VelmarMAPIFormViewer.h"

#include <utility>

#include "mail/MapiFunctions.h"
#include "mail/MapiHelpers.h"

using velmar::CComPtr;
using velmar::mail::MapiBufferPtr;

namespace {

// The site's status bits: what the site offers (delete, submit, new message), and save and move on top
// while a form's persistence is there to save through.
constexpr ULONG kSiteStatus = 0x480000;
constexpr ULONG kSiteStatusWithPersist = 0x790000;
// What the view offers: interactive, and delete.
constexpr ULONG kViewStatus = 0x10008;

// Hands out held with a reference added; S_FALSE for a null out-pointer or nothing held.
template <class T, class Out>
HRESULT HandOutHeld(const CComPtr<T>& held, Out** out) {
    if (!out) return S_FALSE;
    *out = held.get();
    if (!held) return S_FALSE;
    held->AddRef();
    return S_OK;
}

// One property of a MAPI object, or nothing.
MapiBufferPtr<SPropValue> GetOneProp(IMAPIProp* object, ULONG ulPropTag) {
    MapiBufferPtr<SPropValue> value;
    const auto getOne =
        velmar::mail::BoundMapiFunction<velmar::mail::PFN_HrGetOneProp>(velmar::mail::MapiSlot::HrGetOneProp);
    if (!getOne || !object) return value;
    LPSPropValue raw = nullptr;
    if (SUCCEEDED(getOne(object, ulPropTag, &raw))) value.reset(raw);
    return value;
}

// Opens the store's folder whose entry id the store keeps in ulIdTag, for writing.
HRESULT OpenStoreFolder(IMsgStore* lpMDB, ULONG ulIdTag, CComPtr<IMAPIFolder>& folder) {
    MapiBufferPtr<SPropValue> id;
    HRESULT hr = GetOneProp(lpMDB, ulIdTag, 0, id);
    if (FAILED(hr)) return hr;
    if (!id || PROP_TYPE(id->ulPropTag) != PT_BINARY) return MAPI_E_NOT_FOUND;
    ULONG ulObjType = 0;
    LPUNKNOWN opened = nullptr;
    hr = lpMDB->OpenEntry(id->Value.bin.cb, reinterpret_cast<LPENTRYID>(id->Value.bin.lpb), nullptr,
                          MAPI_MODIFY, &ulObjType, &opened);
    if (SUCCEEDED(hr) && opened) folder.Reset(static_cast<IMAPIFolder*>(opened));
    return hr;
}

}  // namespace

CVelmarMAPIFormViewer::CVelmarMAPIFormViewer(LPMDB lpMDB, LPMAPISESSION lpMAPISession, LPMAPIFOLDER lpFolder,
                                             LPMESSAGE lpMessage, ULONG_PTR ulParentWindow,
                                             std::shared_ptr<velmar::mail::IFormHost> host)
    : m_hwndParent(ulParentWindow ? ulParentWindow : velmar::mail::ActiveWindowHandle()),
      m_lpFolder(CComPtr<IMAPIFolder>::AddRefed(lpFolder)),
      m_lpMessage(CComPtr<IMessage>::AddRefed(lpMessage)),
      m_lpMDB(CComPtr<IMsgStore>::AddRefed(lpMDB)),
      m_lpMAPISession(CComPtr<IMAPISession>::AddRefed(lpMAPISession)),
      m_pHost(std::move(host)) {}

// The form is gone: its persistence lets go of the message before the message, folder, store, session and
// advise sink go, in that order.
CVelmarMAPIFormViewer::~CVelmarMAPIFormViewer() {
    if (m_lpPersistMessage) {
        m_lpPersistMessage->HandsOffMessage();
        m_lpPersistMessage.Reset();
    }
    m_lpMessage.Reset();
    m_lpFolder.Reset();
    m_lpMDB.Reset();
    m_lpMAPISession.Reset();
    m_lpMapiFormAdviseSink.Reset();
}

HRESULT CVelmarMAPIFormViewer::QueryInterface(REFIID riid, LPVOID* ppvObj) {
    if (!ppvObj) return E_INVALIDARG;
    *ppvObj = nullptr;
    if (riid == IID_IMAPIMessageSite || riid == IID_IUnknown)
        *ppvObj = static_cast<IMAPIMessageSite*>(this);
    else if (riid == IID_IMAPIViewAdviseSink)
        *ppvObj = static_cast<IMAPIViewAdviseSink*>(this);
    else if (riid == IID_IMAPIViewContext)
        *ppvObj = static_cast<IMAPIViewContext*>(this);
    else
        return E_NOINTERFACE;
    AddRef();
    return S_OK;
}

HRESULT CVelmarMAPIFormViewer::GetLastError(HRESULT, ULONG, LPMAPIERROR*) {
    return MAPI_E_NO_SUPPORT;
}

HRESULT CVelmarMAPIFormViewer::GetSession(LPMAPISESSION* ppSession) {
    return HandOutHeld(m_lpMAPISession, ppSession);
}

HRESULT CVelmarMAPIFormViewer::GetStore(LPMDB* ppStore) {
    return HandOutHeld(m_lpMDB, ppStore);
}

HRESULT CVelmarMAPIFormViewer::GetFolder(LPMAPIFOLDER* ppFolder) {
    return HandOutHeld(m_lpFolder, ppFolder);
}

HRESULT CVelmarMAPIFormViewer::GetMessage(LPMESSAGE* ppmsg) {
    return HandOutHeld(m_lpMessage, ppmsg);
}

HRESULT CVelmarMAPIFormViewer::GetFormManager(LPMAPIFORMMGR* ppFormMgr) {
    return velmar::mail::VMAPIOpenFormMgr(m_lpMAPISession.get(), ppFormMgr);
}

// A new message goes to the outbox; where the store names none, to the folder in focus, else to this
// message's folder.
HRESULT CVelmarMAPIFormViewer::NewMessage(ULONG fComposeInFolder, LPMAPIFOLDER pFolderFocus,
                                          LPPERSISTMESSAGE pPersistMessage, LPMESSAGE* ppMessage,
                                          LPMAPIMESSAGESITE* ppMessageSite,
                                          LPMAPIVIEWCONTEXT* ppViewContext) {
    if (!ppMessage || !ppMessageSite) return E_INVALIDARG;
    *ppMessage = nullptr;
    *ppMessageSite = nullptr;
    if (ppViewContext) *ppViewContext = nullptr;

    HRESULT hr = S_OK;
    CComPtr<IMAPIFolder> folder;
    if (!fComposeInFolder || !pFolderFocus) {
        hr = m_lpMDB ? OpenStoreFolder(m_lpMDB.get(), PR_IPM_OUTBOX_ENTRYID, folder) : E_INVALIDARG;
    }
    if (!folder) folder = CComPtr<IMAPIFolder>::AddRefed(pFolderFocus ? pFolderFocus : m_lpFolder.get());
    if (!folder) return FAILED(hr) ? hr : E_INVALIDARG;

    CComPtr<IMessage> message;
    hr = folder->CreateMessage(nullptr, 0, message.Put());
    if (!message) return FAILED(hr) ? hr : MAPI_E_CALL_FAILED;

    auto* site = new CVelmarMAPIFormViewer(m_lpMDB.get(), m_lpMAPISession.get(), folder.get(), message.get(),
                                           m_hwndParent, m_pHost);
    site->SetPersist(nullptr, pPersistMessage);
    // The new message's form comes up through this site: the window knows it is on screen.
    if (m_pHost && pPersistMessage) {
        CComPtr<IMAPIForm> form;
        if (SUCCEEDED(pPersistMessage->QueryInterface(IID_IMAPIForm, reinterpret_cast<LPVOID*>(form.Put()))))
            site->KeepOnScreen(m_pHost->FormOnScreen(std::move(form)));
    }
    *ppMessage = message.Detach();
    *ppMessageSite = site;
    return hr;
}

HRESULT CVelmarMAPIFormViewer::CopyMessage(LPMAPIFOLDER) {
    return MAPI_E_NO_SUPPORT;
}

HRESULT CVelmarMAPIFormViewer::MoveMessage(LPMAPIFOLDER, LPMAPIVIEWCONTEXT, LPCRECT) {
    return MAPI_E_NO_SUPPORT;
}

// Deleting moves the message to the store's deleted-items folder.
HRESULT CVelmarMAPIFormViewer::DeleteMessage(LPMAPIVIEWCONTEXT, LPCRECT) {
    if (!m_lpMDB || !m_lpFolder || !m_lpMessage) return E_INVALIDARG;
    MapiBufferPtr<SPropValue> entryId;
    HRESULT hr = GetOneProp(m_lpMessage.get(), PR_ENTRYID, 0, entryId);
    if (FAILED(hr)) return hr;
    if (!entryId) return MAPI_E_NOT_FOUND;

    CComPtr<IMAPIFolder> deletedItems;
    hr = OpenStoreFolder(m_lpMDB.get(), PR_IPM_WASTEBASKET_ENTRYID, deletedItems);
    if (!deletedItems) return FAILED(hr) ? hr : MAPI_E_NOT_FOUND;

    ENTRYLIST entries{1, &entryId->Value.bin};
    hr = m_lpFolder->CopyMessages(&entries, nullptr, deletedItems.get(), 0, nullptr, MESSAGE_MOVE);
    if (m_pHost) {
        if (hr == MAPI_E_DECLINE_COPY)
            m_pHost->ShowMessage(L"MAPI_E_DECLINE_COPY");
        else if (hr == MAPI_W_PARTIAL_COMPLETION)
            m_pHost->ShowMessage(L"MAPI_W_PARTIAL_COMPLETION");
    }
    return hr;
}

HRESULT CVelmarMAPIFormViewer::SaveMessage() {
    if (!m_lpPersistMessage || !m_lpMessage) return E_INVALIDARG;
    // Deliberate: the form's and the message's results are not looked at; the form hears of the save.
    m_lpPersistMessage->Save(nullptr, TRUE);
    m_lpMessage->SaveChanges(KEEP_OPEN_READWRITE);
    m_lpPersistMessage->SaveCompleted(nullptr);
    return S_OK;
}

HRESULT CVelmarMAPIFormViewer::SubmitMessage(ULONG ulFlags) {
    if (!m_lpPersistMessage || !m_lpMessage) return E_INVALIDARG;
    m_lpPersistMessage->Save(m_lpMessage.get(), TRUE);
    m_lpPersistMessage->HandsOffMessage();
    // The sent copy goes to the store's sent-items folder.
    if (const MapiBufferPtr<SPropValue> sentItems = GetOneProp(m_lpMDB.get(), PR_IPM_SENTMAIL_ENTRYID)) {
        SPropValue sentMail{};
        sentMail.ulPropTag = PR_SENTMAIL_ENTRYID;
        sentMail.Value.bin = sentItems->Value.bin;
        m_lpMessage->SetProps(1, &sentMail, nullptr);
    }
    // Deliberate: S_OK whatever the submit returned; the message is the spooler's from here.
    m_lpMessage->SubmitMessage(ulFlags);
    m_lpMessage.Reset();
    return S_OK;
}

HRESULT CVelmarMAPIFormViewer::GetSiteStatus(ULONG* lpulStatus) {
    if (lpulStatus) *lpulStatus = m_lpPersistMessage ? kSiteStatusWithPersist : kSiteStatus;
    return S_OK;
}

HRESULT CVelmarMAPIFormViewer::OnShutdown() {
    return MAPI_E_NO_SUPPORT;
}

HRESULT CVelmarMAPIFormViewer::OnNewMessage() {
    return MAPI_E_NO_SUPPORT;
}

HRESULT CVelmarMAPIFormViewer::OnPrint(ULONG, HRESULT) {
    return MAPI_E_NO_SUPPORT;
}

HRESULT CVelmarMAPIFormViewer::OnSubmitted() {
    return MAPI_E_NO_SUPPORT;
}

HRESULT CVelmarMAPIFormViewer::OnSaved() {
    return MAPI_E_NO_SUPPORT;
}

HRESULT CVelmarMAPIFormViewer::SetAdviseSink(LPMAPIFORMADVISESINK pmvns) {
    m_lpMapiFormAdviseSink = CComPtr<IMAPIFormAdviseSink>::AddRefed(pmvns);
    return S_OK;
}

// There is no list of messages to go on to.
HRESULT CVelmarMAPIFormViewer::ActivateNext(ULONG, LPCRECT) {
    return S_FALSE;
}

HRESULT CVelmarMAPIFormViewer::GetPrintSetup(ULONG, LPFORMPRINTSETUP*) {
    return MAPI_E_NO_SUPPORT;
}

HRESULT CVelmarMAPIFormViewer::GetSaveStream(ULONG*, ULONG*, LPSTREAM*) {
    return MAPI_E_NO_SUPPORT;
}

HRESULT CVelmarMAPIFormViewer::GetViewStatus(ULONG* lpulStatus) {
    if (lpulStatus) *lpulStatus = kViewStatus;
    return S_OK;
}

void CVelmarMAPIFormViewer::SetPersist(LPMAPIFORM lpForm, LPPERSISTMESSAGE lpPersistMessage) {
    if (m_lpPersistMessage) {
        m_lpPersistMessage->HandsOffMessage();
        m_lpPersistMessage.Reset();
    }
    // Deliberate: the flags are read and not used.
    if (m_lpMessage) {
        MapiBufferPtr<SPropValue> flags;
        static_cast<void>(GetOneProp(m_lpMessage.get(), PR_MESSAGE_FLAGS, 0, flags));
    }
    if (lpPersistMessage)
        m_lpPersistMessage = CComPtr<IPersistMessage>::AddRefed(lpPersistMessage);
    else if (lpForm)
        lpForm->QueryInterface(IID_IPersistMessage, reinterpret_cast<LPVOID*>(m_lpPersistMessage.Put()));
}
