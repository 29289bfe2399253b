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
