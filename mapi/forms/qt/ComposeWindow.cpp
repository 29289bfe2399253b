#include "mapi/forms/qt/ComposeWindow.h"

#include <QCloseEvent>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QLocale>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QShortcut>
#include <QVBoxLayout>

#include "mapi/forms/qt/AfterEvent.h"

namespace velmar::forms {
namespace {

QString TitleFor(const QString& subject) {
    return subject.trimmed().isEmpty() ? QStringLiteral("Neue Nachricht") : subject.trimmed();
}

}  // namespace

CComposeWindow::CComposeWindow(const CComposeContent& content, CComposeActions actions)
    : m_actions(std::move(actions)),
      m_files(content.attachments),
      m_to(new QLineEdit(content.to)),
      m_cc(new QLineEdit(content.cc)),
      m_bcc(new QLineEdit(content.bcc)),
      m_subject(new QLineEdit(content.subject)),
      m_body(new QPlainTextEdit(content.body)),
      m_attachments(new QListWidget) {
    setWindowTitle(TitleFor(content.subject));
    setAttribute(Qt::WA_QuitOnClose, false);

    auto* buttons = new QHBoxLayout;
    const auto addButton = [&](QLayout* row, const QString& text, std::function<void()> action) {
        auto* button = new QPushButton(text);
        connect(button, &QPushButton::clicked, this, [this, action] { AfterEvent(this, action); });
        row->addWidget(button);
    };
    addButton(buttons, QStringLiteral("&Senden"), m_actions.send);
    buttons->addStretch();
    addButton(buttons, QStringLiteral("S&chlie\u00dfen"), m_actions.close);
    auto* escape = new QShortcut(QKeySequence(Qt::Key_Escape), this);
    connect(escape, &QShortcut::activated, this, [this] { AfterEvent(this, m_actions.close); });

    auto* fields = new QFormLayout;
    const auto addField = [&](const QString& label, QLineEdit* edit) {
        auto* name = new QLabel(label);
        name->setBuddy(edit);
        fields->addRow(name, edit);
    };
    addField(QStringLiteral("&An:"), m_to);
    addField(QStringLiteral("Cc:"), m_cc);
    addField(QStringLiteral("Bcc:"), m_bcc);
    addField(QStringLiteral("&Betreff:"), m_subject);

    auto* attachmentButtons = new QVBoxLayout;
    addButton(attachmentButtons, QStringLiteral("Anlage &hinzuf\u00fcgen\u2026"),
              [this] { AddAttachments(); });
    addButton(attachmentButtons, QStringLiteral("Anlage &entfernen"), [this] { RemoveAttachment(); });
    attachmentButtons->addStretch();
    auto* attachmentRow = new QHBoxLayout;
    attachmentRow->addWidget(new QLabel(QStringLiteral("Anlagen:")), 0, Qt::AlignTop);
    attachmentRow->addWidget(m_attachments, 1);
    attachmentRow->addLayout(attachmentButtons);
    m_attachments->setMaximumHeight(90);
    ShowAttachments();

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(buttons);
    layout->addLayout(fields);
    layout->addWidget(m_body, 1);
    layout->addLayout(attachmentRow);
    resize(720, 560);

    for (QLineEdit* edit : {m_to, m_cc, m_bcc, m_subject})
        connect(edit, &QLineEdit::textEdited, this, [this] { m_dirty = true; });
    connect(m_subject, &QLineEdit::textChanged, this,
            [this](const QString& text) { setWindowTitle(TitleFor(text)); });
    connect(m_body, &QPlainTextEdit::textChanged, this, [this] { m_dirty = true; });
    // An answer is written above the quoted original; a new message starts with its recipients.
    if (content.to.isEmpty()) {
        m_to->setFocus();
    } else {
        m_body->setFocus();
        m_body->moveCursor(QTextCursor::Start);
    }
}

CComposeContent CComposeWindow::Content() const {
    return {m_to->text(), m_cc->text(), m_bcc->text(), m_subject->text(), m_body->toPlainText(), m_files};
}

void CComposeWindow::closeEvent(QCloseEvent* event) {
    // The user's close goes through the form. A close Qt makes itself, when the application quits, only
    // hides the window: the form is shut down by whoever holds it.
    if (!event->spontaneous()) return event->accept();
    event->ignore();
    AfterEvent(this, m_actions.close);
}

void CComposeWindow::AddAttachments() {
    const QStringList paths = QFileDialog::getOpenFileNames(this, QStringLiteral("Anlage hinzuf\u00fcgen"));
    for (const QString& path : paths) {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly)) {
            m_actions.warn(QStringLiteral("Die Datei %1 konnte nicht gelesen werden.").arg(path));
            continue;
        }
        m_files.push_back({QFileInfo(path).fileName(), file.readAll()});
        m_dirty = true;
    }
    ShowAttachments();
}

void CComposeWindow::RemoveAttachment() {
    const int row = m_attachments->currentRow();
    if (row < 0 || static_cast<size_t>(row) >= m_files.size()) return;
    m_files.erase(m_files.begin() + row);
    m_dirty = true;
    ShowAttachments();
}

void CComposeWindow::ShowAttachments() {
    m_attachments->clear();
    const QLocale locale(QLocale::German);
    for (const CComposeAttachment& file : m_files)
        m_attachments->addItem(file.fileName + " (" + locale.formattedDataSize(file.bytes.size()) + ")");
    if (!m_files.empty()) m_attachments->setCurrentRow(static_cast<int>(m_files.size()) - 1);
}

}  // namespace velmar::forms
