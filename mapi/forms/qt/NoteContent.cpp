#include "mapi/forms/qt/NoteContent.h"

#include <cstring>
#include <deque>
#include <string>

#include "mapi/runtime/ProviderBuffers.h"
#include "mapiguid.h"
#include "mapitags.h"
#include "mapiutil.h"
#include "support/ComPtr.h"

namespace velmar::forms {
namespace {

using velmar::CComPtr;
using velmar::mapi::MapiBuffer;
using velmar::mapi::RowSetPtr;

// 100-nanosecond steps from 1601-01-01 to 1970-01-01.
constexpr qint64 kFileTimeUnixEpoch = 116444736000000000LL;

QString TextOf(const SPropValue* value) {
    return value && PROP_TYPE(value->ulPropTag) == PT_UNICODE && value->Value.lpszW
               ? QString::fromWCharArray(value->Value.lpszW)
               : QString();
}

const SPropValue* Find(const SPropValue* values, ULONG count, ULONG ulPropTag) {
    for (ULONG i = 0; i < count; ++i)
        if (values[i].ulPropTag == ulPropTag) return &values[i];
    return nullptr;
}

QDateTime DateOf(const SPropValue* value) {
    if (!value || PROP_TYPE(value->ulPropTag) != PT_SYSTIME) return {};
    const qint64 ticks = (static_cast<qint64>(value->Value.ft.dwHighDateTime) << 32) |
                         static_cast<qint64>(value->Value.ft.dwLowDateTime);
    if (ticks <= 0) return {};
    return QDateTime::fromMSecsSinceEpoch((ticks - kFileTimeUnixEpoch) / 10000);
}

// The whole content of a stream; bodies and attachments are read in blocks, whatever their size.
[[nodiscard]] HRESULT ReadAll(IStream* stream, QByteArray& bytes) {
    bytes.clear();
    char block[65536];
    for (;;) {
        ULONG read = 0;
        const HRESULT hr = stream->Read(block, sizeof block, &read);
        if (FAILED(hr)) return hr;
        if (read == 0) return S_OK;
        bytes.append(block, static_cast<qsizetype>(read));
    }
}

[[nodiscard]] HRESULT ReadStreamProperty(IMAPIProp* object, ULONG ulPropTag, QByteArray& bytes) {
    CComPtr<IStream> stream;
    HRESULT hr = object->OpenProperty(ulPropTag, &IID_IStream, STGM_READ, 0,
                                      reinterpret_cast<LPUNKNOWN*>(stream.Put()));
    if (FAILED(hr) || !stream) return FAILED(hr) ? hr : MAPI_E_NOT_FOUND;
    return ReadAll(stream.get(), bytes);
}

// A sized tag array as the tag array MAPI calls take.
template <class Sized>
LPSPropTagArray Tags(const Sized& sized) {
    return const_cast<LPSPropTagArray>(reinterpret_cast<const SPropTagArray*>(&sized));
}

// All rows of a table, with these columns.
HRESULT QueryRows(IMAPITable* table, LPSPropTagArray columns, RowSetPtr& rows) {
    LPSRowSet raw = nullptr;
    const HRESULT hr = HrQueryAllRows(table, columns, nullptr, nullptr, 0, &raw);
    rows.reset(raw);
    return hr;
}

void ReadHeader(IMessage* message, CNoteContent& content) {
    static const SizedSPropTagArray(8, kTags) = {
        8,
        {PR_SUBJECT_W, PR_SENT_REPRESENTING_NAME_W, PR_SENT_REPRESENTING_EMAIL_ADDRESS_W, PR_SENDER_NAME_W,
         PR_SENDER_EMAIL_ADDRESS_W, PR_CLIENT_SUBMIT_TIME, PR_MESSAGE_DELIVERY_TIME, PR_BODY_W}};
    ULONG count = 0;
    LPSPropValue raw = nullptr;
    message->GetProps(Tags(kTags), MAPI_UNICODE, &count, &raw);
    const MapiBuffer<SPropValue> values(raw);
    if (!values) return;
    const auto text = [&](ULONG tag) { return TextOf(Find(values.get(), count, tag)); };
    content.subject = text(PR_SUBJECT_W);
    content.sender = {text(PR_SENT_REPRESENTING_NAME_W), text(PR_SENT_REPRESENTING_EMAIL_ADDRESS_W)};
    if (content.sender.address.isEmpty())
        content.sender = {text(PR_SENDER_NAME_W), text(PR_SENDER_EMAIL_ADDRESS_W)};
    content.date = DateOf(Find(values.get(), count, PR_CLIENT_SUBMIT_TIME));
    if (!content.date.isValid()) content.date = DateOf(Find(values.get(), count, PR_MESSAGE_DELIVERY_TIME));
    // A body too big for GetProps comes back as MAPI_E_NOT_ENOUGH_MEMORY and is read as a stream.
    content.plainBody = text(PR_BODY_W);
    if (content.plainBody.isEmpty()) {
        QByteArray wide;
        if (SUCCEEDED(ReadStreamProperty(message, PR_BODY_W, wide)))
            content.plainBody =
                QString::fromWCharArray(reinterpret_cast<const wchar_t*>(wide.constData()),
                                        wide.size() / static_cast<qsizetype>(sizeof(wchar_t)));
    }
}

void ReadRecipients(IMessage* message, CNoteContent& content) {
    static const SizedSPropTagArray(4, kColumns) = {
        4, {PR_DISPLAY_NAME_W, PR_SMTP_ADDRESS_W, PR_EMAIL_ADDRESS_W, PR_RECIPIENT_TYPE}};
    CComPtr<IMAPITable> table;
    RowSetPtr rows;
    if (FAILED(message->GetRecipientTable(MAPI_UNICODE, table.Put())) || !table ||
        FAILED(QueryRows(table.get(), Tags(kColumns), rows)) || !rows)
        return;
    for (ULONG i = 0; i < rows->cRows; ++i) {
        const SRow& row = rows->aRow[i];
        CNoteAddress address{TextOf(Find(row.lpProps, row.cValues, PR_DISPLAY_NAME_W)),
                             TextOf(Find(row.lpProps, row.cValues, PR_SMTP_ADDRESS_W))};
        if (address.address.isEmpty())
            address.address = TextOf(Find(row.lpProps, row.cValues, PR_EMAIL_ADDRESS_W));
        const SPropValue* type = Find(row.lpProps, row.cValues, PR_RECIPIENT_TYPE);
        const LONG kind = type ? type->Value.l : MAPI_TO;
        if (kind == MAPI_CC)
            content.cc.push_back(std::move(address));
        else if (kind == MAPI_TO)
            content.to.push_back(std::move(address));
    }
}

void ReadAttachmentList(IMessage* message, CNoteContent& content) {
    static const SizedSPropTagArray(6, kColumns) = {
        6,
        {PR_ATTACH_NUM, PR_ATTACH_LONG_FILENAME_W, PR_ATTACH_FILENAME_W, PR_DISPLAY_NAME_W, PR_ATTACH_SIZE,
         PR_ATTACH_CONTENT_ID_W}};
    CComPtr<IMAPITable> table;
    RowSetPtr rows;
    if (FAILED(message->GetAttachmentTable(MAPI_UNICODE, table.Put())) || !table ||
        FAILED(QueryRows(table.get(), Tags(kColumns), rows)) || !rows)
        return;
    for (ULONG i = 0; i < rows->cRows; ++i) {
        const SRow& row = rows->aRow[i];
        const SPropValue* number = Find(row.lpProps, row.cValues, PR_ATTACH_NUM);
        if (!number) continue;
        CNoteAttachment attachment;
        attachment.number = static_cast<ULONG>(number->Value.l);
        for (ULONG tag : {PR_ATTACH_LONG_FILENAME_W, PR_ATTACH_FILENAME_W, PR_DISPLAY_NAME_W}) {
            attachment.fileName = TextOf(Find(row.lpProps, row.cValues, tag));
            if (!attachment.fileName.isEmpty()) break;
        }
        if (const SPropValue* size = Find(row.lpProps, row.cValues, PR_ATTACH_SIZE))
            attachment.size = size->Value.l;
        attachment.contentId = TextOf(Find(row.lpProps, row.cValues, PR_ATTACH_CONTENT_ID_W));
        if (attachment.contentId.startsWith('<') && attachment.contentId.endsWith('>'))
            attachment.contentId = attachment.contentId.mid(1, attachment.contentId.size() - 2);
        content.attachments.push_back(std::move(attachment));
    }
}

// The entries of an address list for these recipients, with the values pointing into texts.
struct CRecipientRows {
    std::deque<std::wstring> texts;  // a deque: the values point into texts added earlier
    std::vector<std::vector<SPropValue>> rows;
};

void AddRecipientRows(CRecipientRows& rows, const QString& field, LONG kind) {
    for (const CNoteAddress& address : ParseRecipientField(field)) {
        std::vector<SPropValue> row;
        const auto text = [&](ULONG tag, const QString& value) {
            rows.texts.push_back(value.toStdWString());
            SPropValue prop{};
            prop.ulPropTag = tag;
            prop.Value.lpszW = rows.texts.back().data();
            row.push_back(prop);
        };
        SPropValue type{};
        type.ulPropTag = PR_RECIPIENT_TYPE;
        type.Value.l = kind;
        row.push_back(type);
        text(PR_DISPLAY_NAME_W, address.name.isEmpty() ? address.address : address.name);
        text(PR_EMAIL_ADDRESS_W, address.address);
        text(PR_SMTP_ADDRESS_W, address.address);
        text(PR_ADDRTYPE_W, QStringLiteral("SMTP"));
        rows.rows.push_back(std::move(row));
    }
}

HRESULT WriteRecipients(IMessage* message, const CComposeContent& content) {
    CRecipientRows rows;
    AddRecipientRows(rows, content.to, MAPI_TO);
    AddRecipientRows(rows, content.cc, MAPI_CC);
    AddRecipientRows(rows, content.bcc, MAPI_BCC);
    const size_t bytes = CbNewADRLIST(rows.rows.size());
    LPVOID raw = nullptr;
    if (FAILED(MAPIAllocateBuffer(static_cast<ULONG>(bytes), &raw)) || !raw) return MAPI_E_NOT_ENOUGH_MEMORY;
    std::memset(raw, 0, bytes);
    const MapiBuffer<ADRLIST> list(static_cast<LPADRLIST>(raw));
    list->cEntries = static_cast<ULONG>(rows.rows.size());
    for (size_t i = 0; i < rows.rows.size(); ++i) {
        list->aEntries[i].cValues = static_cast<ULONG>(rows.rows[i].size());
        list->aEntries[i].rgPropVals = rows.rows[i].data();
    }
    // Flags 0: the list replaces the message's recipients, so saving twice adds no one twice.
    return message->ModifyRecipients(0, list.get());
}

HRESULT DeleteAllAttachments(IMessage* message) {
    static const SizedSPropTagArray(1, kColumns) = {1, {PR_ATTACH_NUM}};
    CComPtr<IMAPITable> table;
    RowSetPtr rows;
    HRESULT hr = message->GetAttachmentTable(0, table.Put());
    if (FAILED(hr) || !table) return hr;
    hr = QueryRows(table.get(), Tags(kColumns), rows);
    if (FAILED(hr) || !rows) return hr;
    for (ULONG i = 0; i < rows->cRows; ++i)
        if (const SPropValue* number = Find(rows->aRow[i].lpProps, rows->aRow[i].cValues, PR_ATTACH_NUM))
            if (FAILED(hr = message->DeleteAttach(static_cast<ULONG>(number->Value.l), 0, nullptr, 0)))
                return hr;
    return S_OK;
}

HRESULT WriteAttachment(IMessage* message, const CComposeAttachment& file) {
    ULONG number = 0;
    CComPtr<IAttach> attach;
    HRESULT hr = message->CreateAttach(nullptr, 0, &number, attach.Put());
    if (FAILED(hr) || !attach) return FAILED(hr) ? hr : MAPI_E_CALL_FAILED;
    std::wstring name = file.fileName.toStdWString();
    SPropValue values[4] = {};
    values[0].ulPropTag = PR_ATTACH_METHOD;
    values[0].Value.l = ATTACH_BY_VALUE;
    values[1].ulPropTag = PR_ATTACH_LONG_FILENAME_W;
    values[2].ulPropTag = PR_ATTACH_FILENAME_W;
    values[3].ulPropTag = PR_DISPLAY_NAME_W;
    for (int i = 1; i < 4; ++i) values[i].Value.lpszW = name.data();
    if (FAILED(hr = attach->SetProps(4, values, nullptr))) return hr;
    CComPtr<IStream> data;
    hr = attach->OpenProperty(PR_ATTACH_DATA_BIN, &IID_IStream, STGM_CREATE | STGM_WRITE,
                              MAPI_CREATE | MAPI_MODIFY, reinterpret_cast<LPUNKNOWN*>(data.Put()));
    if (FAILED(hr) || !data) return FAILED(hr) ? hr : MAPI_E_CALL_FAILED;
    ULONG written = 0;
    if (FAILED(hr = data->Write(file.bytes.constData(), static_cast<ULONG>(file.bytes.size()), &written)))
        return hr;
    if (FAILED(hr = data->Commit(0))) return hr;
    data.Reset();
    return attach->SaveChanges(0);
}

}  // namespace

QString CNoteAddress::Text() const {
    if (name.isEmpty() || name == address) return address.isEmpty() ? name : address;
    if (address.isEmpty()) return name;
    return name + QStringLiteral(" <") + address + QLatin1Char('>');
}

std::vector<CNoteAddress> ParseRecipientField(const QString& field) {
    std::vector<QString> parts;
    QString current;
    bool quoted = false;
    int angle = 0;
    for (const QChar c : field) {
        if (c == '"') quoted = !quoted;
        if (!quoted && c == '<') ++angle;
        if (!quoted && c == '>' && angle > 0) --angle;
        if (!quoted && angle == 0 && (c == ';' || c == ',')) {
            parts.push_back(current);
            current.clear();
        } else {
            current.append(c);
        }
    }
    parts.push_back(current);

    std::vector<CNoteAddress> addresses;
    for (const QString& part : parts) {
        const QString text = part.trimmed();
        if (text.isEmpty()) continue;
        const qsizetype open = text.lastIndexOf('<');
        const qsizetype close = text.lastIndexOf('>');
        CNoteAddress address;
        if (open >= 0 && close > open) {
            address.address = text.mid(open + 1, close - open - 1).trimmed();
            address.name = text.left(open).trimmed();
            if (address.name.size() >= 2 && address.name.startsWith('"') && address.name.endsWith('"'))
                address.name = address.name.mid(1, address.name.size() - 2);
        } else {
            address.address = text;
        }
        addresses.push_back(std::move(address));
    }
    return addresses;
}

HRESULT ReadNote(IMessage* message, CNoteContent& content) {
    if (!message) return MAPI_E_INVALID_PARAMETER;
    content = {};
    ReadHeader(message, content);
    ReadRecipients(message, content);
    ReadAttachmentList(message, content);
    // No HTML body, or one that cannot be read, is no failure: the plain text is shown.
    if (FAILED(ReadStreamProperty(message, PR_HTML, content.html))) content.html.clear();
    return S_OK;
}

HRESULT ReadAttachmentBytes(IMessage* message, ULONG attachNumber, QByteArray& bytes) {
    if (!message) return MAPI_E_INVALID_PARAMETER;
    CComPtr<IAttach> attach;
    const HRESULT hr = message->OpenAttach(attachNumber, nullptr, 0, attach.Put());
    if (FAILED(hr) || !attach) return FAILED(hr) ? hr : MAPI_E_NOT_FOUND;
    return ReadStreamProperty(attach.get(), PR_ATTACH_DATA_BIN, bytes);
}

HRESULT WriteCompose(IMessage* message, const CComposeContent& content) {
    if (!message) return MAPI_E_INVALID_PARAMETER;
    std::wstring subject = content.subject.toStdWString();
    std::wstring body = content.body.toStdWString();
    SPropValue values[2] = {};
    values[0].ulPropTag = PR_SUBJECT_W;
    values[0].Value.lpszW = subject.data();
    values[1].ulPropTag = PR_BODY_W;
    values[1].Value.lpszW = body.data();
    HRESULT hr = message->SetProps(2, values, nullptr);
    if (FAILED(hr) || FAILED(hr = WriteRecipients(message, content)) ||
        FAILED(hr = DeleteAllAttachments(message)))
        return hr;
    for (const CComposeAttachment& file : content.attachments)
        if (FAILED(hr = WriteAttachment(message, file))) return hr;
    return S_OK;
}

}  // namespace velmar::forms
