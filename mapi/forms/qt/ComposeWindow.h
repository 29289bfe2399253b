// The compose form's window: An, Cc, Bcc, Betreff, the text and the attachments of a message being
// written. A view only, like the read window: Senden and closing are the form's business.
#pragma once

#include <QWidget>
#include <functional>

#include "mapi/forms/qt/NoteContent.h"

class QLineEdit;
class QListWidget;
class QPlainTextEdit;

namespace velmar::forms {

struct CComposeActions {
    std::function<void()> send;
    std::function<void()> close;  // Schließen, Escape, the window's close button
    std::function<void(const QString&)> warn;
};

class CComposeWindow : public QWidget {
public:
    CComposeWindow(const CComposeContent& content, CComposeActions actions);

    CComposeContent Content() const;
    // Whether anything was changed since the window was filled or last marked clean.
    bool IsDirty() const { return m_dirty; }
    void MarkClean() { m_dirty = false; }

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    void AddAttachments();
    void RemoveAttachment();
    void ShowAttachments();

    CComposeActions m_actions;
    std::vector<CComposeAttachment> m_files;
    bool m_dirty = false;
    QLineEdit* m_to;
    QLineEdit* m_cc;
    QLineEdit* m_bcc;
    QLineEdit* m_subject;
    QPlainTextEdit* m_body;
    QListWidget* m_attachments;
};

}  // namespace velmar::forms
