// What the note form shows and writes, read from and written to a MAPI message: the read form's header,
// bodies and attachments, and the compose form's fields. Only MAPI calls here, no widgets.
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <vector>

#include "mapidefs.h"

namespace velmar::forms {

struct CNoteAddress {
    QString name;
    QString address;

    // "Name <address>", or whichever of the two there is.
    QString Text() const;
};

struct CNoteAttachment {
    ULONG number = 0;  // PR_ATTACH_NUM, for OpenAttach
    QString fileName;
    qint64 size = 0;
    QString contentId;  // without the angle brackets; empty when none
};

// A received message as the read form shows it.
struct CNoteContent {
    QString subject;
    CNoteAddress sender;
    std::vector<CNoteAddress> to;
    std::vector<CNoteAddress> cc;
    QDateTime date;  // invalid when the message has none
    QString plainBody;
    QByteArray html;  // empty when the message has no HTML body
    std::vector<CNoteAttachment> attachments;
};

// A file carried by a message being composed.
struct CComposeAttachment {
    QString fileName;
    QByteArray bytes;
};

// A message being composed: recipient fields as typed ("Name <a@b>; c@d"), subject, plain text.
struct CComposeContent {
    QString to;
    QString cc;
    QString bcc;
    QString subject;
    QString body;
    std::vector<CComposeAttachment> attachments;
};

[[nodiscard]] HRESULT ReadNote(IMessage* message, CNoteContent& content);
// The data of one attachment of the message.
[[nodiscard]] HRESULT ReadAttachmentBytes(IMessage* message, ULONG attachNumber, QByteArray& bytes);
// Writes the fields into the message, replacing its recipients and attachments; not saved.
[[nodiscard]] HRESULT WriteCompose(IMessage* message, const CComposeContent& content);

// The addresses a recipient field holds, split at ';' and at ',' outside quotes and angle brackets.
std::vector<CNoteAddress> ParseRecipientField(const QString& field);

}  // namespace velmar::forms
