// The read form's window: the header (Von, An, Cc, Datum, Betreff), the body, the attachments and the
// actions of a received message. A view only: what the actions do is the form's business, and the window
// never closes itself; it asks the form, which takes it down.
#pragma once

#include <QWidget>
#include <functional>

#include "mapi/forms/qt/NoteContent.h"
#include "mapi/forms/qt/NoteReply.h"

class QListWidget;

namespace velmar::forms {

struct CReadActions {
    std::function<void(EAnswerKind)> answer;
    std::function<void()> remove;
    std::function<void(const CNoteAttachment&)> openAttachment;
    std::function<void(const CNoteAttachment&)> saveAttachment;
    std::function<void()> close;  // Schließen, Escape, the window's close button
};

class CReadWindow : public QWidget {
public:
    // inlineImage: the bytes of the part with this content id, for images the HTML shows.
    CReadWindow(const CNoteContent& content, std::function<QByteArray(const QString&)> inlineImage,
                CReadActions actions);

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    const CNoteAttachment* SelectedAttachment() const;

    CReadActions m_actions;
    std::vector<CNoteAttachment> m_listed;  // the attachments in the list, in its order
    QListWidget* m_attachments = nullptr;
};

}  // namespace velmar::forms
