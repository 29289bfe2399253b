#include "mapi/forms/qt/NoteForm.h"

#include <QDesktopServices>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QMessageBox>
#include <QSaveFile>
#include <QUrl>

#include "exchform.h"
#include "mapi/runtime/ProviderBuffers.h"
#include "mapiguid.h"
#include "mapitags.h"

namespace velmar::forms {
namespace {

using velmar::CComPtr;

// The class of the note form's objects.
DEFINE_GUID(CLSID_VelmarNoteForm, 0x46403f8f, 0xdbc4, 0x47ea, 0x88, 0x82, 0xeb, 0x7f, 0xb9, 0x83, 0x68, 0x69);

const QString kCaption = QStringLiteral("VelmarTaskScheduler");

// A file name from a message, made safe to put into a folder of ours: no folders, no hidden files.
QString SafeFileName(const QString& name) {
    QString safe = QFileInfo(QString(name).replace('\\', '/')).fileName();
    safe.remove(QChar(0));
    while (safe.startsWith('.')) safe.remove(0, 1);
    return safe.isEmpty() ? QStringLiteral("Anlage") : safe;
}

bool WriteFile(const QString& path, const QByteArray& bytes) {
    QSaveFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.commit();
}

}  // namespace

HRESULT CNoteForm::QueryInterface(REFIID riid, LPVOID* ppvObj) {
    if (!ppvObj) return E_INVALIDARG;
    *ppvObj = nullptr;
    if (riid == IID_IUnknown || riid == IID_IMAPIForm)
        *ppvObj = static_cast<IMAPIForm*>(this);
    else if (riid == IID_IPersistMessage)
        *ppvObj = static_cast<IPersistMessage*>(this);
    else
        return E_NOINTERFACE;
    AddRef();
    return S_OK;
}

HRESULT CNoteForm::SetViewContext(LPMAPIVIEWCONTEXT pViewContext) {
    m_viewContext = CComPtr<IMAPIViewContext>::AddRefed(pViewContext);
    return S_OK;
}

HRESULT CNoteForm::GetViewContext(LPMAPIVIEWCONTEXT* ppViewContext) {
    if (!ppViewContext) return E_INVALIDARG;
    *ppViewContext = m_viewContext.get();
    if (!m_viewContext) return S_FALSE;
    m_viewContext->AddRef();
    return S_OK;
}

HRESULT CNoteForm::ShutdownForm(ULONG ulSaveOptions) {
    const CComPtr<IMAPIForm> self = CComPtr<IMAPIForm>::AddRefed(this);
    if (Dirty() && m_site && ulSaveOptions != SAVEOPTS_NOSAVE) {
        QMessageBox::StandardButton answer = QMessageBox::Yes;
        if (ulSaveOptions == SAVEOPTS_PROMPTSAVE)
            answer = QMessageBox::question(m_composeWindow.get(), kCaption,
                                           QStringLiteral("M\u00f6chten Sie die \u00c4nderungen speichern?"),
                                           QMessageBox::Yes | QMessageBox::No | QMessageBox::Cancel);
        if (answer == QMessageBox::Cancel) return MAPI_E_USER_CANCEL;
        // A draft that could not be kept keeps its form: closing would lose what was written.
        if (answer == QMessageBox::Yes) {
            if (const HRESULT hr = m_site->SaveMessage(); FAILED(hr)) {
                Warn(QStringLiteral("Die Nachricht konnte nicht gespeichert werden."));
                return hr;
            }
        }
    }
    TearDown();
    return S_OK;
}

HRESULT CNoteForm::DoVerb(LONG iVerb, LPMAPIVIEWCONTEXT, ULONG_PTR, LPCRECT) {
    if (m_mode == EMode::Empty || !m_site) return MAPI_E_CALL_FAILED;
    switch (iVerb) {
        case EXCHIVERB_OPEN:
            Show();
            return S_OK;
        case EXCHIVERB_REPLYTOSENDER:
        case EXCHIVERB_REPLYTOALL:
        case EXCHIVERB_FORWARD:
            if (m_mode != EMode::Read) return MAPI_E_NO_SUPPORT;
            Answer(iVerb == EXCHIVERB_FORWARD      ? EAnswerKind::Forward
                   : iVerb == EXCHIVERB_REPLYTOALL ? EAnswerKind::ReplyAll
                                                   : EAnswerKind::Reply);
            return S_OK;
        default:
            return MAPI_E_NO_SUPPORT;
    }
}

HRESULT CNoteForm::Advise(LPMAPIVIEWADVISESINK pAdvise, ULONG_PTR* pdwStatus) {
    if (!pAdvise || !pdwStatus) return E_INVALIDARG;
    *pdwStatus = m_nextConnection++;
    m_sinks.emplace(*pdwStatus, CComPtr<IMAPIViewAdviseSink>::AddRefed(pAdvise));
    return S_OK;
}

HRESULT CNoteForm::Unadvise(ULONG_PTR ulConnection) {
    return m_sinks.erase(ulConnection) ? S_OK : MAPI_E_NOT_FOUND;
}

HRESULT CNoteForm::GetClassID(LPCLSID lpClassID) {
    if (!lpClassID) return E_INVALIDARG;
    *lpClassID = CLSID_VelmarNoteForm;
    return S_OK;
}

HRESULT CNoteForm::IsDirty() {
    return Dirty() ? S_OK : S_FALSE;
}

HRESULT CNoteForm::InitNew(LPMAPIMESSAGESITE pMessageSite, LPMESSAGE pMessage) {
    if (!pMessageSite || !pMessage) return E_INVALIDARG;
    if (m_mode != EMode::Empty) return E_UNEXPECTED;
    m_site = CComPtr<IMAPIMessageSite>::AddRefed(pMessageSite);
    m_message = CComPtr<IMessage>::AddRefed(pMessage);
    m_mode = EMode::Compose;
    return S_OK;
}

HRESULT CNoteForm::Load(LPMAPIMESSAGESITE pMessageSite, LPMESSAGE pMessage, ULONG, ULONG ulMessageFlags) {
    if (!pMessageSite || !pMessage) return E_INVALIDARG;
    if (m_mode != EMode::Empty) return E_UNEXPECTED;
    const HRESULT hr = ReadNote(pMessage, m_note);
    if (FAILED(hr)) return hr;
    m_site = CComPtr<IMAPIMessageSite>::AddRefed(pMessageSite);
    m_message = CComPtr<IMessage>::AddRefed(pMessage);
    // A draft that was never sent opens to be written on.
    if (ulMessageFlags & MSGFLAG_UNSENT) {
        m_compose = {
            RecipientField(m_note.to), RecipientField(m_note.cc), {}, m_note.subject, m_note.plainBody, {}};
        m_mode = EMode::Compose;
    } else {
        m_mode = EMode::Read;
    }
    return S_OK;
}

HRESULT CNoteForm::Save(LPMESSAGE pMessage, ULONG) {
    IMessage* target = pMessage ? pMessage : m_message.get();
    if (!target) return E_UNEXPECTED;
    // A read form changes nothing in its message.
    return m_mode == EMode::Compose ? WriteCompose(target, CurrentCompose()) : S_OK;
}

HRESULT CNoteForm::SaveCompleted(LPMESSAGE pMessage) {
    if (pMessage) m_message = CComPtr<IMessage>::AddRefed(pMessage);
    if (m_composeWindow) m_composeWindow->MarkClean();
    NotifySinks([](IMAPIViewAdviseSink* sink) { sink->OnSaved(); });
    return S_OK;
}

HRESULT CNoteForm::HandsOffMessage() {
    m_message.Reset();
    return S_OK;
}

void CNoteForm::Show() {
    if (!Window()) {
        if (m_mode == EMode::Read) {
            m_readWindow = std::make_unique<CReadWindow>(
                m_note, [this](const QString& contentId) { return InlineImage(contentId); },
                CReadActions{[this](EAnswerKind kind) { Answer(kind); }, [this] { Remove(); },
                             [this](const CNoteAttachment& attachment) { OpenAttachment(attachment); },
                             [this](const CNoteAttachment& attachment) { SaveAttachment(attachment); },
                             [this] { CloseRequested(); }});
        } else {
            m_composeWindow = std::make_unique<CComposeWindow>(
                m_compose, CComposeActions{[this] { Send(); }, [this] { CloseRequested(); },
                                           [this](const QString& text) { Warn(text); }});
        }
        AddRef();  // the window's reference, let go of in TearDown
    }
    QWidget* window = Window();
    window->show();
    window->raise();
    window->activateWindow();
}

void CNoteForm::Answer(EAnswerKind kind) {
    if (!m_site) return;
    CComposeContent content = AnswerContent(m_note, kind, OwnAddress());
    if (kind == EAnswerKind::Forward && m_message) {
        for (const CNoteAttachment& attachment : m_note.attachments) {
            // Pictures of the HTML body stay behind with it: the forward carries the text.
            if (!attachment.contentId.isEmpty() &&
                m_note.html.contains("cid:" + attachment.contentId.toUtf8()))
                continue;
            QByteArray bytes;
            if (FAILED(ReadAttachmentBytes(m_message.get(), attachment.number, bytes))) {
                Warn(QStringLiteral("Die Anlage %1 konnte nicht gelesen werden.").arg(attachment.fileName));
                continue;
            }
            content.attachments.push_back({SafeFileName(attachment.fileName), std::move(bytes)});
        }
    }
    CComPtr<CNoteForm> form(new CNoteForm);
    form->Prefill(std::move(content));
    CComPtr<IMessage> message;
    CComPtr<IMAPIMessageSite> site;
    CComPtr<IMAPIViewContext> viewContext;
    const HRESULT hr = m_site->NewMessage(FALSE, nullptr, static_cast<IPersistMessage*>(form.get()),
                                          message.Put(), site.Put(), viewContext.Put());
    if (FAILED(hr) || !message || !site || FAILED(form->InitNew(site.get(), message.get()))) {
        Warn(QStringLiteral("Die neue Nachricht konnte nicht angelegt werden."));
        return;
    }
    if (viewContext) form->SetViewContext(viewContext.get());
    form->Show();
}

void CNoteForm::Remove() {
    if (!m_site) return;
    const CComPtr<IMAPIForm> self = CComPtr<IMAPIForm>::AddRefed(this);
    const HRESULT hr = m_site->DeleteMessage(m_viewContext.get(), nullptr);
    // The site tells the user why a store would not take the message; other failures are told here.
    if (FAILED(hr)) {
        if (hr != MAPI_E_DECLINE_COPY)
            Warn(QStringLiteral("Die Nachricht konnte nicht gel\u00f6scht werden."));
        return;
    }
    TearDown();
}

void CNoteForm::Send() {
    if (!m_site || !m_composeWindow) return;
    const CComposeContent content = m_composeWindow->Content();
    std::vector<CNoteAddress> recipients;
    for (const QString* field : {&content.to, &content.cc, &content.bcc})
        for (CNoteAddress& address : ParseRecipientField(*field)) recipients.push_back(std::move(address));
    if (recipients.empty()) {
        Warn(QStringLiteral("Bitte geben Sie mindestens einen Empf\u00e4nger an."));
        return;
    }
    for (const CNoteAddress& address : recipients) {
        const qsizetype at = address.address.indexOf('@');
        if (at <= 0 || at == address.address.size() - 1 || address.address.contains(' ')) {
            Warn(QStringLiteral("\u201e%1\u201c ist keine g\u00fcltige E-Mail-Adresse.").arg(address.Text()));
            return;
        }
    }
    const CComPtr<IMAPIForm> self = CComPtr<IMAPIForm>::AddRefed(this);
    if (FAILED(m_site->SubmitMessage(0))) {
        Warn(QStringLiteral("Die Nachricht konnte nicht gesendet werden."));
        return;
    }
    NotifySinks([](IMAPIViewAdviseSink* sink) { sink->OnSubmitted(); });
    TearDown();
}

void CNoteForm::CloseRequested() {
    ShutdownForm(SAVEOPTS_PROMPTSAVE);
}

void CNoteForm::OpenAttachment(const CNoteAttachment& attachment) {
    QByteArray bytes;
    if (!m_message || FAILED(ReadAttachmentBytes(m_message.get(), attachment.number, bytes))) {
        Warn(QStringLiteral("Die Anlage %1 konnte nicht gelesen werden.").arg(attachment.fileName));
        return;
    }
    // A folder of the form's own (mode 0700) that goes with it; the file keeps its name, so the desktop
    // picks the application by it.
    if (!m_exportDir)
        m_exportDir = std::make_unique<QTemporaryDir>(QDir::tempPath() + "/velmar-anlagen-XXXXXX");
    const QString path = m_exportDir->filePath(SafeFileName(attachment.fileName));
    if (!m_exportDir->isValid() || !WriteFile(path, bytes) ||
        !QDesktopServices::openUrl(QUrl::fromLocalFile(path)))
        Warn(QStringLiteral("Die Anlage %1 konnte nicht ge\u00f6ffnet werden.").arg(attachment.fileName));
}

void CNoteForm::SaveAttachment(const CNoteAttachment& attachment) {
    QByteArray bytes;
    if (!m_message || FAILED(ReadAttachmentBytes(m_message.get(), attachment.number, bytes))) {
        Warn(QStringLiteral("Die Anlage %1 konnte nicht gelesen werden.").arg(attachment.fileName));
        return;
    }
    const QString path =
        QFileDialog::getSaveFileName(m_readWindow.get(), QStringLiteral("Anlage speichern unter"),
                                     QDir::home().filePath(SafeFileName(attachment.fileName)));
    if (!path.isEmpty() && !WriteFile(path, bytes))
        Warn(QStringLiteral("Die Anlage konnte nicht unter %1 gespeichert werden.").arg(path));
}

QByteArray CNoteForm::InlineImage(const QString& contentId) {
    QByteArray bytes;
    for (const CNoteAttachment& attachment : m_note.attachments)
        if (m_message && attachment.contentId.compare(contentId, Qt::CaseInsensitive) == 0) {
            // A part that cannot be read shows as no picture.
            if (FAILED(ReadAttachmentBytes(m_message.get(), attachment.number, bytes))) bytes.clear();
            break;
        }
    return bytes;
}

QString CNoteForm::OwnAddress() const {
    CComPtr<IMsgStore> store;
    if (!m_site || FAILED(m_site->GetStore(store.Put())) || !store) return {};
    LPSPropValue raw = nullptr;
    if (FAILED(HrGetOneProp(store.get(), PR_EMAIL_ADDRESS_W, &raw))) return {};
    const velmar::mapi::MapiBuffer<SPropValue> address(raw);
    return QString::fromWCharArray(address->Value.lpszW);
}

QWidget* CNoteForm::Window() const {
    return m_readWindow ? static_cast<QWidget*>(m_readWindow.get()) : m_composeWindow.get();
}

CComposeContent CNoteForm::CurrentCompose() const {
    return m_composeWindow ? m_composeWindow->Content() : m_compose;
}

bool CNoteForm::Dirty() const {
    return m_composeWindow && m_composeWindow->IsDirty();
}

void CNoteForm::Warn(const QString& text) {
    QMessageBox::warning(Window(), kCaption, text);
}

template <class Notify>
void CNoteForm::NotifySinks(Notify notify) {
    // A sink may unadvise from inside its notification: each is held while it is told.
    std::vector<CComPtr<IMAPIViewAdviseSink>> sinks;
    for (const auto& [connection, sink] : m_sinks)
        sinks.push_back(CComPtr<IMAPIViewAdviseSink>::AddRefed(sink.get()));
    for (const CComPtr<IMAPIViewAdviseSink>& sink : sinks) notify(sink.get());
}

void CNoteForm::TearDown() {
    const CComPtr<IMAPIForm> self = CComPtr<IMAPIForm>::AddRefed(this);
    const bool windowHeldForm = Window() != nullptr;
    m_readWindow.reset();
    m_composeWindow.reset();
    m_exportDir.reset();
    NotifySinks([](IMAPIViewAdviseSink* sink) { sink->OnShutdown(); });
    m_sinks.clear();
    m_viewContext.Reset();
    // The site may hold this form; it is let go of last, with the message before it.
    m_message.Reset();
    m_site.Reset();
    m_mode = EMode::Empty;
    if (windowHeldForm) Release();
}

}  // namespace velmar::forms
