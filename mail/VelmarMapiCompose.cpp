// CVelmarMapi: new mail composed in the outbox of the selected store and submitted, with the building
// blocks that forwarding shares (recipients, attachments, bodies, the sent-representing identity).
#include <cstring>
#include <cwchar>

#include "mail/ExportFolder.h"
#include "mail/MailText.h"
#include "mail/MapiHelpers.h"
#include "mail/VelmarMapi.h"
#include "support/CodePage.h"
#include "support/ErrorText.h"

using namespace velmar::mail;

namespace {

// PR_MSG_EDITOR_FORMAT values.
constexpr LONG kEditorFormatPlainText = 1;
constexpr LONG kEditorFormatHtml = 3;

struct CAdrListDeleter {
    void operator()(ADRLIST* list) const {
        if (const auto freeList = BoundMapiFunction<PFN_FreePadrlist>(MapiSlot::FreePadrlist)) freeList(list);
    }
};
using AdrListPtr = std::unique_ptr<ADRLIST, CAdrListDeleter>;

// HrGetOneProp through the function table; MAPI_E_NOT_FOUND style failures come back as they are, and
// E_FAIL when MAPI has no such function.
HRESULT GetOneProp(IMAPIProp* prop, ULONG ulPropTag, MapiBufferPtr<SPropValue>& value) {
    value.reset();
    const auto getOne = BoundMapiFunction<PFN_HrGetOneProp>(MapiSlot::HrGetOneProp);
    if (!getOne || !prop) return E_FAIL;
    return getOne(prop, ulPropTag, OutPtr(value));
}

// A text value pointing at text, which must outlive it; a temporary string cannot bind here.
SPropValue TextValue(ULONG ulPropTag, const wchar_t* text) {
    SPropValue value{};
    value.ulPropTag = ulPropTag;
    value.Value.lpszW = const_cast<LPWSTR>(text);
    return value;
}

// Writes bytes to a stream in one Write; the result of the Write.
HRESULT WriteBytes(IStream* stream, const std::string& bytes) {
    ULONG written = 0;
    return stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &written);
}

}  // namespace

CVelmarMapi::COutbox* CVelmarMapi::ThreadOutbox() {
    std::lock_guard lock(m_outboxLock);
    const auto found = m_outboxes.find(std::this_thread::get_id());
    return found == m_outboxes.end() ? nullptr : &found->second;
}

IMAPISession* CVelmarMapi::SendSession() {
    const COutbox* outbox = ThreadOutbox();
    return outbox && outbox->lpSession ? outbox->lpSession.get() : m_lpMAPISession.get();
}

// The outbox is this thread's until CloseOutbox, which every caller reaches.
void CVelmarMapi::OpenOutbox() {
    const CTraceScope trace(*this, L"CVelmarMapi::OpenOutbox");
    const COutbox* open = ThreadOutbox();
    if (!m_lpMAPISession || (open && open->lpStore) || m_nStoreIndex < 0 ||
        static_cast<size_t>(m_nStoreIndex) >= m_MsgStores.size())
        return;
    COutbox& outbox = [&]() -> COutbox& {
        std::lock_guard lock(m_outboxLock);
        return m_outboxes[std::this_thread::get_id()];
    }();
    const MsgStoreEntry* entry = m_MsgStores[static_cast<size_t>(m_nStoreIndex)].get();
    if (!entry || !entry->lpEntryID) return;
    trace.Step(L"OpenMsgStore start " + entry->strDisplayName);
    if (FAILED(m_lpMAPISession->OpenMsgStore(0, entry->lpEntryID->cb,
                                             reinterpret_cast<LPENTRYID>(entry->lpEntryID->lpb), nullptr,
                                             MAPI_BEST_ACCESS, outbox.lpStore.Put())) ||
        !outbox.lpStore) {
        outbox.lpStore.Reset();
        return;
    }
    outbox.lpSession = velmar::CComPtr<IMAPISession>::AddRefed(m_lpMAPISession.get());
    trace.Step(L"OpenMsgStore end");
    MapiBufferPtr<SPropValue> folder;
    if (SUCCEEDED(GetOneProp(outbox.lpStore.get(), PR_IPM_OUTBOX_ENTRYID, 0, folder)) && folder) {
        trace.Step(L"OpenEntry start");
        const HRESULT hr =
            OpenEntryAs(outbox.lpStore.get(), folder->Value.bin.cb,
                        reinterpret_cast<LPENTRYID>(folder->Value.bin.lpb), MAPI_MODIFY, outbox.lpFolder);
        trace.Step(L"OpenEntry end");
        if (FAILED(hr)) {
            wchar_t text[96] = {};
            std::swprintf(text, 96, L"Fehler beim Ausgang \u00d6ffnung, Fehlernummer: %X",
                          static_cast<unsigned>(hr));
            OutputError(text);
        }
    }
    trace.Step(L"MAPIFreeBuffer start");
    folder.reset();
    trace.Step(L"MAPIFreeBuffer end");
}

const CVelmarMapi::COutbox* CVelmarMapi::OpenedOutbox(const CTraceScope& trace) {
    const COutbox* outbox = ThreadOutbox();
    if (outbox && outbox->lpFolder) return outbox;
    trace.Step(L"OpenOutbox");
    OpenOutbox();
    outbox = ThreadOutbox();
    return outbox && outbox->lpFolder ? outbox : nullptr;
}

void CVelmarMapi::CloseOutbox() {
    const CTraceScope trace(*this, L"CVelmarMapi::CloseOutbox");
    COutbox closed;
    {
        std::lock_guard lock(m_outboxLock);
        const auto found = m_outboxes.find(std::this_thread::get_id());
        if (found == m_outboxes.end()) return;
        closed = std::move(found->second);
        m_outboxes.erase(found);
    }
    // Released in the order they were opened in reverse, outside the lock.
    closed.lpFolder.Reset();
    closed.lpStore.Reset();
}

HRESULT CVelmarMapi::HrAllocAdrList(ULONG ulNumProps, LPADRLIST* lppAdrList) {
    const CTraceScope trace(*this, L"CVelmarMapi::HrAllocAdrList");
    if (!lppAdrList) return MAPI_E_INVALID_PARAMETER;
    *lppAdrList = nullptr;
    trace.Step(L"MAPIAllocateBuffer 1 start");
    LPVOID list = nullptr;
    HRESULT hr = VMAPIAllocateBuffer(CbNewADRLIST(1), &list);
    trace.Step(L"MAPIAllocateBuffer 1 end");
    if (FAILED(hr) || !list) return FAILED(hr) ? hr : MAPI_E_NOT_ENOUGH_MEMORY;
    std::memset(list, 0, CbNewADRLIST(1));
    // The values are a buffer of their own, as FreePadrlist and ResolveName expect.
    trace.Step(L"MAPIAllocateBuffer 2 start");
    LPVOID values = nullptr;
    hr = VMAPIAllocateBuffer(ulNumProps * sizeof(SPropValue), &values);
    trace.Step(L"MAPIAllocateBuffer 2 end");
    if (FAILED(hr) || !values) {
        VMAPIFreeBuffer(list);
        return FAILED(hr) ? hr : MAPI_E_NOT_ENOUGH_MEMORY;
    }
    std::memset(values, 0, ulNumProps * sizeof(SPropValue));
    auto* adrList = static_cast<LPADRLIST>(list);
    adrList->aEntries[0].rgPropVals = static_cast<LPSPropValue>(values);
    *lppAdrList = adrList;
    return S_OK;
}

bool CVelmarMapi::AddRecipient(LPMESSAGE lpMessage, const std::wstring& strRecipient, ULONG ulRecipientType) {
    const CTraceScope trace(*this, L"CVelmarMapi::AddRecipient");
    IMAPISession* session = SendSession();
    if (!session || !lpMessage) return false;
    trace.Step(L"OpenAddressBook start");
    CComPtr<IAddrBook> addressBook;
    // Not checked: without an address book the recipient is added unresolved.
    session->OpenAddressBook(0, nullptr, 0, addressBook.Put());
    trace.Step(L"HrAllocAdrList start");
    LPADRLIST rawList = nullptr;
    const bool allocated = SUCCEEDED(HrAllocAdrList(2, &rawList));
    AdrListPtr list(rawList);
    trace.Step(L"HrAllocAdrList end");
    if (allocated && list) {
        list->cEntries = 1;
        ADRENTRY& entry = list->aEntries[0];
        entry.cValues = 2;
        entry.rgPropVals[0].ulPropTag = PR_DISPLAY_NAME_W;
        entry.rgPropVals[0].Value.lpszW = const_cast<LPWSTR>(strRecipient.c_str());
        entry.rgPropVals[1].ulPropTag = PR_RECIPIENT_TYPE;
        entry.rgPropVals[1].Value.l = static_cast<LONG>(ulRecipientType);
        trace.Step(L"");
        // Not checked: an entry the address book cannot resolve is added as it is.
        if (addressBook) addressBook->ResolveName(0, MAPI_UNICODE, nullptr, list.get());
        trace.Step(L"ModifyRecipients");
        lpMessage->ModifyRecipients(MODRECIP_ADD, list.get());
        // Saved after every single recipient, so a draft always holds those added so far.
        trace.Step(L"SaveChanges start");
        lpMessage->SaveChanges(KEEP_OPEN_READWRITE);
        trace.Step(L"SaveChanges end");
        trace.Step(L"FreePadrlist");
        list.reset();
    }
    addressBook.Reset();
    return true;
}

void CVelmarMapi::AddRecipients(LPMESSAGE lpMessage, const std::vector<std::wstring>& to,
                                const std::vector<std::wstring>& cc, const std::vector<std::wstring>& bcc) {
    const CTraceScope trace(*this, L"CVelmarMapi::AddRecipients");
    for (const std::wstring& recipient : to) AddRecipient(lpMessage, recipient, MAPI_TO);
    for (const std::wstring& recipient : cc) AddRecipient(lpMessage, recipient, MAPI_CC);
    for (const std::wstring& recipient : bcc) AddRecipient(lpMessage, recipient, MAPI_BCC);
}

void CVelmarMapi::AddAttachments(LPMESSAGE lpMessage, std::vector<AttachmentFileEntry> attachments) {
    const CTraceScope trace(*this, L"CVelmarMapi::AddAttachments");
    for (const AttachmentFileEntry& file : attachments) {
        if (!lpMessage) break;
        trace.Step(L"CreateAttach start");
        ULONG attachNum = 0;
        CComPtr<IAttach> attach;
        if (FAILED(lpMessage->CreateAttach(nullptr, 0, &attachNum, attach.Put())) || !attach) continue;
        trace.Step(L"CreateAttach end");
        const CPathParts parts = SplitAttachmentPath(file.strPath, kFolderSeparator);
        SPropValue values[6] = {};
        values[0].ulPropTag = PR_ATTACH_METHOD;
        values[0].Value.l = ATTACH_BY_VALUE;
        values[1] = TextValue(PR_ATTACH_PATHNAME_W, parts.folder.c_str());
        values[2] = TextValue(PR_ATTACH_FILENAME_W, parts.fileName.c_str());
        values[3] = TextValue(PR_ATTACH_EXTENSION_W, parts.extension.c_str());
        values[4] = TextValue(PR_DISPLAY_NAME_W, file.strPath.c_str());
        values[5] = TextValue(PR_ATTACH_CONTENT_ID_W, file.strContentId.c_str());
        trace.Step(L"SetProps start");
        if (FAILED(attach->SetProps(6, values, nullptr))) continue;
        trace.Step(L"SetProps end");
        // The narrow entry point, in the system's ANSI code page: a path it cannot hold fails to open here.
        const std::string narrowPath = velmar::WideToSystemAnsi(file.strPath);
        const std::string narrowExtension = velmar::WideToSystemAnsi(parts.extension);
        trace.Step(L"OpenStreamOnFile");
        CComPtr<IStream> fileStream;
        if (const auto open = BoundMapiFunction<PFN_OpenStreamOnFile>(MapiSlot::OpenStreamOnFile))
            open(BoundMapiFunction<LPALLOCATEBUFFER>(MapiSlot::MAPIAllocateBuffer),
                 BoundMapiFunction<LPFREEBUFFER>(MapiSlot::MAPIFreeBuffer), STGM_READ, narrowPath.c_str(),
                 narrowExtension.c_str(), fileStream.Put());
        if (!fileStream) continue;
        trace.Step(L"OpenProperty");
        CComPtr<IStream> data;
        if (FAILED(OpenPropertyAs(attach.get(), PR_ATTACH_DATA_BIN, 0, MAPI_CREATE | MAPI_MODIFY, data)))
            continue;
        trace.Step(L"Stat start");
        STATSTG stat{};
        fileStream->Stat(&stat, STATFLAG_NONAME);
        if (SUCCEEDED(fileStream->CopyTo(data.get(), stat.cbSize, nullptr, nullptr))) attach->SaveChanges(0);
        trace.Step(L"Stat end");
    }
}

void CVelmarMapi::SetBody(LPMESSAGE lpMessage, const std::wstring& strHtmlBody, const std::wstring& strBody) {
    const CTraceScope trace(*this, L"CVelmarMapi::SetBody");
    if (!lpMessage || (strHtmlBody.empty() && strBody.empty())) return;
    trace.Step(L"SetProps");
    SPropValue body = TextValue(PR_BODY_W, strBody.c_str());
    if (FAILED(lpMessage->SetProps(1, &body, nullptr)) || strHtmlBody.empty()) return;
    trace.Step(L"OpenProperty");
    trace.Step(L"OpenProperty set PR_HTML");
    CComPtr<IStream> html;
    if (OpenPropertyAs(lpMessage, PR_HTML, STGM_CREATE | STGM_WRITE, MAPI_CREATE | MAPI_MODIFY, html) ==
        S_OK) {
        trace.Step(L"PR_HTML Writing new Body: " + strHtmlBody);
        const HRESULT hrWrite = WriteBytes(html.get(), velmar::WideToAnsi(strHtmlBody));
        trace.Step(L"PR_HTML Writing new Body write: " + LowerHexTrace(static_cast<unsigned>(hrWrite)));
        const HRESULT hrCommit = html->Commit(0);
        trace.Step(L"PR_HTML Writing new Body commit: " + LowerHexTrace(static_cast<unsigned>(hrCommit)));
        html.Reset();
    }
    trace.Step(L"OpenProperty set PR_RTF_COMPRESSED");
    CComPtr<IStream> compressed;
    if (OpenPropertyAs(lpMessage, PR_RTF_COMPRESSED, STGM_CREATE | STGM_WRITE, MAPI_CREATE | MAPI_MODIFY,
                       compressed) != S_OK)
        return;
    trace.Step(L"WrapCompressedRTFStream");
    CComPtr<IStream> rtf;
    const auto wrap = BoundMapiFunction<PFN_WrapCompressedRTFStream>(MapiSlot::WrapCompressedRTFStream);
    if (!wrap || wrap(compressed.get(), MAPI_MODIFY, rtf.Put()) != 0 || !rtf) return;
    // The HTML as it is inside an RTF that says it came from HTML: readers take the HTML back out of it.
    const std::wstring text =
        L"{\\rtf1\\ansi\\ansicpg" + velmar::SystemAnsiCodePageText() + L"\\fromhtml1 " + strHtmlBody + L" }";
    WriteBytes(rtf.get(), velmar::WideToAnsi(text));
    if (rtf->Commit(0) == 0) compressed->Commit(0);
}

void CVelmarMapi::SetRepresenting(LPMESSAGE lpMessage) {
    AddTrace(L"CVelmarMapi::SendMail HrGetOnePropSent PR_MAILBOX_OWNER_ENTRYID");
    MapiBufferPtr<SPropValue> owner;
    const COutbox* outbox = ThreadOutbox();
    if (!outbox || FAILED(GetOneProp(outbox->lpStore.get(), PR_MAILBOX_OWNER_ENTRYID, owner)) || !owner)
        return;
    AddTrace(L"CVelmarMapi::SendMail SetProps Representing");
    SPropValue values[2] = {};
    values[0] = TextValue(PR_SENT_REPRESENTING_ADDRTYPE_W, L"SMTP");
    values[1].ulPropTag = PR_SENT_REPRESENTING_ENTRYID;
    values[1].Value.bin = owner->Value.bin;
    if (FAILED(lpMessage->SetProps(2, values, nullptr)))
        AddTrace(L"CVelmarMapi::SendMail setProps failed, ignoring error, try sending anyway");
}

void CVelmarMapi::TraceSubmitError(HRESULT hr) {
    wchar_t line[64] = {};
    std::swprintf(line, 64, L"CVelmarMapi::SendMail error Submit Message 0x%x", static_cast<unsigned>(hr));
    AddTrace(line);
    std::wstring text = velmar::SystemTextOfResult(static_cast<unsigned long>(hr));
    if (text.empty()) {
        wchar_t missing[80] = {};
        std::swprintf(missing, 80, L"Err=0x%x (Windows Fehlertext ist nicht vorhanden.)",
                      static_cast<unsigned>(hr));
        text = missing;
    }
    OutputError(text);
}

HRESULT CVelmarMapi::SendMail(const std::wstring& strSubject, const std::wstring& strBody,
                              const std::vector<std::wstring>& to, const std::vector<std::wstring>& cc,
                              const std::vector<std::wstring>& bcc,
                              const std::vector<std::wstring>& attachmentPaths, bool bOutlookForceSend) {
    const CTraceScope trace(
        *this, L"CVelmarMapi::SendMail",
        bOutlookForceSend ? L"start bOutlookForceSend = true" : L"start bOutlookForceSend = false");
    HRESULT result = S_OK;
    [&] {
        const COutbox* outbox = OpenedOutbox(trace);
        if (!outbox) {
            result = MAPI_E_NOT_FOUND;
            return;
        }
        // From here on the send works on its outbox and its message alone: other requests go on meanwhile,
        // however many recipients, large files or a slow server it has.
        const CSessionLockGap gap(*this);
        trace.Step(L"CreateMessage");
        CComPtr<IMessage> message;
        if (FAILED(result = outbox->lpFolder->CreateMessage(nullptr, 0, message.Put())) || !message) {
            if (SUCCEEDED(result)) result = E_FAIL;
            return;
        }
        trace.Step(L"HrGetOnePropSent");
        MapiBufferPtr<SPropValue> sentItems;
        if (FAILED(result = GetOneProp(outbox->lpStore.get(), PR_IPM_SENTMAIL_ENTRYID, sentItems)) ||
            !sentItems) {
            if (SUCCEEDED(result)) result = MAPI_E_NOT_FOUND;
            return;
        }
        // New mail carries no HTML: only the plain body, so the editor format is plain text. Forwarding
        // is what writes HTML.
        const std::wstring strHtmlBody;
        SPropValue values[4] = {};
        values[0] = TextValue(PR_SUBJECT_W, strSubject.c_str());
        values[1] = TextValue(PR_MESSAGE_CLASS_W, L"IPM.Note");
        values[2].ulPropTag = PR_SENTMAIL_ENTRYID;
        values[2].Value.bin = sentItems->Value.bin;
        values[3].ulPropTag = PR_MSG_EDITOR_FORMAT;
        values[3].Value.l = strHtmlBody.empty() ? kEditorFormatPlainText : kEditorFormatHtml;
        trace.Step(L"AddRecipients");
        AddRecipients(message.get(), to, cc, bcc);
        if (!attachmentPaths.empty()) {
            std::vector<AttachmentFileEntry> files;
            for (const std::wstring& path : attachmentPaths) files.push_back({path, 0, {}});
            trace.Step(L"AddAttachments");
            AddAttachments(message.get(), std::move(files));
        }
        trace.Step(L"SetProps");
        if (FAILED(result = message->SetProps(4, values, nullptr))) {
            TraceSubmitError(result);
        } else {
            SetRepresenting(message.get());
            trace.Step(L"SetBody");
            SetBody(message.get(), strHtmlBody, strBody.c_str());
            trace.Step(L"SubmitMessage");
            if (FAILED(result = message->SubmitMessage(FORCE_SUBMIT))) TraceSubmitError(result);
        }
        message.Reset();
        if (bOutlookForceSend) {
            trace.Step(L"OutlookForceSend");
            OutlookForceSend();
        }
    }();
    trace.Step(L"CloseOutbox");
    CloseOutbox();
    return result;
}

void CVelmarMapi::RemoveFiles(const std::vector<AttachmentFileEntry>& files) {
    const CTraceScope trace(*this, L"CVelmarMapi::RemoveFiles");
    for (const AttachmentFileEntry& file : files) RemoveFile(file.strPath);
}
