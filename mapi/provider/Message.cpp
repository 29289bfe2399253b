#include "mapi/provider/Message.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "mapi/provider/EntryId.h"
#include "mapi/provider/Maildir.h"
#include "mapi/provider/MaildirIndex.h"
#include "mapi/provider/MessageColumns.h"
#include "mapi/runtime/Guarded.h"
#include "mapi/runtime/Streams.h"
#include "mapi/runtime/Table.h"
#include "mapi/runtime/TableRows.h"
#include "mapitags.h"
#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

void AddIfPresent(std::vector<CPropValue>& props, ULONG tag, const std::wstring& value) {
    if (!value.empty()) props.push_back({tag, value});
}

std::vector<BYTE> WideBytes(const std::wstring& text) {
    const auto* begin = reinterpret_cast<const BYTE*>(text.data());
    return std::vector<BYTE>(begin, begin + text.size() * sizeof(wchar_t));
}

CPropValue AttachmentSizeValue(std::uint64_t size) {
    return {PR_ATTACH_SIZE, static_cast<std::int32_t>(std::min<std::uint64_t>(size, 0x7FFFFFFF))};
}

// The attachment table. Every column but the size is kept; the size needs the part decoded, so it is made
// only for a table that shows it (the mail layer's does not).
class CAttachmentRows : public ITableRows {
public:
    explicit CAttachmentRows(std::shared_ptr<CMessageContent> content) : m_content(std::move(content)) {
        for (const CAttachmentContent& attachment : m_content->attachments)
            m_rows.push_back(AttachmentProperties(attachment, std::nullopt));
    }

    size_t RowCount() const override { return m_rows.size(); }
    const CPropValue* Find(size_t row, ULONG tag, CPropValue& slot) const override {
        if (PROP_ID(tag) == PROP_ID(PR_ATTACH_SIZE)) {
            slot = AttachmentSizeValue(AttachmentSize(m_content->attachments[row]));
            return Answers(slot, tag) ? &slot : nullptr;
        }
        for (const CPropValue& value : m_rows[row])
            if (Answers(value, tag)) return &value;
        return nullptr;
    }
    std::vector<ULONG> DefaultColumns() const override { return AttachmentColumnsWith(PR_INSTANCE_KEY); }

private:
    std::shared_ptr<CMessageContent> m_content;
    std::vector<std::vector<CPropValue>> m_rows;
};

// 8.3 form of a long file name, as MAPI clients expect in PR_ATTACH_FILENAME.
std::wstring ShortFileName(const std::wstring& name) {
    const size_t dot = name.rfind(L'.');
    const std::wstring stem = name.substr(0, dot);
    const std::wstring extension = dot == std::wstring::npos ? L"" : name.substr(dot, 4);
    return stem.size() <= 8 ? stem + extension : stem.substr(0, 6) + L"~1" + extension;
}

}  // namespace

std::vector<CPropValue> AttachmentProperties(const CAttachmentContent& attachment,
                                             std::optional<std::uint64_t> size) {
    std::vector<CPropValue> props{
        {PR_ATTACH_NUM, static_cast<std::int32_t>(attachment.number)},
        {PR_ATTACH_METHOD, static_cast<std::int32_t>(attachment.method)},
        {PR_OBJECT_TYPE, static_cast<std::int32_t>(MAPI_ATTACH)},
        {PR_RENDERING_POSITION, std::int32_t{-1}},
        {PR_INSTANCE_KEY, std::vector<BYTE>{static_cast<BYTE>(attachment.number & 0xFF),
                                            static_cast<BYTE>((attachment.number >> 8) & 0xFF), 0, 0}},
    };
    AddIfPresent(props, PR_ATTACH_LONG_FILENAME_W, attachment.longFileName);
    if (!attachment.longFileName.empty())
        props.push_back({PR_ATTACH_FILENAME_W, ShortFileName(attachment.longFileName)});
    AddIfPresent(props, PR_DISPLAY_NAME_W, attachment.displayName);
    AddIfPresent(props, PR_ATTACH_CONTENT_ID_W, attachment.contentId);
    AddIfPresent(props, PR_ATTACH_MIME_TAG_W, attachment.mimeTag);
    AddIfPresent(props, PR_ATTACH_CONTENT_LOCATION_W, attachment.contentLocation);
    if (size) props.push_back(AttachmentSizeValue(*size));
    const size_t dot = attachment.longFileName.rfind(L'.');
    if (dot != std::wstring::npos)
        props.push_back({PR_ATTACH_EXTENSION_W, attachment.longFileName.substr(dot)});
    return props;
}

std::vector<CPropValue> CMimeMessage::Properties() const {
    std::vector<CPropValue> props = Content()->properties;
    std::int32_t flags = Content()->attachments.empty() ? 0 : MSGFLAG_HASATTACH;
    {
        std::lock_guard lock(m_lock);
        if (m_place) m_place->AddProperties(props, flags);
    }
    props.push_back({PR_MESSAGE_FLAGS, flags});
    props.push_back({PR_OBJECT_TYPE, static_cast<std::int32_t>(MAPI_MESSAGE)});
    return props;
}

HRESULT CMimeMessage::OpenProperty(ULONG ulPropTag, LPCIID lpiid, ULONG, ULONG ulFlags, LPUNKNOWN* lppUnk) {
    if (!lppUnk || !lpiid) return MAPI_E_INVALID_PARAMETER;
    *lppUnk = nullptr;
    if (ulFlags & (MAPI_CREATE | MAPI_MODIFY)) return MAPI_E_NO_ACCESS;
    if (*lpiid != IID_IStream) return MAPI_E_INTERFACE_NOT_SUPPORTED;
    return Guarded([&]() -> HRESULT {
        std::vector<BYTE> bytes;
        if (ulPropTag == PR_BODY_W) {
            bytes = WideBytes(Content()->body);
        } else if (ulPropTag == PR_BODY_A) {
            const std::string utf8 = WideToUtf8(Content()->body);
            bytes.assign(utf8.begin(), utf8.end());
        } else if (ulPropTag == PR_HTML && !Content()->html.empty()) {
            bytes.assign(Content()->html.begin(), Content()->html.end());
        } else if (ulPropTag == PR_RTF_COMPRESSED && !Content()->rtfCompressed.empty()) {
            bytes = Content()->rtfCompressed;
        } else {
            return MAPI_E_NOT_FOUND;
        }
        *lppUnk = MakeReadStream(std::move(bytes)).Detach();
        return S_OK;
    });
}

HRESULT CMimeMessage::GetRecipientTable(ULONG, LPMAPITABLE* lppTable) {
    std::vector<std::vector<CPropValue>> rows;
    std::int32_t rowId = 0;
    for (const CRecipientContent& recipient : Content()->recipients) {
        rows.push_back({{PR_DISPLAY_NAME_W, recipient.displayName},
                        {PR_EMAIL_ADDRESS_W, recipient.address},
                        {PR_SMTP_ADDRESS_W, recipient.address},
                        {PR_ADDRTYPE_W, std::wstring(L"SMTP")},
                        {PR_RECIPIENT_TYPE, static_cast<std::int32_t>(recipient.type)},
                        {PR_ROWID, rowId++},
                        {PR_ENTRYID, MakeOneOffEntryId(recipient.displayName, L"SMTP", recipient.address)},
                        {PR_OBJECT_TYPE, static_cast<std::int32_t>(MAPI_MAILUSER)}});
    }
    return MakeRowListTable(RecipientColumns(), std::move(rows), lppTable);
}

HRESULT CMimeMessage::GetAttachmentTable(ULONG, LPMAPITABLE* lppTable) {
    if (!lppTable) return MAPI_E_INVALID_PARAMETER;
    *lppTable = nullptr;
    return Guarded([&]() -> HRESULT {
        *lppTable = MakeTable(std::make_shared<CAttachmentRows>(Content())).Detach();
        return S_OK;
    });
}

HRESULT CMimeMessage::OpenAttach(ULONG ulAttachmentNum, LPCIID lpInterface, ULONG, LPATTACH* lppAttach) {
    if (!lppAttach) return MAPI_E_INVALID_PARAMETER;
    *lppAttach = nullptr;
    if (ulAttachmentNum >= Content()->attachments.size()) return MAPI_E_NOT_FOUND;
    if (lpInterface && !IsOneOf(*lpInterface, {IID_IAttachment, IID_IMAPIProp, IID_IUnknown}))
        return MAPI_E_INTERFACE_NOT_SUPPORTED;
    *lppAttach = MakeObject<CMimeAttach>(Content(), ulAttachmentNum).Detach();
    return S_OK;
}

HRESULT CMimeMessage::SetReadFlag(ULONG ulFlags) {
    return Guarded([&]() -> HRESULT {
        std::lock_guard lock(m_lock);
        if (!m_place) return S_OK;  // an embedded message has no flags of its own
        return m_place->SetReadFlag(!(ulFlags & CLEAR_READ_FLAG));
    });
}

const std::vector<BYTE>* CMimeAttach::Decoded() const {
    std::lock_guard lock(m_decodedLock);
    if (!m_decoded) m_decoded = DecodedBytes(m_content->attachments[m_index]);
    return m_decoded ? &*m_decoded : nullptr;
}

std::vector<CPropValue> CMimeAttach::Properties() const {
    const CAttachmentContent& attachment = m_content->attachments[m_index];
    {
        std::lock_guard lock(m_decodedLock);
        if (m_decoded) return AttachmentProperties(attachment, m_decoded->size());
    }
    // A body still on the server is not fetched for its size alone.
    const bool decodes = !attachment.size && !attachment.unpacked && !attachment.leftOut &&
                         attachment.method == ATTACH_BY_VALUE;
    return AttachmentProperties(attachment, decodes ? Decoded()->size() : AttachmentSize(attachment));
}

HRESULT CMimeAttach::OpenProperty(ULONG ulPropTag, LPCIID lpiid, ULONG, ULONG ulFlags, LPUNKNOWN* lppUnk) {
    if (!lppUnk || !lpiid) return MAPI_E_INVALID_PARAMETER;
    *lppUnk = nullptr;
    if (ulFlags & (MAPI_CREATE | MAPI_MODIFY)) return MAPI_E_NO_ACCESS;
    const CAttachmentContent& attachment = m_content->attachments[m_index];
    return Guarded([&]() -> HRESULT {
        if (ulPropTag == PR_ATTACH_DATA_BIN && attachment.method == ATTACH_BY_VALUE) {
            if (*lpiid != IID_IStream) return MAPI_E_INTERFACE_NOT_SUPPORTED;
            const std::vector<BYTE>* decoded = Decoded();
            if (!decoded) return MAPI_E_NETWORK_ERROR;
            *lppUnk = MakeReadStream(*decoded).Detach();
            return S_OK;
        }
        if (ulPropTag == PR_ATTACH_DATA_OBJ && attachment.method == ATTACH_EMBEDDED_MSG) {
            if (*lpiid != IID_IMessage) return MAPI_E_INTERFACE_NOT_SUPPORTED;
            GMimeMessage* embedded =
                g_mime_message_part_get_message(GMIME_MESSAGE_PART(attachment.part.get()));
            return HandOut(MakeObject<CMimeMessage>(ReadMimeMessage(embedded), nullptr), lpiid, lppUnk);
        }
        return MAPI_E_NOT_FOUND;
    });
}

}  // namespace velmar::mapi
