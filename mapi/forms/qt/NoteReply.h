// Answers and forwards made from a received message: who gets them, their subject, and the original
// quoted below the new text as German mail programs do.
#pragma once

#include "mapi/forms/qt/NoteContent.h"

namespace velmar::forms {

enum class EAnswerKind { Reply, ReplyAll, Forward };

// The compose fields of an answer to original. A forward gets no recipients and no attachments here: the
// form adds the original's attachments, which it reads from the message. ownAddress, the address of the
// store's owner when known, is left out of an answer to all.
CComposeContent AnswerContent(const CNoteContent& original, EAnswerKind kind, const QString& ownAddress = {});

// The addresses as a recipient field: "Name <a@b>; c@d".
QString RecipientField(const std::vector<CNoteAddress>& addresses);

// "dd.MM.yyyy HH:mm" in local time, as the forms show dates; empty for an invalid date.
QString FormDate(const QDateTime& date);

}  // namespace velmar::forms
