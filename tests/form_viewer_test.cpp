// The host of the mail client's forms, driven as a form drives it: through its three interfaces, on
// store, folder, message and form objects that record what was done to them. No MAPI library is bound
// here, so the form manager cannot be had and HrGetOneProp is not there.
#include <gtest/gtest.h>

#include <algorithm>

#include "mail/VelmarMAPIFormViewer.h"
#include "mail/VelmarMapi.h"
#include "support/ActivityList.h"
#include "tests/FakeMapiObjects.h"

namespace {

using velmar::test::CallLog;
using velmar::test::CFakeFolder;
using velmar::test::CFakeForm;
using velmar::test::CFakeMessage;
using velmar::test::CFakeStore;

// The window side: message boxes and forms on screen, counted.
class CRecordingHost : public velmar::mail::IFormHost {
public:
    ULONG_PTR ParentWindow() const override { return 0x1234; }
    bool Post(std::function<void()> task) override {
        task();
        return true;
    }
    std::shared_ptr<void> FormOnScreen(velmar::CComPtr<IMAPIForm>) override {
        ++onScreen;
        return std::shared_ptr<void>(nullptr, [this](void*) { --onScreen; });
    }
    void ShowMessage(const std::wstring& text) override { boxes.push_back(text); }

    int onScreen = 0;
    std::vector<std::wstring> boxes;
};

struct CFormSink : IMAPIFormAdviseSink {
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, LPVOID*) override { return E_NOINTERFACE; }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++references; }
    ULONG STDMETHODCALLTYPE Release() override { return --references; }
    HRESULT STDMETHODCALLTYPE OnChange(ULONG) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE OnActivateNext(LPCSTR, ULONG, ULONG, LPPERSISTMESSAGE*) override {
        return S_OK;
    }
    ULONG references = 1;
};

// A message in the inbox of a store with an outbox and a deleted-items folder.
class FormViewerTest : public ::testing::Test {
protected:
    FormViewerTest() {
        store.AddFolder(PR_IPM_OUTBOX_ENTRYID, outbox);
        store.AddFolder(PR_IPM_WASTEBASKET_ENTRYID, deletedItems);
    }

    CVelmarMAPIFormViewer* NewViewer(LPMAPIFOLDER folder = nullptr) {
        return new CVelmarMAPIFormViewer(&store, nullptr, folder ? folder : &inbox, &message, 0, host);
    }
    bool Logged(const std::string& line) const {
        return std::find(log.begin(), log.end(), line) != log.end();
    }

    CallLog log;
    CFakeStore store{"store", log};
    CFakeFolder inbox{"inbox", log};
    CFakeFolder outbox{"outbox", log};
    CFakeFolder deletedItems{"deleted", log};
    CFakeMessage message{"message", log};
    CFakeForm form{log};
    std::shared_ptr<CRecordingHost> host = std::make_shared<CRecordingHost>();
};

TEST_F(FormViewerTest, ThreeInterfacesShareOneCountAndTheLastReleaseLetsGoInOrder) {
    CVelmarMAPIFormViewer* viewer = NewViewer();
    EXPECT_EQ(store.References(), 2u);
    EXPECT_EQ(inbox.References(), 2u);
    EXPECT_EQ(message.References(), 2u);

    LPVOID unknown = nullptr;
    ASSERT_EQ(viewer->QueryInterface(IID_IUnknown, &unknown), S_OK);
    EXPECT_EQ(unknown, static_cast<IMAPIMessageSite*>(viewer));
    LPVOID site = nullptr;
    ASSERT_EQ(viewer->QueryInterface(IID_IMAPIMessageSite, &site), S_OK);
    EXPECT_EQ(site, unknown);
    LPVOID context = nullptr;
    ASSERT_EQ(viewer->QueryInterface(IID_IMAPIViewContext, &context), S_OK);
    EXPECT_EQ(context, static_cast<IMAPIViewContext*>(viewer));
    EXPECT_NE(context, unknown);
    LPVOID sink = nullptr;
    ASSERT_EQ(viewer->QueryInterface(IID_IMAPIViewAdviseSink, &sink), S_OK);
    EXPECT_EQ(sink, static_cast<IMAPIViewAdviseSink*>(viewer));
    LPVOID other = reinterpret_cast<LPVOID>(1);
    EXPECT_EQ(viewer->QueryInterface(IID_IMAPIForm, &other), E_NOINTERFACE);
    EXPECT_EQ(other, nullptr);

    // Five references now: released through each interface, they count down one number.
    auto* viewContext = static_cast<IMAPIViewContext*>(context);
    EXPECT_EQ(viewContext->AddRef(), 6u);
    EXPECT_EQ(viewContext->Release(), 5u);
    EXPECT_EQ(viewContext->Release(), 4u);
    EXPECT_EQ(static_cast<IMAPIViewAdviseSink*>(sink)->Release(), 3u);
    EXPECT_EQ(static_cast<IMAPIMessageSite*>(site)->Release(), 2u);
    EXPECT_EQ(static_cast<IUnknown*>(unknown)->Release(), 1u);

    viewer->SetPersist(&form, nullptr);
    EXPECT_EQ(form.References(), 2u);
    log.clear();
    EXPECT_EQ(viewer->Release(), 0u);
    EXPECT_EQ(log, (CallLog{"form HandsOffMessage", "message Release", "inbox Release", "store Release"}));
    EXPECT_EQ(form.References(), 1u);
    EXPECT_EQ(store.References(), 1u);
    EXPECT_EQ(message.References(), 1u);
}

TEST_F(FormViewerTest, WhatTheSiteHandsOutAndWhatItDoesNotOffer) {
    CVelmarMAPIFormViewer* viewer = NewViewer();
    EXPECT_EQ(viewer->GetSession(nullptr), S_FALSE);
    LPMAPISESSION session = reinterpret_cast<LPMAPISESSION>(1);
    EXPECT_EQ(viewer->GetSession(&session), S_FALSE);  // the viewer was given none
    EXPECT_EQ(session, nullptr);
    LPMDB gotStore = nullptr;
    EXPECT_EQ(viewer->GetStore(&gotStore), S_OK);
    EXPECT_EQ(gotStore, &store);
    EXPECT_EQ(store.References(), 3u);
    gotStore->Release();
    LPMESSAGE gotMessage = nullptr;
    EXPECT_EQ(viewer->GetMessage(&gotMessage), S_OK);
    EXPECT_EQ(gotMessage, &message);
    gotMessage->Release();
    EXPECT_EQ(viewer->GetFolder(nullptr), S_FALSE);

    ULONG status = 0;
    EXPECT_EQ(viewer->GetSiteStatus(&status), S_OK);
    EXPECT_EQ(status, 0x480000u);
    viewer->SetPersist(nullptr, &form);
    EXPECT_EQ(viewer->GetSiteStatus(&status), S_OK);
    EXPECT_EQ(status, 0x790000u);
    EXPECT_EQ(viewer->GetViewStatus(&status), S_OK);
    EXPECT_EQ(status, 0x10008u);
    EXPECT_EQ(viewer->GetViewStatus(nullptr), S_OK);
    EXPECT_EQ(viewer->ActivateNext(VCDIR_NEXT, nullptr), S_FALSE);

    EXPECT_EQ(viewer->GetLastError(S_OK, 0, nullptr), MAPI_E_NO_SUPPORT);
    EXPECT_EQ(viewer->CopyMessage(&outbox), MAPI_E_NO_SUPPORT);
    EXPECT_EQ(viewer->MoveMessage(&outbox, nullptr, nullptr), MAPI_E_NO_SUPPORT);
    EXPECT_EQ(viewer->GetPrintSetup(0, nullptr), MAPI_E_NO_SUPPORT);
    EXPECT_EQ(viewer->GetSaveStream(nullptr, nullptr, nullptr), MAPI_E_NO_SUPPORT);
    EXPECT_EQ(viewer->OnShutdown(), MAPI_E_NO_SUPPORT);
    EXPECT_EQ(viewer->OnNewMessage(), MAPI_E_NO_SUPPORT);
    EXPECT_EQ(viewer->OnPrint(1, S_OK), MAPI_E_NO_SUPPORT);
    EXPECT_EQ(viewer->OnSubmitted(), MAPI_E_NO_SUPPORT);
    EXPECT_EQ(viewer->OnSaved(), MAPI_E_NO_SUPPORT);
    // No MAPI library here: no form manager either.
    LPMAPIFORMMGR formMgr = reinterpret_cast<LPMAPIFORMMGR>(1);
    EXPECT_TRUE(FAILED(viewer->GetFormManager(&formMgr)));
    EXPECT_EQ(formMgr, nullptr);

    // The form's advise sink is kept with a reference of its own, let go when cleared or at the end.
    CFormSink sink;
    EXPECT_EQ(viewer->SetAdviseSink(&sink), S_OK);
    EXPECT_EQ(sink.references, 2u);
    EXPECT_EQ(viewer->SetAdviseSink(nullptr), S_OK);
    EXPECT_EQ(sink.references, 1u);
    viewer->SetAdviseSink(&sink);
    viewer->SetPersist(nullptr, nullptr);  // the form's persistence handed off
    EXPECT_EQ(form.References(), 1u);
    viewer->Release();
    EXPECT_EQ(sink.references, 1u);
    EXPECT_EQ(store.References(), 1u);
}

TEST_F(FormViewerTest, SaveAndSubmitGoThroughTheFormsPersistence) {
    CVelmarMAPIFormViewer* viewer = NewViewer();
    EXPECT_EQ(viewer->SaveMessage(), E_INVALIDARG);
    EXPECT_EQ(viewer->SubmitMessage(0), E_INVALIDARG);

    viewer->SetPersist(&form, nullptr);
    log.clear();
    EXPECT_EQ(viewer->SaveMessage(), S_OK);
    EXPECT_EQ(log, (CallLog{"form Save null 1", "message SaveChanges 2", "form SaveCompleted null"}));

    // The submit's own failure is deliberately not passed on; the message is the spooler's afterwards.
    message.submitResult = MAPI_E_NO_RECIPIENTS;
    log.clear();
    EXPECT_EQ(viewer->SubmitMessage(0x4), S_OK);
    EXPECT_EQ(log, (CallLog{"form Save message 1", "form HandsOffMessage", "message SubmitMessage 4",
                            "message Release"}));
    EXPECT_EQ(message.References(), 1u);
    LPMESSAGE gone = reinterpret_cast<LPMESSAGE>(1);
    EXPECT_EQ(viewer->GetMessage(&gone), S_FALSE);
    EXPECT_EQ(viewer->SaveMessage(), E_INVALIDARG);
    viewer->Release();
}

TEST_F(FormViewerTest, DeleteMovesToDeletedItemsAndSaysWhenTheStoreDeclines) {
    CVelmarMAPIFormViewer* viewer = NewViewer();
    EXPECT_EQ(viewer->DeleteMessage(nullptr, nullptr), S_OK);
    EXPECT_TRUE(Logged("store OpenEntry deleted flags 1"));
    EXPECT_TRUE(Logged("inbox CopyMessages message to deleted flags 1"));
    EXPECT_TRUE(host->boxes.empty());
    EXPECT_EQ(deletedItems.References(), 1u);

    inbox.copyResult = MAPI_E_DECLINE_COPY;
    EXPECT_EQ(viewer->DeleteMessage(nullptr, nullptr), MAPI_E_DECLINE_COPY);
    inbox.copyResult = MAPI_W_PARTIAL_COMPLETION;
    EXPECT_EQ(viewer->DeleteMessage(nullptr, nullptr), MAPI_W_PARTIAL_COMPLETION);
    EXPECT_EQ(host->boxes, (std::vector<std::wstring>{L"MAPI_E_DECLINE_COPY", L"MAPI_W_PARTIAL_COMPLETION"}));
    viewer->Release();

    // A viewer without a message has nothing to delete.
    auto* empty = new CVelmarMAPIFormViewer(&store, nullptr, &inbox, nullptr, 0, host);
    EXPECT_EQ(empty->DeleteMessage(nullptr, nullptr), E_INVALIDARG);
    empty->Release();
}

TEST_F(FormViewerTest, NewMessageIsComposedInTheOutboxWithASiteOfItsOwn) {
    CVelmarMAPIFormViewer* viewer = NewViewer();
    LPMESSAGE composed = nullptr;
    LPMAPIMESSAGESITE site = nullptr;
    LPMAPIVIEWCONTEXT context = reinterpret_cast<LPMAPIVIEWCONTEXT>(1);
    ASSERT_EQ(viewer->NewMessage(FALSE, &inbox, &form, &composed, &site, &context), S_OK);
    EXPECT_EQ(context, nullptr);
    ASSERT_EQ(outbox.created.size(), 1u);
    EXPECT_EQ(composed, outbox.created[0].get());
    EXPECT_TRUE(inbox.created.empty());
    ASSERT_NE(site, nullptr);
    ULONG status = 0;
    site->GetSiteStatus(&status);
    EXPECT_EQ(status, 0x790000u);  // the new form's persistence is set
    EXPECT_EQ(host->onScreen, 1);  // and the form it comes up in is on screen

    // Its site works on the new message: a submit goes through the new form.
    log.clear();
    EXPECT_EQ(site->SubmitMessage(0), S_OK);
    EXPECT_EQ(log.front(), "form Save message 1");
    EXPECT_TRUE(Logged("outbox/new SubmitMessage 0"));
    composed->Release();
    site->Release();
    EXPECT_EQ(host->onScreen, 0);
    EXPECT_EQ(outbox.References(), 1u);

    // Composing in the folder in focus, when asked to.
    ASSERT_EQ(viewer->NewMessage(TRUE, &deletedItems, nullptr, &composed, &site, nullptr), S_OK);
    EXPECT_EQ(deletedItems.created.size(), 1u);
    composed->Release();
    site->Release();
    viewer->Release();

    // A store without an outbox: the folder in focus, else the viewer's own.
    CFakeStore bare("bare", log);
    auto* plain = new CVelmarMAPIFormViewer(&bare, nullptr, &inbox, &message, 0, nullptr);
    ASSERT_EQ(plain->NewMessage(FALSE, nullptr, nullptr, &composed, &site, nullptr), S_OK);
    EXPECT_EQ(inbox.created.size(), 1u);
    composed->Release();
    site->Release();
    EXPECT_EQ(plain->NewMessage(FALSE, nullptr, nullptr, nullptr, &site, nullptr), E_INVALIDARG);
    plain->Release();
}

TEST(FormViewerOpen, WithoutAFormManagerTheMessageStaysClosedAndTheTraceSaysSo) {
    CallLog log;
    CFakeStore store("store", log);
    CFakeFolder inbox("inbox", log);
    CFakeMessage message("message", log);
    CActivityList activity;
    {
        CVelmarMapi mapi(&activity);
        activity.Clear();
        mapi.MapiOpenMessageNonModal(0, nullptr, &store, &inbox, &message);
    }
    const std::vector<std::wstring> lines = activity.Lines();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines[0], L"CVelmarMapi::MapiOpenMessageNonModal start");
    EXPECT_EQ(lines[1], L"CVelmarMapi::MapiOpenMessageNonModal MapiOpenFormMgr");
    EXPECT_EQ(lines[2].rfind(L"CVelmarMapi::MapiOpenMessageNonModal MapiOpenFormMgr failed", 0), 0u);
    EXPECT_EQ(lines[3], L"CVelmarMapi::MapiOpenMessageNonModal end");
    EXPECT_EQ(message.References(), 1u);
    EXPECT_EQ(store.References(), 1u);
}

}  // namespace
