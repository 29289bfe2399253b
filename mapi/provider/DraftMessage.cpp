#include "mapi/provider/DraftMessage.h"

#include <algorithm>
#include <cerrno>
#include <new>

#include "mapi/provider/EntryId.h"
#include "mapi/provider/Maildir.h"
#include "mapi/provider/MaildirWriter.h"
#include "mapi/provider/MessageColumns.h"
#include "mapi/provider/QueueNotice.h"
#include "mapi/runtime/Guarded.h"
#include "mapi/runtime/Table.h"
#include "mapitags.h"

namespace velmar::mapi {
namespace {

// A file that cannot be written, as MAPI names it.
HRESULT ResultOfErrno(int error) {
    switch (error) {
        case 0:
            return S_OK;
        case ENOSPC:
        case EDQUOT:
            return MAPI_E_NOT_ENOUGH_DISK;
        case EACCES:
        case EPERM:
        case EROFS:
            return MAPI_E_NO_ACCESS;
        default:
            return MAPI_E_DISK_ERROR;
    }
}

std::vector<CPropValue> RowOf(const ADRENTRY& entry) {
    std::vector<CPropValue> row;
    for (ULONG i = 0; entry.rgPropVals && i < entry.cValues; ++i)
        if (std::optional<CPropValue> value = FromMapi(entry.rgPropVals[i])) SetValue(row, std::move(*value));
    return row;
}

std::optional<std::int32_t> RowIdOf(const std::vector<CPropValue>& row) {
    const CPropValue* id = FindValue(row, PR_ROWID);
    const auto* number = id ? std::get_if<std::int32_t>(&id->data) : nullptr;
    return number ? std::optional<std::int32_t>(*number) : std::nullopt;
}

}  // namespace

// The last reference is gone: a save not written yet becomes its draft file now. Nobody is left to hear of
// a failure.
CDraftMessage::~CDraftMessage() {
    static_cast<void>(Guarded([&] {
        std::lock_guard lock(m_lock);
        return WritePendingSave();
    }));
}

std::vector<CPropValue> CDraftMessage::Properties() const {
    std::lock_guard lock(m_lock);
    std::vector<CPropValue> props = m_props.Values();
    std::int32_t flags = m_flags;
    if (!m_attachments.empty()) flags |= MSGFLAG_HASATTACH;
    SetValue(props, {PR_MESSAGE_FLAGS, flags});
    SetValue(props, {PR_HASATTACH, !m_attachments.empty()});
    SetValue(props, {PR_OBJECT_TYPE, static_cast<std::int32_t>(MAPI_MESSAGE)});
    if (!m_draftKey.empty()) {
        const std::vector<BYTE> entryId =
            EncodeEntryId({EntryKind::Message, m_store.id, m_folderName, m_draftKey});
        SetValue(props, {PR_ENTRYID, entryId});
        SetValue(props, {PR_RECORD_KEY, entryId});
    }
    SetValue(props, {PR_PARENT_ENTRYID, EncodeEntryId({EntryKind::Folder, m_store.id, m_folderName, {}})});
    SetValue(props, {PR_STORE_ENTRYID, EncodeEntryId({EntryKind::Store, m_store.id, {}, {}})});
    return props;
}

// Whoever asks for the entry id may open the message by it: a save not written yet is written first.
HRESULT CDraftMessage::GetProps(LPSPropTagArray lpPropTagArray, ULONG ulFlags, ULONG* lpcValues,
                                LPSPropValue* lppPropArray) {
    bool wantsEntryId = !lpPropTagArray;
    for (ULONG i = 0; lpPropTagArray && i < lpPropTagArray->cValues; ++i)
        wantsEntryId |= PROP_ID(lpPropTagArray->aulPropTag[i]) == PROP_ID(PR_ENTRYID) ||
                        PROP_ID(lpPropTagArray->aulPropTag[i]) == PROP_ID(PR_RECORD_KEY);
    if (wantsEntryId) {
        const HRESULT written = Guarded([&] {
            std::lock_guard lock(m_lock);
            return WritePendingSave();
        });
        if (FAILED(written)) return written;
    }
    return CMapiProp<IMessage>::GetProps(lpPropTagArray, ulFlags, lpcValues, lppPropArray);
}

HRESULT CDraftMessage::SetProps(ULONG cValues, LPSPropValue lpPropArray, LPSPropProblemArray* lppProblems) {
    if (lppProblems) *lppProblems = nullptr;
    return Guarded([&] {
        std::lock_guard lock(m_lock);
        return m_props.Set(cValues, lpPropArray);
    });
}

HRESULT CDraftMessage::DeleteProps(LPSPropTagArray lpPropTagArray, LPSPropProblemArray* lppProblems) {
    if (lppProblems) *lppProblems = nullptr;
    std::lock_guard lock(m_lock);
    return m_props.Remove(lpPropTagArray);
}

HRESULT CDraftMessage::OpenProperty(ULONG ulPropTag, LPCIID lpiid, ULONG ulInterfaceOptions, ULONG ulFlags,
                                    LPUNKNOWN* lppUnk) {
    return Guarded([&] {
        std::lock_guard lock(m_lock);
        return m_props.OpenStream(ulPropTag, lpiid, ulInterfaceOptions, ulFlags, lppUnk);
    });
}

HRESULT CDraftMessage::WriteFile(bool submit) {
    CDraftContent content{m_props.Values(), m_recipients, m_attachments};
    CRenderOptions options;
    options.draft = !submit;
    if (submit) {
        const std::vector<BYTE> sent = BytesOf(FindValue(content.props, PR_SENTMAIL_ENTRYID));
        const std::optional<CEntryId> folder = DecodeEntryId(sent.data(), sent.size());
        // A Maildir folder of the store, or ("/" and its name) one on the store's IMAP server.
        if (folder && folder->kind == EntryKind::Folder && folder->storeId == m_store.id &&
            (IsValidFolderName(folder->folder) ||
             (folder->folder.size() > 1 && folder->folder.front() == '/')))
            options.sentFolder = folder->folder;
    }
    const std::string bytes = RenderMime(content, m_store, options);
    // The message id made by the rendering stays the message's own.
    if (const CPropValue* id = FindValue(content.props, PR_INTERNET_MESSAGE_ID_W)) m_props.Set(*id);

    const std::string folderName = submit ? std::string(kOutboxFolder) : m_folderName;
    if (!EnsureMaildir(m_store.path, folderName)) return MAPI_E_NOT_FOUND;
    const CWrittenFile written =
        WriteMaildirMessage(FolderPath(m_store.path, folderName), bytes, submit, submit ? "" : "D");
    if (written.error != 0) return ResultOfErrno(written.error);
    // The new file is whole and synced: only now does the one it replaces go.
    if (!m_draftPath.empty()) RemoveDurably(m_draftPath);
    m_draftPath = submit ? std::string() : written.path;
    m_draftKey = submit ? std::string() : written.key;
    return S_OK;
}

HRESULT CDraftMessage::WritePendingSave() {
    if (!m_savePending || m_submitted) return S_OK;
    const HRESULT written = WriteFile(false);
    if (SUCCEEDED(written)) m_savePending = false;
    return written;
}

HRESULT CDraftMessage::SaveChanges(ULONG ulFlags) {
    return Guarded([&] {
        std::lock_guard lock(m_lock);
        // A submitted message belongs to the spooler now.
        if (m_submitted) return S_OK;
        m_savePending = true;
        // Kept open: written when the file is wanted. Closed: this is the last save, written now.
        if (ulFlags & (KEEP_OPEN_READONLY | KEEP_OPEN_READWRITE)) return S_OK;
        return WritePendingSave();
    });
}

HRESULT CDraftMessage::SubmitMessage(ULONG) {
    const HRESULT hr = Guarded([&] {
        std::lock_guard lock(m_lock);
        if (m_submitted) return MAPI_E_OBJECT_DELETED;
        const HRESULT written = WriteFile(true);
        if (SUCCEEDED(written)) {
            m_submitted = true;
            m_savePending = false;
            m_flags |= MSGFLAG_SUBMIT;
        }
        return written;
    });
    if (SUCCEEDED(hr)) NotifyQueued();
    return hr;
}

HRESULT CDraftMessage::SetReadFlag(ULONG ulFlags) {
    std::lock_guard lock(m_lock);
    if (ulFlags & CLEAR_READ_FLAG)
        m_flags &= ~static_cast<std::int32_t>(MSGFLAG_READ);
    else
        m_flags |= MSGFLAG_READ;
    return S_OK;
}

HRESULT CDraftMessage::ModifyRecipients(ULONG ulFlags, LPADRLIST lpMods) {
    if (!lpMods) return MAPI_E_INVALID_PARAMETER;
    return Guarded([&] {
        std::lock_guard lock(m_lock);
        if (ulFlags == 0) m_recipients.clear();
        for (ULONG i = 0; i < lpMods->cEntries; ++i) {
            std::vector<CPropValue> row = RowOf(lpMods->aEntries[i]);
            const std::optional<std::int32_t> rowId = RowIdOf(row);
            const auto same = [&](const std::vector<CPropValue>& existing) {
                return rowId && RowIdOf(existing) == rowId;
            };
            if (ulFlags & MODRECIP_REMOVE) {
                std::erase_if(m_recipients, same);
            } else if (ulFlags & MODRECIP_MODIFY) {
                const auto found = std::find_if(m_recipients.begin(), m_recipients.end(), same);
                if (found == m_recipients.end()) return MAPI_E_NOT_FOUND;
                *found = std::move(row);
            } else {
                SetValue(row, {PR_ROWID, m_nextRowId++});
                m_recipients.push_back(std::move(row));
            }
        }
        return S_OK;
    });
}

HRESULT CDraftMessage::GetRecipientTable(ULONG, LPMAPITABLE* lppTable) {
    return Guarded([&] {
        std::lock_guard lock(m_lock);
        return MakeRowListTable(RecipientColumns(), m_recipients, lppTable);
    });
}

HRESULT CDraftMessage::GetAttachmentTable(ULONG, LPMAPITABLE* lppTable) {
    return Guarded([&] {
        std::lock_guard lock(m_lock);
        std::vector<std::vector<CPropValue>> rows;
        for (const CDraftAttachment& attachment : m_attachments) {
            std::vector<CPropValue> row = attachment.props;
            SetValue(row, {PR_ATTACH_NUM, static_cast<std::int32_t>(attachment.number)});
            const size_t size = attachment.data ? attachment.data->size() : 0;
            SetValue(row, {PR_ATTACH_SIZE, static_cast<std::int32_t>(std::min<size_t>(size, 0x7FFFFFFF))});
            rows.push_back(std::move(row));
        }
        return MakeRowListTable(AttachmentColumnsWith(PR_ATTACH_EXTENSION_W), std::move(rows), lppTable);
    });
}

HRESULT CDraftMessage::OpenAttach(ULONG ulAttachmentNum, LPCIID lpInterface, ULONG, LPATTACH* lppAttach) {
    if (!lppAttach) return MAPI_E_INVALID_PARAMETER;
    *lppAttach = nullptr;
    return Guarded([&] {
        std::unique_lock lock(m_lock);
        const auto found =
            std::find_if(m_attachments.begin(), m_attachments.end(),
                         [&](const CDraftAttachment& a) { return a.number == ulAttachmentNum; });
        if (found == m_attachments.end()) return MAPI_E_NOT_FOUND;
        const CDraftAttachment attachment = *found;
        lock.unlock();
        LPUNKNOWN object = nullptr;
        const HRESULT hr =
            HandOut(MakeObject<CDraftAttach>(CComPtr<CDraftMessage>::AddRefed(this), attachment), lpInterface,
                    &object);
        *lppAttach = static_cast<LPATTACH>(object);
        return hr;
    });
}

HRESULT CDraftMessage::CreateAttach(LPCIID lpInterface, ULONG, ULONG* lpulAttachmentNum,
                                    LPATTACH* lppAttach) {
    if (!lppAttach) return MAPI_E_INVALID_PARAMETER;
    *lppAttach = nullptr;
    return Guarded([&] {
        CDraftAttachment attachment;
        {
            std::lock_guard lock(m_lock);
            attachment.number = m_nextAttachNum++;
        }
        if (lpulAttachmentNum) *lpulAttachmentNum = attachment.number;
        LPUNKNOWN object = nullptr;
        const HRESULT hr =
            HandOut(MakeObject<CDraftAttach>(CComPtr<CDraftMessage>::AddRefed(this), attachment), lpInterface,
                    &object);
        *lppAttach = static_cast<LPATTACH>(object);
        return hr;
    });
}

HRESULT CDraftMessage::DeleteAttach(ULONG ulAttachmentNum, ULONG_PTR, LPMAPIPROGRESS, ULONG) {
    std::lock_guard lock(m_lock);
    const size_t removed =
        std::erase_if(m_attachments, [&](const CDraftAttachment& a) { return a.number == ulAttachmentNum; });
    return removed ? S_OK : MAPI_E_NOT_FOUND;
}

void CDraftMessage::StoreAttachment(CDraftAttachment attachment) {
    std::lock_guard lock(m_lock);
    for (CDraftAttachment& existing : m_attachments) {
        if (existing.number == attachment.number) {
            existing = std::move(attachment);
            return;
        }
    }
    m_attachments.push_back(std::move(attachment));
}

CDraftAttach::CDraftAttach(CComPtr<CDraftMessage> message, const CDraftAttachment& attachment)
    : m_message(std::move(message)), m_number(attachment.number) {
    for (const CPropValue& value : attachment.props) m_props.Set(value);
    if (attachment.data) m_props.SetShared(PR_ATTACH_DATA_BIN, attachment.data);
}

std::vector<CPropValue> CDraftAttach::Properties() const {
    std::lock_guard lock(m_lock);
    std::vector<CPropValue> props = m_props.Values();
    SetValue(props, {PR_ATTACH_NUM, static_cast<std::int32_t>(m_number)});
    SetValue(props, {PR_OBJECT_TYPE, static_cast<std::int32_t>(MAPI_ATTACH)});
    return props;
}

void CDraftAttach::StoreInMessage() {
    m_message->StoreAttachment(
        {m_number, m_props.Values(PR_ATTACH_DATA_BIN), m_props.SharedBytes(PR_ATTACH_DATA_BIN)});
}

HRESULT CDraftAttach::SetProps(ULONG cValues, LPSPropValue lpPropArray, LPSPropProblemArray* lppProblems) {
    if (lppProblems) *lppProblems = nullptr;
    return Guarded([&] {
        std::lock_guard lock(m_lock);
        const HRESULT hr = m_props.Set(cValues, lpPropArray);
        StoreInMessage();
        return hr;
    });
}

HRESULT CDraftAttach::DeleteProps(LPSPropTagArray lpPropTagArray, LPSPropProblemArray* lppProblems) {
    if (lppProblems) *lppProblems = nullptr;
    return Guarded([&] {
        std::lock_guard lock(m_lock);
        const HRESULT hr = m_props.Remove(lpPropTagArray);
        StoreInMessage();
        return hr;
    });
}

// A data stream writes into bytes the message shares, so what it writes is the attachment's at once.
HRESULT CDraftAttach::OpenProperty(ULONG ulPropTag, LPCIID lpiid, ULONG ulInterfaceOptions, ULONG ulFlags,
                                   LPUNKNOWN* lppUnk) {
    return Guarded([&] {
        std::lock_guard lock(m_lock);
        const HRESULT hr = m_props.OpenStream(ulPropTag, lpiid, ulInterfaceOptions, ulFlags, lppUnk);
        if (SUCCEEDED(hr)) StoreInMessage();
        return hr;
    });
}

HRESULT CDraftAttach::SaveChanges(ULONG) {
    return Guarded([&] {
        std::lock_guard lock(m_lock);
        StoreInMessage();
        return S_OK;
    });
}

}  // namespace velmar::mapi
