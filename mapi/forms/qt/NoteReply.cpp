#include "mapi/forms/qt/NoteReply.h"

#include <QStringList>

namespace velmar::forms {
namespace {

// The subject with the prefix, unless it already starts with it or with one of its other spellings.
QString PrefixedSubject(const QString& subject, const QString& prefix, const QStringList& spellings) {
    const QString trimmed = subject.trimmed();
    for (const QString& spelling : spellings)
        if (trimmed.startsWith(spelling, Qt::CaseInsensitive)) return trimmed;
    return prefix + trimmed;
}

// The original below a separator line, with its header as the reader saw it.
QString QuotedOriginal(const CNoteContent& original) {
    QString quote = QStringLiteral("\n\n-----Urspr\u00fcngliche Nachricht-----\n");
    quote += QStringLiteral("Von: ") + original.sender.Text() + QLatin1Char('\n');
    if (original.date.isValid())
        quote += QStringLiteral("Gesendet: ") + FormDate(original.date) + QLatin1Char('\n');
    quote += QStringLiteral("An: ") + RecipientField(original.to) + QLatin1Char('\n');
    if (!original.cc.empty())
        quote += QStringLiteral("Cc: ") + RecipientField(original.cc) + QLatin1Char('\n');
    quote += QStringLiteral("Betreff: ") + original.subject + QStringLiteral("\n\n");
    quote += original.plainBody;
    return quote;
}

bool SameAddress(const CNoteAddress& a, const CNoteAddress& b) {
    return !a.address.isEmpty() && a.address.compare(b.address, Qt::CaseInsensitive) == 0;
}

}  // namespace

QString RecipientField(const std::vector<CNoteAddress>& addresses) {
    QStringList texts;
    for (const CNoteAddress& address : addresses) texts.push_back(address.Text());
    return texts.join(QStringLiteral("; "));
}

QString FormDate(const QDateTime& date) {
    return date.isValid() ? date.toLocalTime().toString(QStringLiteral("dd.MM.yyyy HH:mm")) : QString();
}

CComposeContent AnswerContent(const CNoteContent& original, EAnswerKind kind, const QString& ownAddress) {
    CComposeContent answer;
    answer.body = QuotedOriginal(original);
    if (kind == EAnswerKind::Forward) {
        answer.subject =
            PrefixedSubject(original.subject, QStringLiteral("WG: "),
                            {QStringLiteral("WG:"), QStringLiteral("FW:"), QStringLiteral("Fwd:")});
        return answer;
    }
    answer.subject = PrefixedSubject(original.subject, QStringLiteral("AW: "),
                                     {QStringLiteral("AW:"), QStringLiteral("RE:")});
    answer.to = original.sender.Text();
    if (kind == EAnswerKind::ReplyAll) {
        // Everyone else the original went to: the sender once, the user not at all.
        const CNoteAddress own{{}, ownAddress};
        std::vector<CNoteAddress> others;
        for (const auto* list : {&original.to, &original.cc})
            for (const CNoteAddress& address : *list)
                if (!SameAddress(address, original.sender) && !SameAddress(address, own))
                    others.push_back(address);
        answer.cc = RecipientField(others);
    }
    return answer;
}

}  // namespace velmar::forms
