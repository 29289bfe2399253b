// CVelmarMapi: opening a message in its form. The form manager of the mail system loads the form for the
// message's class; the form is shown non-modally and keeps its site, a CVelmarMAPIFormViewer, for as long
// as it is open.
#include "mail/MapiHelpers.h"
#include "mail/VelmarMAPIFormViewer.h"
#include "mail/VelmarMapi.h"

using velmar::CComPtr;
using velmar::mail::CTraceScope;
using velmar::mail::MapiBufferPtr;

namespace {

// The columns of the message that the form manager is given.
enum MessageColumn : ULONG { kMessageFlags, kMessageClass, kEntryId, kMessageColumnCount };
const SizedSPropTagArray(kMessageColumnCount, kMessageColumns) = {
    kMessageColumnCount, {PR_MESSAGE_FLAGS, PR_MESSAGE_CLASS_A, PR_ENTRYID}};

// A released viewer: the constructor leaves one reference with its creator.
struct CViewerRelease {
    void operator()(CVelmarMAPIFormViewer* viewer) const { viewer->Release(); }
};

}  // namespace

void CVelmarMapi::SetFormHost(std::shared_ptr<velmar::mail::IFormHost> host) {
    std::lock_guard lock(m_formHostLock);
    m_pFormHost = std::move(host);
}

ULONG_PTR CVelmarMapi::FormParentWindow() {
    std::lock_guard lock(m_formHostLock);
    return m_pFormHost ? m_pFormHost->ParentWindow() : 0;
}

void CVelmarMapi::OpenMessageForm(ULONG_PTR ulParentWindow, const CFoundMessage& found) {
    std::shared_ptr<velmar::mail::IFormHost> host;
    {
        std::lock_guard lock(m_formHostLock);
        host = m_pFormHost;
    }
    if (!host) {
        MapiOpenMessageNonModal(ulParentWindow, m_lpMAPISession.get(), found.store.get(), found.folder.get(),
                                found.message.get());
        return;
    }
    // The form's thread gets references of its own: the request lets go of its lookup at once.
    struct COpening {
        CComPtr<IMAPISession> session;
        CComPtr<IMsgStore> store;
        CComPtr<IMAPIFolder> folder;
        CComPtr<IMessage> message;
    };
    auto opening = std::make_shared<COpening>(COpening{CComPtr<IMAPISession>::AddRefed(m_lpMAPISession.get()),
                                                       CComPtr<IMsgStore>::AddRefed(found.store.get()),
                                                       CComPtr<IMAPIFolder>::AddRefed(found.folder.get()),
                                                       CComPtr<IMessage>::AddRefed(found.message.get())});
    const bool posted = host->Post([this, ulParentWindow, opening] {
        MapiOpenMessageNonModal(ulParentWindow, opening->session.get(), opening->store.get(),
                                opening->folder.get(), opening->message.get());
    });
    if (!posted) AddTrace(L"CVelmarMapi::FindMessage the window is closing: the message is not shown");
}

void CVelmarMapi::MapiOpenMessageNonModal(ULONG_PTR ulParentWindow, LPMAPISESSION lpMAPISession, LPMDB lpMDB,
                                          LPMAPIFOLDER lpFolder, LPMESSAGE lpMessage) {
    const CTraceScope trace(*this, L"CVelmarMapi::MapiOpenMessageNonModal");
    if (!lpMessage) return;
    std::shared_ptr<velmar::mail::IFormHost> host;
    {
        std::lock_guard lock(m_formHostLock);
        host = m_pFormHost;
    }

    trace.Step(L"MapiOpenFormMgr");
    CComPtr<IMAPIFormMgr> formMgr;
    HRESULT hr = velmar::mail::VMAPIOpenFormMgr(lpMAPISession, formMgr.Put());
    if (!formMgr) {
        trace.Step(L"MapiOpenFormMgr failed: " + HexTrace(static_cast<ULONG>(hr)));
        return;
    }

    trace.Step(L"GetProps");
    ULONG cValues = 0;
    LPSPropValue raw = nullptr;
    hr = lpMessage->GetProps(
        const_cast<LPSPropTagArray>(reinterpret_cast<const SPropTagArray*>(&kMessageColumns)), MAPI_UNICODE,
        &cValues, &raw);
    const MapiBufferPtr<SPropValue> props(raw);
    const auto valueOf = [&](MessageColumn column, ULONG type) -> const SPropValue* {
        if (!props || cValues != kMessageColumnCount) return nullptr;
        const SPropValue& value = props.get()[column];
        return PROP_TYPE(value.ulPropTag) == type ? &value : nullptr;
    };
    const SPropValue* flags = valueOf(kMessageFlags, PT_LONG);
    const SPropValue* messageClass = valueOf(kMessageClass, PT_STRING8);
    const SPropValue* entryId = valueOf(kEntryId, PT_BINARY);
    ULONG ulMessageStatus = 0;
    if (props && entryId && lpFolder) {
        trace.Step(L"GetMessageStatus");
        lpFolder->GetMessageStatus(entryId->Value.bin.cb, reinterpret_cast<LPENTRYID>(entryId->Value.bin.lpb),
                                   0, &ulMessageStatus);
    }

    trace.Step(L"new CVelmarMAPIFormViewer");
    const std::unique_ptr<CVelmarMAPIFormViewer, CViewerRelease> viewer(
        new CVelmarMAPIFormViewer(lpMDB, lpMAPISession, lpFolder, lpMessage, ulParentWindow, host));

    trace.Step(L"GetFormManager");
    CComPtr<IMAPIForm> form;
    CComPtr<IMAPIFormMgr> siteFormMgr;
    viewer->GetFormManager(siteFormMgr.Put());
    if (siteFormMgr) {
        trace.Step(L"LoadForm");
        hr = siteFormMgr->LoadForm(ulParentWindow, 0, messageClass ? messageClass->Value.lpszA : "IPM.Note",
                                   ulMessageStatus, flags ? static_cast<ULONG>(flags->Value.l) : 0, lpFolder,
                                   viewer.get(), lpMessage, viewer.get(), IID_IMAPIForm,
                                   reinterpret_cast<LPVOID*>(form.Put()));
        if (!form) trace.Step(L"LoadForm failed: " + HexTrace(static_cast<ULONG>(hr)));
        trace.Step(L"Release");
        siteFormMgr.Reset();
    }
    if (!form) return;

    trace.Step(L"CallDoVerb");
    viewer->SetPersist(form.get(), nullptr);
    form->DoVerb(EXCHIVERB_OPEN, nullptr, ulParentWindow, nullptr);

    trace.Step(L"GetViewContext");
    CComPtr<IMAPIViewContext> viewContext;
    form->GetViewContext(viewContext.Put());
    if (viewContext) {
        // The form is open and holds the viewer; the window knows of it until the viewer goes.
        trace.Step(L"Release");
        viewContext.Reset();
        if (host) viewer->KeepOnScreen(host->FormOnScreen(CComPtr<IMAPIForm>::AddRefed(form.get())));
    } else {
        trace.Step(L"ShutdownForm");
        form->ShutdownForm(SAVEOPTS_NOSAVE);
    }
}
