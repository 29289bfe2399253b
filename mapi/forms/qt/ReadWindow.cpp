#include "mapi/forms/qt/ReadWindow.h"

#include <QCloseEvent>
#include <QDesktopServices>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QImage>
#include <QLabel>
#include <QListWidget>
#include <QLocale>
#include <QPushButton>
#include <QShortcut>
#include <QStringConverter>
#include <QTextBrowser>
#include <QVBoxLayout>

#include "mapi/forms/qt/AfterEvent.h"

namespace velmar::forms {
namespace {

// The body of a message, shown as mail should be: nothing is fetched from the network or read from disk,
// images come only from the message's own parts (cid:), links open in the browser only when clicked, and
// Qt's rich text runs no scripts.
class CMailBodyView : public QTextBrowser {
public:
    explicit CMailBodyView(std::function<QByteArray(const QString&)> inlineImage)
        : m_inlineImage(std::move(inlineImage)) {
        setOpenLinks(false);
        setOpenExternalLinks(false);
        connect(this, &QTextBrowser::anchorClicked, this, [](const QUrl& url) {
            const QString scheme = url.scheme().toLower();
            if (scheme == "http" || scheme == "https" || scheme == "mailto") QDesktopServices::openUrl(url);
        });
    }

    // Every resource the body asks for comes through here. An empty answer would not do: Qt's rich text
    // then reads a local file of that name itself, so what is not the message's own gets a stand-in.
    QVariant loadResource(int type, const QUrl& name) override {
        if (name.scheme().compare("data", Qt::CaseInsensitive) == 0) return {};  // inside the body itself
        if (type != QTextDocument::ImageResource) return QVariant(QByteArray());
        if (name.scheme().compare("cid", Qt::CaseInsensitive) == 0) {
            const QImage image = QImage::fromData(m_inlineImage(name.path(QUrl::FullyDecoded)));
            if (!image.isNull()) return image;
        }
        QImage blank(1, 1, QImage::Format_ARGB32);
        blank.fill(Qt::transparent);
        return blank;
    }

private:
    std::function<QByteArray(const QString&)> m_inlineImage;
};

// HTML bytes as text: in the charset they declare, else UTF-8.
QString HtmlText(const QByteArray& html) {
    auto decoder = QStringDecoder::decoderForHtml(html);
    if (!decoder.isValid()) decoder = QStringDecoder(QStringDecoder::Utf8);
    return decoder.decode(html);
}

QLabel* HeaderValue(const QString& text) {
    auto* label = new QLabel(text);
    label->setTextFormat(Qt::PlainText);  // a name is never markup
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    label->setWordWrap(true);
    return label;
}

}  // namespace

CReadWindow::CReadWindow(const CNoteContent& content, std::function<QByteArray(const QString&)> inlineImage,
                         CReadActions actions)
    : m_actions(std::move(actions)) {
    setWindowTitle(content.subject.isEmpty() ? QStringLiteral("(kein Betreff)") : content.subject);
    setAttribute(Qt::WA_QuitOnClose, false);

    auto* buttons = new QHBoxLayout;
    const auto addButton = [&](const QString& text, std::function<void()> action) {
        auto* button = new QPushButton(text);
        connect(button, &QPushButton::clicked, this, [this, action] { AfterEvent(this, action); });
        buttons->addWidget(button);
    };
    const auto answer = m_actions.answer;
    addButton(QStringLiteral("&Antworten"), [answer] { answer(EAnswerKind::Reply); });
    addButton(QStringLiteral("Alle&n antworten"), [answer] { answer(EAnswerKind::ReplyAll); });
    addButton(QStringLiteral("&Weiterleiten"), [answer] { answer(EAnswerKind::Forward); });
    addButton(QStringLiteral("&L\u00f6schen"), m_actions.remove);
    buttons->addStretch();
    addButton(QStringLiteral("S&chlie\u00dfen"), m_actions.close);
    auto* escape = new QShortcut(QKeySequence(Qt::Key_Escape), this);
    connect(escape, &QShortcut::activated, this, [this] { AfterEvent(this, m_actions.close); });

    auto* header = new QFormLayout;
    header->addRow(QStringLiteral("Von:"), HeaderValue(content.sender.Text()));
    header->addRow(QStringLiteral("An:"), HeaderValue(RecipientField(content.to)));
    if (!content.cc.empty()) header->addRow(QStringLiteral("Cc:"), HeaderValue(RecipientField(content.cc)));
    if (content.date.isValid()) header->addRow(QStringLiteral("Datum:"), HeaderValue(FormDate(content.date)));
    header->addRow(QStringLiteral("Betreff:"), HeaderValue(content.subject));

    auto* body = new CMailBodyView(std::move(inlineImage));
    const QString html = content.html.isEmpty() ? QString() : HtmlText(content.html);
    if (html.isEmpty())
        body->setPlainText(content.plainBody);
    else
        body->setHtml(html);

    // Parts the HTML shows in place are not listed again.
    for (const CNoteAttachment& attachment : content.attachments)
        if (attachment.contentId.isEmpty() ||
            !html.contains("cid:" + attachment.contentId, Qt::CaseInsensitive))
            m_listed.push_back(attachment);
    m_attachments = new QListWidget;
    m_attachments->setMaximumHeight(90);
    const QLocale locale(QLocale::German);
    for (const CNoteAttachment& attachment : m_listed)
        m_attachments->addItem(attachment.fileName + " (" + locale.formattedDataSize(attachment.size) + ")");
    if (!m_listed.empty()) m_attachments->setCurrentRow(0);
    connect(m_attachments, &QListWidget::itemDoubleClicked, this, [this, open = m_actions.openAttachment] {
        if (const CNoteAttachment* selected = SelectedAttachment())
            AfterEvent(this, [open, attachment = *selected] { open(attachment); });
    });
    auto* attachmentButtons = new QVBoxLayout;
    const auto addAttachmentButton = [&](const QString& text,
                                         const std::function<void(const CNoteAttachment&)>& action) {
        auto* button = new QPushButton(text);
        connect(button, &QPushButton::clicked, this, [this, action] {
            if (const CNoteAttachment* selected = SelectedAttachment())
                AfterEvent(this, [action, attachment = *selected] { action(attachment); });
        });
        attachmentButtons->addWidget(button);
    };
    addAttachmentButton(QStringLiteral("\u00d6&ffnen"), m_actions.openAttachment);
    addAttachmentButton(QStringLiteral("Speichern &unter\u2026"), m_actions.saveAttachment);
    attachmentButtons->addStretch();
    auto* attachmentRow = new QWidget;
    auto* attachmentLayout = new QHBoxLayout(attachmentRow);
    attachmentLayout->setContentsMargins(0, 0, 0, 0);
    attachmentLayout->addWidget(new QLabel(QStringLiteral("Anlagen:")), 0, Qt::AlignTop);
    attachmentLayout->addWidget(m_attachments, 1);
    attachmentLayout->addLayout(attachmentButtons);
    attachmentRow->setVisible(!m_listed.empty());

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(buttons);
    layout->addLayout(header);
    layout->addWidget(body, 1);
    layout->addWidget(attachmentRow);
    resize(720, 560);
}

void CReadWindow::closeEvent(QCloseEvent* event) {
    // The user's close goes through the form. A close Qt makes itself, when the application quits, only
    // hides the window: the form is shut down by whoever holds it.
    if (!event->spontaneous()) return event->accept();
    event->ignore();
    AfterEvent(this, m_actions.close);
}

const CNoteAttachment* CReadWindow::SelectedAttachment() const {
    const int row = m_attachments->currentRow();
    return row >= 0 && static_cast<size_t>(row) < m_listed.size() ? &m_listed[static_cast<size_t>(row)]
                                                                  : nullptr;
}

}  // namespace velmar::forms
