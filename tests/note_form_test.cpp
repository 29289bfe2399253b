// The note form in-process on Qt's offscreen platform, over a real Maildir store of our MAPI and a site
// that records what the form asks of it: what the read form shows and what it never loads, forwarding
// with the attachments, saving a draft twice without doubling its recipients, sending only to valid
// addresses, the question on closing a changed message, deleting through the site, the advise sinks, and
// that every site goes when its form does (no reference cycle is left behind).
#include <gtest/gtest.h>

#include <QBuffer>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QTextBrowser>
#include <string>
#include <vector>

#include "exchform.h"
#include "mapi/forms/qt/NoteReply.h"
#include "mapiform.h"
#include "tests/MapiProviderFixture.h"
#include "tests/QtTestSupport.h"

extern "C" HRESULT VelmarCreateNoteForm(REFIID riid, LPVOID* ppvObj);

// Qt's strings in GoogleTest's messages.
inline void PrintTo(const QString& text, std::ostream* out) {
    *out << '"' << text.toStdString() << '"';
}

namespace {

using namespace velmar::test;
using namespace velmar::forms;
using velmar::CComPtr;

struct CSiteLog {
    int alive = 0;
    int saves = 0;
    HRESULT saveResult = S_OK;  // what SaveMessage answers
    int submits = 0;
    int deletes = 0;
    HRESULT deleteResult = S_OK;
    std::vector<CComPtr<IMessage>> newMessages;
    std::vector<IMAPIMessageSite*> newSites;  // not held: a site lives as long as its form holds it
};

// A message site that does what the viewer's site does with the form's persistence, and counts it.
class CRecordingSite final : public IMAPIMessageSite {
public:
    CRecordingSite(CSiteLog& log, IMAPIFolder* outbox, IMessage* message)
        : m_log(log),
          m_outbox(CComPtr<IMAPIFolder>::AddRefed(outbox)),
          m_message(CComPtr<IMessage>::AddRefed(message)) {
        ++m_log.alive;
    }
    void SetPersist(IPersistMessage* persist) { m_persist = CComPtr<IPersistMessage>::AddRefed(persist); }

    HRESULT QueryInterface(REFIID riid, LPVOID* ppvObj) override {
        *ppvObj = nullptr;
        if (riid != IID_IUnknown && riid != IID_IMAPIMessageSite) return E_NOINTERFACE;
        *ppvObj = static_cast<IMAPIMessageSite*>(this);
        AddRef();
        return S_OK;
    }
    ULONG AddRef() override { return ++m_cRef; }
    ULONG Release() override {
        const ULONG remaining = --m_cRef;
        if (remaining == 0) delete this;
        return remaining;
    }
    HRESULT GetLastError(HRESULT, ULONG, LPMAPIERROR*) override { return MAPI_E_NO_SUPPORT; }
    HRESULT GetSession(LPMAPISESSION*) override { return MAPI_E_NO_SUPPORT; }
    HRESULT GetStore(LPMDB*) override { return MAPI_E_NO_SUPPORT; }
    HRESULT GetFolder(LPMAPIFOLDER*) override { return MAPI_E_NO_SUPPORT; }
    HRESULT GetMessage(LPMESSAGE* ppmsg) override {
        *ppmsg = CComPtr<IMessage>::AddRefed(m_message.get()).Detach();
        return S_OK;
    }
    HRESULT GetFormManager(LPMAPIFORMMGR*) override { return MAPI_E_NO_SUPPORT; }
    HRESULT NewMessage(ULONG, LPMAPIFOLDER, LPPERSISTMESSAGE persist, LPMESSAGE* ppMessage,
                       LPMAPIMESSAGESITE* ppMessageSite, LPMAPIVIEWCONTEXT* ppViewContext) override {
        *ppViewContext = nullptr;
        CComPtr<IMessage> message;
        const HRESULT hr = m_outbox->CreateMessage(nullptr, 0, message.Put());
        if (FAILED(hr)) return hr;
        auto* site = new CRecordingSite(m_log, m_outbox.get(), message.get());
        site->SetPersist(persist);
        m_log.newSites.push_back(site);
        m_log.newMessages.push_back(CComPtr<IMessage>::AddRefed(message.get()));
        *ppMessage = message.Detach();
        *ppMessageSite = site;
        return S_OK;
    }
    HRESULT CopyMessage(LPMAPIFOLDER) override { return MAPI_E_NO_SUPPORT; }
    HRESULT MoveMessage(LPMAPIFOLDER, LPMAPIVIEWCONTEXT, LPCRECT) override { return MAPI_E_NO_SUPPORT; }
    HRESULT DeleteMessage(LPMAPIVIEWCONTEXT, LPCRECT) override {
        ++m_log.deletes;
        return m_log.deleteResult;
    }
    HRESULT SaveMessage() override {
        if (FAILED(m_log.saveResult)) return m_log.saveResult;  // a store that cannot write
        m_persist->Save(nullptr, TRUE);
        m_message->SaveChanges(KEEP_OPEN_READWRITE);
        m_persist->SaveCompleted(nullptr);
        ++m_log.saves;
        return S_OK;
    }
    HRESULT SubmitMessage(ULONG) override {
        m_persist->Save(m_message.get(), TRUE);
        m_persist->HandsOffMessage();
        ++m_log.submits;
        return S_OK;
    }
    HRESULT GetSiteStatus(ULONG* status) override {
        *status = 0;
        return S_OK;
    }

private:
    ~CRecordingSite() { --m_log.alive; }

    std::atomic<ULONG> m_cRef{1};
    CSiteLog& m_log;
    CComPtr<IMAPIFolder> m_outbox;
    CComPtr<IMessage> m_message;
    CComPtr<IPersistMessage> m_persist;
};

class CRecordingSink final : public IMAPIViewAdviseSink {
public:
    HRESULT QueryInterface(REFIID, LPVOID* ppvObj) override {
        *ppvObj = nullptr;
        return E_NOINTERFACE;
    }
    ULONG AddRef() override { return 2; }  // lives on the test's stack
    ULONG Release() override { return 1; }
    HRESULT OnShutdown() override { return Note("shutdown"); }
    HRESULT OnNewMessage() override { return Note("new"); }
    HRESULT OnPrint(ULONG, HRESULT) override { return Note("print"); }
    HRESULT OnSubmitted() override { return Note("submitted"); }
    HRESULT OnSaved() override { return Note("saved"); }

    std::vector<std::string> events;

private:
    HRESULT Note(const char* event) {
        events.push_back(event);
        return S_OK;
    }
};

class NoteFormTest : public CMapiProviderTest {
protected:
    void SetUp() override {
        CMapiProviderTest::SetUp();
        m_session = Logon(L"Arbeit");
        m_store = OpenStore(m_session.get(), 0);
        m_inbox = Inbox(m_store.get());
        m_outbox = StoreFolder(m_store.get(), PR_IPM_OUTBOX_ENTRYID);
        ASSERT_TRUE(m_outbox);
    }
    void TearDown() override {
        m_log.newMessages.clear();
        m_outbox.Reset();
        m_inbox.Reset();
        m_store.Reset();
        m_session.Reset();
        // Every site went with its form: nothing holds a form and its site in a circle.
        EXPECT_EQ(m_log.alive, 0);
        CMapiProviderTest::TearDown();
    }

    // A new form with the message loaded, on a recording site that holds the form as its persistence.
    CComPtr<IMAPIForm> LoadedForm(IMessage* message, ULONG flags) {
        CComPtr<IMAPIForm> form;
        EXPECT_EQ(VelmarCreateNoteForm(IID_IMAPIForm, reinterpret_cast<LPVOID*>(form.Put())), S_OK);
        CComPtr<IPersistMessage> persist;
        EXPECT_EQ(form->QueryInterface(IID_IPersistMessage, reinterpret_cast<LPVOID*>(persist.Put())), S_OK);
        CComPtr<CRecordingSite> site(new CRecordingSite(m_log, m_outbox.get(), message));
        site->SetPersist(persist.get());
        EXPECT_EQ(form->DoVerb(EXCHIVERB_OPEN, nullptr, 0, nullptr), MAPI_E_CALL_FAILED) << "nothing loaded";
        EXPECT_EQ(persist->Load(site.get(), message, 0, flags), S_OK);
        EXPECT_EQ(persist->Load(site.get(), message, 0, flags), E_UNEXPECTED);
        return form;
    }

    // The read window of an inbox message, opened through its form (held by form) as the viewer opens it;
    // null when none came up.
    QWidget* OpenedReadWindow(const char* messageId, const QString& title, CComPtr<IMAPIForm>& form) {
        CComPtr<IMessage> message = FindMessage(m_store.get(), m_inbox.get(), messageId);
        if (!message) return nullptr;
        form = LoadedForm(message.get(), MSGFLAG_READ);
        EXPECT_EQ(form->DoVerb(EXCHIVERB_OPEN, nullptr, 0, nullptr), S_OK);
        return Window(title);
    }

    CComPtr<IMessage> Draft(const wchar_t* subject) {
        CComPtr<IMessage> draft;
        EXPECT_EQ(m_outbox->CreateMessage(nullptr, 0, draft.Put()), S_OK);
        SetWideProp(draft.get(), PR_SUBJECT_W, subject);
        EXPECT_EQ(draft->SaveChanges(KEEP_OPEN_READWRITE), S_OK);
        return draft;
    }

    static QWidget* Window(const QString& title) {
        for (QWidget* widget : QApplication::topLevelWidgets())
            if (widget->isVisible() && widget->windowTitle() == title) return widget;
        return nullptr;
    }
    static QPushButton* Button(QWidget* window, const QString& text) {
        for (QPushButton* button : window->findChildren<QPushButton*>())
            if (button->text() == text) return button;
        return nullptr;
    }
    // The compose window's line edits: An, Cc, Bcc, Betreff.
    static std::vector<QLineEdit*> Fields(QWidget* window) {
        std::vector<QLineEdit*> fields;
        for (QLabel* label : window->findChildren<QLabel*>())
            if (auto* edit = qobject_cast<QLineEdit*>(label->buddy())) fields.push_back(edit);
        return fields;
    }
    struct CAttachmentInfo {
        std::wstring name;
        std::string bytes;
    };
    static std::vector<CAttachmentInfo> Attachments(IMessage* message) {
        CComPtr<IMAPITable> table;
        EXPECT_EQ(message->GetAttachmentTable(MAPI_UNICODE, table.Put()), S_OK);
        CRowsHolder rows;
        EXPECT_EQ(HrQueryAllRows(table.get(), nullptr, nullptr, nullptr, 0, &rows.rows), S_OK);
        std::vector<CAttachmentInfo> attachments;
        for (ULONG r = 0; r < rows.rows->cRows; ++r) {
            const SRow& row = rows.rows->aRow[r];
            const SPropValue* number = PpropFindProp(row.lpProps, row.cValues, PR_ATTACH_NUM);
            const SPropValue* name = PpropFindProp(row.lpProps, row.cValues, PR_ATTACH_LONG_FILENAME_W);
            CComPtr<IAttach> attach;
            EXPECT_EQ(message->OpenAttach(static_cast<ULONG>(number->Value.l), nullptr, 0, attach.Put()),
                      S_OK);
            attachments.push_back(
                {name ? name->Value.lpszW : L"", StreamProp(attach.get(), PR_ATTACH_DATA_BIN)});
        }
        return attachments;
    }

    CSiteLog m_log;
    CComPtr<IMAPISession> m_session;
    CComPtr<IMsgStore> m_store;
    CComPtr<IMAPIFolder> m_inbox;
    CComPtr<IMAPIFolder> m_outbox;
};

TEST_F(NoteFormTest, ReadFormShowsTheMessageSafelyForwardsItsAttachmentAndDeletesThroughItsSite) {
    Deliver(m_mainPath, "1700000000.M1P1.host", kRichMessage);
    CComPtr<IMessage> message = FindMessage(m_store.get(), m_inbox.get(), "<rich-1@example.org>");
    ASSERT_TRUE(message);
    CComPtr<IMAPIForm> form = LoadedForm(message.get(), MSGFLAG_READ);
    CRecordingSink sink;
    ULONG_PTR connection = 0;
    ASSERT_EQ(form->Advise(&sink, &connection), S_OK);
    ASSERT_EQ(form->DoVerb(EXCHIVERB_OPEN, nullptr, 0, nullptr), S_OK);

    QWidget* window = Window("Grüße aus Köln");
    ASSERT_TRUE(window) << "the read window is titled with the subject";
    QStringList labels;
    for (QLabel* label : window->findChildren<QLabel*>()) labels << label->text();
    EXPECT_TRUE(labels.contains("Jürgen Müller <juergen@example.org>")) << labels.join('|').toStdString();
    EXPECT_TRUE(labels.contains("Anna <anna@example.org>; bob@example.org"))
        << labels.join('|').toStdString();
    const QDateTime sent(QDate(2024, 3, 3), QTime(8, 5), Qt::UTC);
    EXPECT_TRUE(labels.contains(sent.toLocalTime().toString("dd.MM.yyyy HH:mm")))
        << labels.join('|').toStdString();
    auto* body = window->findChild<QTextBrowser*>();
    ASSERT_TRUE(body);
    EXPECT_TRUE(body->toPlainText().contains("Grüße"));
    // The picture the HTML shows in place is not listed as an attachment.
    auto* attachments = window->findChild<QListWidget*>();
    ASSERT_TRUE(attachments);
    ASSERT_EQ(attachments->count(), 1);
    EXPECT_TRUE(attachments->item(0)->text().startsWith("Rechnung März.pdf"));

    // Weiterleiten: a compose form on a new message of the site, with the attachment and the original.
    Button(window, "&Weiterleiten")->click();
    QWidget* forward = nullptr;
    ASSERT_TRUE(ProcessUntil([&] { return (forward = Window("WG: Grüße aus Köln")); }));
    ASSERT_EQ(m_log.newSites.size(), 1u);
    EXPECT_TRUE(Fields(forward).at(0)->text().isEmpty()) << "a forward is addressed by the user";
    m_log.newSites[0]->SaveMessage();
    IMessage* draft = m_log.newMessages.at(0).get();
    EXPECT_EQ(WideProp(draft, PR_SUBJECT_W), L"WG: Grüße aus Köln");
    const std::wstring bodyText = WideProp(draft, PR_BODY_W);
    EXPECT_NE(bodyText.find(L"-----Ursprüngliche Nachricht-----"), std::wstring::npos) << bodyText;
    EXPECT_NE(bodyText.find(L"Betreff: Grüße aus Köln"), std::wstring::npos) << bodyText;
    const std::vector<CAttachmentInfo> carried = Attachments(draft);
    ASSERT_EQ(carried.size(), 1u) << "the inline picture stays behind";
    EXPECT_EQ(carried[0].name, L"Rechnung März.pdf");
    EXPECT_EQ(carried[0].bytes, "%PDF-1.4\n");
    Button(forward, "S&chließen")->click();
    EXPECT_TRUE(ProcessUntil([&] { return !Window("WG: Grüße aus Köln"); }))
        << "a saved forward closes without a question";

    // Löschen: a store that declines keeps the form open (the site has said why); then it goes.
    m_log.deleteResult = MAPI_E_DECLINE_COPY;
    Button(window, "&Löschen")->click();
    ASSERT_TRUE(ProcessUntil([&] { return m_log.deletes == 1; }));
    EXPECT_TRUE(Window("Grüße aus Köln"));
    m_log.deleteResult = S_OK;
    Button(window, "&Löschen")->click();
    EXPECT_TRUE(ProcessUntil([&] { return !Window("Grüße aus Köln"); }));
    EXPECT_EQ(m_log.deletes, 2);
    EXPECT_EQ(sink.events, std::vector<std::string>{"shutdown"});
    LPMAPIVIEWCONTEXT context = reinterpret_cast<LPMAPIVIEWCONTEXT>(1);
    EXPECT_EQ(form->GetViewContext(&context), S_FALSE);
    EXPECT_EQ(context, nullptr);
}

// A received attachment whose name holds line breaks is forwarded from the form under that name, and the
// forward as our MAPI writes it has the attachment's fields only: no line of the name becomes a field.
TEST_F(NoteFormTest, AForwardedAttachmentsNameStaysInsideItsField) {
    Deliver(m_mainPath, "1700000000.M1P1.host",
            "From: x@example.org\nMessage-ID: <crlf@example.org>\nSubject: Anlage\nMIME-Version: 1.0\n"
            "Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: text/plain\n\nText\n--b\n"
            "Content-Type: application/pdf\nContent-Disposition: attachment; "
            "filename*=utf-8''b.pdf%0D%0ABcc%3A%20evil%40attacker.example%0D%0AX-Inj%3A%202.pdf\n"
            "Content-Transfer-Encoding: base64\n\nJVBERi0xLjQK\n--b--\n");
    CComPtr<IMAPIForm> form;
    QWidget* window = OpenedReadWindow("<crlf@example.org>", "Anlage", form);
    ASSERT_TRUE(window);
    Button(window, "&Weiterleiten")->click();
    QWidget* forward = nullptr;
    ASSERT_TRUE(ProcessUntil([&] { return (forward = Window("WG: Anlage")); }));
    m_log.newSites.at(0)->SaveMessage();
    IMessage* draft = m_log.newMessages.at(0).get();
    ASSERT_FALSE(BinaryProp(draft, PR_ENTRYID).empty());  // asked for, the saved draft is written
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(m_mainPath / ".Outbox" / "cur"))
        files.push_back(entry.path());
    ASSERT_EQ(files.size(), 1u);
    const std::string written = ReadFile(files[0]);
    for (const char* injected : {"\nBcc:", "\nX-Inj", "\r\nBcc:", "\r\nX-Inj"})
        EXPECT_EQ(written.find(injected), std::string::npos) << injected << "\n" << written;
    const std::vector<CAttachmentInfo> carried = Attachments(draft);
    ASSERT_EQ(carried.size(), 1u);
    EXPECT_EQ(carried[0].name, L"b.pdf\r\nBcc: evil@attacker.example\r\nX-Inj: 2.pdf")
        << "the name as it came";
    EXPECT_EQ(carried[0].bytes, "%PDF-1.4\n");
    Button(forward, "S&chließen")->click();
    Button(window, "S&chließen")->click();
    EXPECT_TRUE(ProcessUntil([&] { return !Window("WG: Anlage") && !Window("Anlage"); }));
}

TEST_F(NoteFormTest, ReadFormShowsNoPictureOrStyleFromOutsideTheMessage) {
    // A picture and a style sheet on this disk, and a picture of the message's own.
    QImage red(4, 4, QImage::Format_RGB32);
    red.fill(Qt::red);
    const std::string picture = (m_dir / "local.png").string();
    const std::string style = (m_dir / "local.css").string();
    ASSERT_TRUE(red.save(QString::fromStdString(picture)));
    WriteFile(style, "p { color: red }");
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    red.save(&buffer, "PNG");
    const std::string html =
        "<html><head><link rel=\"stylesheet\" href=\"file://" + style +
        "\"></head><body><p>Bilder</p><img src=\"" + picture + "\"><img src=\"file://" + picture +
        "\"><img src=\"https://tracker.example/p.png\"><img src=\"cid:own@x\">" + "</body></html>";
    Deliver(m_mainPath, "1700000001.M1P1.host",
            "From: a@example.org\nSubject: Bilder\nMessage-ID: <bilder@example.org>\nMIME-Version: 1.0\n"
            "Content-Type: multipart/related; boundary=r\n\n--r\nContent-Type: text/html; charset=utf-8\n\n" +
                html +
                "\n--r\nContent-Type: image/png\nContent-ID: <own@x>\nContent-Transfer-Encoding: base64\n\n" +
                png.toBase64().toStdString() + "\n--r--\n");
    CComPtr<IMAPIForm> form;
    QWidget* window = OpenedReadWindow("<bilder@example.org>", "Bilder", form);
    ASSERT_TRUE(window);
    auto* body = window->findChild<QTextBrowser*>();
    ASSERT_TRUE(body);
    body->grab();  // laid out and painted, as on screen
    const auto image = [&](const std::string& name) {
        const QVariant resource =
            body->document()->resource(QTextDocument::ImageResource, QUrl(QString::fromStdString(name)));
        return resource.userType() == QMetaType::QPixmap ? qvariant_cast<QPixmap>(resource).toImage()
                                                         : qvariant_cast<QImage>(resource);
    };
    EXPECT_EQ(image("cid:own@x").size(), QSize(4, 4)) << "the message's own picture is shown";
    for (const std::string& outside :
         {picture, "file://" + picture, std::string("https://tracker.example/p.png")})
        EXPECT_NE(image(outside).size(), QSize(4, 4)) << outside;
    EXPECT_TRUE(
        body->document()
            ->resource(QTextDocument::StyleSheetResource, QUrl(QString::fromStdString("file://" + style)))
            .toByteArray()
            .isEmpty());
    ASSERT_EQ(form->ShutdownForm(SAVEOPTS_NOSAVE), S_OK);
    EXPECT_FALSE(Window("Bilder"));
}

TEST_F(NoteFormTest, ComposeFormSavesRecipientsOnceAndSendsOnlyToValidAddresses) {
    CComPtr<IMessage> draft = Draft(L"Entwurf");
    CComPtr<IMAPIForm> form = LoadedForm(draft.get(), MSGFLAG_UNSENT);
    CComPtr<IPersistMessage> persist;
    ASSERT_EQ(form->QueryInterface(IID_IPersistMessage, reinterpret_cast<LPVOID*>(persist.Put())), S_OK);
    CRecordingSink sink;
    ULONG_PTR connection = 0;
    ASSERT_EQ(form->Advise(&sink, &connection), S_OK);
    EXPECT_EQ(form->DoVerb(EXCHIVERB_REPLYTOSENDER, nullptr, 0, nullptr), MAPI_E_NO_SUPPORT);
    ASSERT_EQ(form->DoVerb(EXCHIVERB_OPEN, nullptr, 0, nullptr), S_OK);
    QWidget* window = Window("Entwurf");
    ASSERT_TRUE(window) << "an unsent draft opens to be written on";
    EXPECT_EQ(persist->IsDirty(), S_FALSE);

    const std::vector<QLineEdit*> fields = Fields(window);
    ASSERT_EQ(fields.size(), 4u);
    fields[0]->setText("\"Müller, Jürgen\" <juergen@example.org>; anna@example.org");
    fields[1]->setText("Carl <carl@example.org>");
    window->findChild<QPlainTextEdit*>()->setPlainText("Hallo zusammen");
    EXPECT_EQ(persist->IsDirty(), S_OK);
    // Saved twice: the recipients are there once.
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(persist->Save(draft.get(), TRUE), S_OK);
        ASSERT_EQ(persist->SaveCompleted(nullptr), S_OK);
    }
    EXPECT_EQ(RecipientRows(draft.get()), (std::vector<std::wstring>{L"Müller, Jürgen|1|juergen@example.org",
                                                                     L"anna@example.org|1|anna@example.org",
                                                                     L"Carl|2|carl@example.org"}));
    EXPECT_EQ(persist->IsDirty(), S_FALSE);
    EXPECT_EQ(sink.events, (std::vector<std::string>{"saved", "saved"}));

    // A recipient that is no address is not sent to.
    fields[0]->setText("kein-empfaenger");
    fields[1]->clear();
    CBoxAnswer box;
    AnswerNextBox(box, QMessageBox::Ok);
    Button(window, "&Senden")->click();
    ASSERT_TRUE(ProcessUntil([&] { return box.seen; }));
    EXPECT_EQ(box.text, "„kein-empfaenger“ ist keine gültige E-Mail-Adresse.");
    EXPECT_EQ(m_log.submits, 0);

    fields[0]->setText("anna@example.org");
    Button(window, "&Senden")->click();
    ASSERT_TRUE(ProcessUntil([&] { return !Window("Entwurf"); }));
    EXPECT_EQ(m_log.submits, 1);
    EXPECT_EQ(RecipientRows(draft.get()), std::vector<std::wstring>{L"anna@example.org|1|anna@example.org"});
    EXPECT_EQ(sink.events, (std::vector<std::string>{"saved", "saved", "submitted", "shutdown"}));
    EXPECT_EQ(form->Unadvise(connection), MAPI_E_NOT_FOUND) << "the sinks went with the shutdown";
}

TEST(NoteAnswers, RecipientsSubjectsAndTheQuotedOriginal) {
    const std::vector<CNoteAddress> parsed =
        ParseRecipientField("\"Müller, Jürgen\" <j@x.example>; b@y.example, ,Carl <c@z.example>");
    ASSERT_EQ(parsed.size(), 3u);
    EXPECT_EQ(parsed[0].name, "Müller, Jürgen");
    EXPECT_EQ(parsed[0].address, "j@x.example");
    EXPECT_EQ(parsed[1].Text(), "b@y.example");
    EXPECT_EQ(parsed[2].Text(), "Carl <c@z.example>");

    CNoteContent original;
    original.subject = "Angebot";
    original.sender = {"Berta", "b@x.example"};
    original.to = {{"Ich", "me@x.example"}, {"Dora", "d@x.example"}};
    original.cc = {{"Berta", "B@X.example"}};
    original.plainBody = "Text";
    const CComposeContent reply = AnswerContent(original, EAnswerKind::Reply);
    EXPECT_EQ(reply.subject, "AW: Angebot");
    EXPECT_EQ(reply.to, "Berta <b@x.example>");
    EXPECT_TRUE(reply.cc.isEmpty());
    EXPECT_TRUE(reply.body.startsWith("\n\n-----Ursprüngliche Nachricht-----\nVon: Berta <b@x.example>\n"))
        << reply.body.toStdString();
    EXPECT_TRUE(reply.body.endsWith("Betreff: Angebot\n\nText"));
    const CComposeContent all = AnswerContent(original, EAnswerKind::ReplyAll);
    EXPECT_EQ(all.cc, "Ich <me@x.example>; Dora <d@x.example>") << "the sender once, in To";
    EXPECT_EQ(AnswerContent(original, EAnswerKind::ReplyAll, "ME@x.example").cc, "Dora <d@x.example>")
        << "not to the user";
    const CComposeContent forward = AnswerContent(original, EAnswerKind::Forward);
    EXPECT_EQ(forward.subject, "WG: Angebot");
    EXPECT_TRUE(forward.to.isEmpty());

    // Prefixes are not stacked.
    original.subject = "Re: Angebot";
    EXPECT_EQ(AnswerContent(original, EAnswerKind::Reply).subject, "Re: Angebot");
    original.subject = "WG: Angebot";
    EXPECT_EQ(AnswerContent(original, EAnswerKind::Forward).subject, "WG: Angebot");
    EXPECT_EQ(AnswerContent(original, EAnswerKind::Reply).subject, "AW: WG: Angebot");
}

}  // namespace

int main(int argc, char** argv) {
    return RunOffscreenQtTests(argc, argv);
}
