// The note form: one object with IMAPIForm and IPersistMessage, for messages of the class "IPM.Note". A
// received message opens in the read window, a new one (or an unsent draft) in the compose window; its
// site does what the form cannot do itself: create answers (NewMessage), delete, save and submit. The
// form tells its view advise sinks when it is saved, submitted and shut down.
//
// Lives on the Qt application's thread. While its window is open it holds a reference to itself, so that
// the window outlives whoever opened it; closing the window, or ShutdownForm, lets go of the site, the view
// context and the message, and of that reference.
#pragma once

#include <QTemporaryDir>
#include <atomic>
#include <map>
#include <memory>

#include "mapi/forms/qt/ComposeWindow.h"
#include "mapi/forms/qt/NoteReply.h"
#include "mapi/forms/qt/ReadWindow.h"
#include "mapiform.h"
#include "support/ComPtr.h"
#include "support/RefCounted.h"

namespace velmar::forms {

class CNoteForm final : public IMAPIForm, public IPersistMessage, private velmar::CRefCounted {
public:
    CNoteForm() = default;
    CNoteForm(const CNoteForm&) = delete;
    CNoteForm& operator=(const CNoteForm&) = delete;

    // IUnknown, one count for both interfaces.
    HRESULT QueryInterface(REFIID riid, LPVOID* ppvObj) override;
    ULONG AddRef() override { return AddReference(); }
    ULONG Release() override { return ReleaseReference(); }
    // IMAPIForm and IPersistMessage.
    HRESULT GetLastError(HRESULT, ULONG, LPMAPIERROR*) override { return MAPI_E_NO_SUPPORT; }

    // IMAPIForm
    HRESULT SetViewContext(LPMAPIVIEWCONTEXT pViewContext) override;
    HRESULT GetViewContext(LPMAPIVIEWCONTEXT* ppViewContext) override;
    HRESULT ShutdownForm(ULONG ulSaveOptions) override;
    HRESULT DoVerb(LONG iVerb, LPMAPIVIEWCONTEXT lpViewContext, ULONG_PTR hwndParent,
                   LPCRECT lprcPosRect) override;
    HRESULT Advise(LPMAPIVIEWADVISESINK pAdvise, ULONG_PTR* pdwStatus) override;
    HRESULT Unadvise(ULONG_PTR ulConnection) override;

    // IPersistMessage
    HRESULT GetClassID(LPCLSID lpClassID) override;
    HRESULT IsDirty() override;
    HRESULT InitNew(LPMAPIMESSAGESITE pMessageSite, LPMESSAGE pMessage) override;
    HRESULT Load(LPMAPIMESSAGESITE pMessageSite, LPMESSAGE pMessage, ULONG ulMessageStatus,
                 ULONG ulMessageFlags) override;
    HRESULT Save(LPMESSAGE pMessage, ULONG fSameAsLoad) override;
    HRESULT SaveCompleted(LPMESSAGE pMessage) override;
    HRESULT HandsOffMessage() override;

    // What a new message's compose window starts with; before InitNew.
    void Prefill(CComposeContent content) { m_compose = std::move(content); }

private:
    enum class EMode { Empty, Read, Compose };

    ~CNoteForm() = default;

    void Show();
    void Answer(EAnswerKind kind);
    void Remove();
    void Send();
    // The window asks to close: a changed message may be saved first, or the close called off.
    void CloseRequested();
    void OpenAttachment(const CNoteAttachment& attachment);
    void SaveAttachment(const CNoteAttachment& attachment);
    QByteArray InlineImage(const QString& contentId);
    // The address of the store's owner, empty when the site does not say.
    QString OwnAddress() const;
    QWidget* Window() const;
    CComposeContent CurrentCompose() const;
    bool Dirty() const;
    void Warn(const QString& text);
    template <class Notify>
    void NotifySinks(Notify notify);
    // Closes the window and lets go of everything the form holds; the form itself may go with it.
    void TearDown();

    EMode m_mode = EMode::Empty;
    velmar::CComPtr<IMAPIMessageSite> m_site;
    velmar::CComPtr<IMessage> m_message;
    velmar::CComPtr<IMAPIViewContext> m_viewContext;
    std::map<ULONG_PTR, velmar::CComPtr<IMAPIViewAdviseSink>> m_sinks;
    ULONG_PTR m_nextConnection = 1;
    CNoteContent m_note;
    CComposeContent m_compose;
    // The form's window, one of the two, while it is open.
    std::unique_ptr<CReadWindow> m_readWindow;
    std::unique_ptr<CComposeWindow> m_composeWindow;
    std::unique_ptr<QTemporaryDir> m_exportDir;  // attachments opened with other programs
};

}  // namespace velmar::forms
