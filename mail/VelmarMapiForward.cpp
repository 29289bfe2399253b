// CVelmarMapi: a message found by its message id forwarded as a new message from the outbox, with its
// subject, sender name, bodies and attachments taken over, a send note on top and new recipients.
#include "mail/ExportFolder.h"
#include "mail/MailText.h"
#include "mail/MapiHelpers.h"
#include "mail/VelmarMapi.h"

using namespace velmar::mail;

namespace {

// ForwardMail's status results.
constexpr ULONG kForwardDone = 0;
constexpr ULONG kForwardNotFound = 1;
constexpr ULONG kForwardNotBuilt = 2;

}  // namespace

ULONG CVelmarMapi::ForwardMail(const std::wstring& strMessageId, const std::wstring& strBrandingSubject,
                               const std::wstring& strSubject, const std::wstring& strSendNote,
                               const std::wstring& strToEmailAddress, const std::vector<std::wstring>& to,
                               const std::vector<std::wstring>& cc, const std::vector<std::wstring>& bcc,
                               const std::vector<std::wstring>& attachmentFiles, bool bOutlookForceSend) {
    const CTraceScope trace(
        *this, L"CVelmarMapi::ForwardMail",
        bOutlookForceSend ? L"start bOutlookForceSend = true" : L"start bOutlookForceSend = false");
    trace.Step(L"GetpMessage");
    CFoundMessage source;
    if (!GetpMessage(strMessageId, strToEmailAddress, source)) return kForwardNotFound;

    ULONG status = kForwardNotBuilt;
    MapiBufferPtr<SPropValue> takenOver;
    MapiBufferPtr<SPropValue> sentItems;
    CComPtr<IMessage> message;
    [&] {
        const COutbox* outbox = OpenedOutbox(trace);
        if (!outbox) return;
        // From here on the forward works on its source, its outbox and its message alone: other requests go
        // on meanwhile.
        const CSessionLockGap gap(*this);
        trace.Step(L"CreateMessage");
        if (FAILED(outbox->lpFolder->CreateMessage(nullptr, 0, message.Put())) || !message) return;
        // The branding subject stands for the whole subject, and only when none is given.
        std::wstring subject = strSubject.empty() ? strBrandingSubject : strSubject;

        trace.Step(L"FetchBody");
        EMailData data;
        FetchBody(source.message.get(), &data);
        trace.Step(L"EmailDate FetchBody");

        trace.Step(L"GetProps");
        SizedSPropTagArray(3, takenOverTags) = {3, {PR_NORMALIZED_SUBJECT_W, PR_SUBJECT_W, PR_SENDER_NAME_W}};
        ULONG count = 0;
        const HRESULT hrGet = source.message->GetProps(reinterpret_cast<LPSPropTagArray>(&takenOverTags),
                                                       MAPI_UNICODE, &count, OutPtr(takenOver));
        if (SUCCEEDED(hrGet) && takenOver && count == 3) {
            SPropValue& sourceSubject = takenOver.get()[1];
            const std::wstring oldSubject =
                sourceSubject.ulPropTag == PR_SUBJECT_W && sourceSubject.Value.lpszW
                    ? sourceSubject.Value.lpszW
                    : L"";
            trace.Step(L"GetSubject: " + oldSubject);
            // Without either subject the source's stays, behind one blank; no prefix is ever added.
            if (subject.empty()) subject = L" " + oldSubject;
            sourceSubject.ulPropTag = PR_SUBJECT_W;
            sourceSubject.Value.lpszW = const_cast<LPWSTR>(subject.c_str());
        }

        trace.Step(L"CopyProps");
        SizedSPropTagArray(3, copiedTags) = {3, {PR_BODY_W, PR_HTML, PR_RTF_COMPRESSED}};
        const HRESULT hrCopy = source.message->CopyProps(reinterpret_cast<LPSPropTagArray>(&copiedTags), 0,
                                                         nullptr, &IID_IMessage, message.get(), 0, nullptr);

        trace.Step(L"GetSendNote");
        const std::wstring note = SendNoteText(strSendNote);
        const std::wstring plainBody = note + data.body;
        std::wstring htmlBody = data.htmlBody;
        if (!htmlBody.empty()) {
            trace.Step(L"InsertTextIntoHTMLBodyBegin");
            htmlBody = InsertTextIntoHTMLBodyBegin(htmlBody, note + L"<hr>");
        }
        trace.Step(L"SetBody");
        SetBody(message.get(), htmlBody, plainBody);

        if (FAILED(hrCopy) || !takenOver || count == 0) return;
        trace.Step(L"SetProps");
        if (FAILED(message->SetProps(count, takenOver.get(), nullptr))) return;
        trace.Step(L"HrGetOneProp");
        const auto getOne = BoundMapiFunction<PFN_HrGetOneProp>(MapiSlot::HrGetOneProp);
        if (!getOne) return;
        const HRESULT hrSent = getOne(outbox->lpStore.get(), PR_IPM_SENTMAIL_ENTRYID, OutPtr(sentItems));
        if (FAILED(hrSent) || !sentItems) return;
        trace.Step(L"SetProps");
        SPropValue sentFolder{};
        sentFolder.ulPropTag = PR_SENTMAIL_ENTRYID;
        sentFolder.Value.bin = sentItems->Value.bin;
        if (FAILED(message->SetProps(1, &sentFolder, nullptr))) return;

        trace.Step(L"AddRecipients");
        AddRecipients(message.get(), to, cc, bcc);
        trace.Step(L"CopyAttachments");
        // The copies go to a folder of this forward's own, gone with whatever is left in it at the end: a
        // file of the same name that another request exports meanwhile is neither sent nor removed here.
        const CRequestFolder copies;
        std::vector<AttachmentFileEntry> copied;
        CopyAttachments(source.message.get(), message.get(), copied, copies.Path());
        if (!attachmentFiles.empty()) {
            // The request's own files go with the forward too; they are the caller's and stay.
            std::vector<AttachmentFileEntry> files;
            for (const std::wstring& path : attachmentFiles) files.push_back({path, 0, {}});
            trace.Step(L"AddAttachments");
            AddAttachments(message.get(), std::move(files));
        }
        SetRepresenting(message.get());
        trace.Step(L"SubmitMessage start");
        // Unlike a new mail, a forward is submitted without FORCE_SUBMIT.
        const HRESULT hrSubmit = message->SubmitMessage(0);
        trace.Step(L"SubmitMessage end");
        trace.Step(L"RemoveFiles start");
        RemoveFiles(copied);
        trace.Step(L"RemoveFiles end");
        status = SUCCEEDED(hrSubmit) ? kForwardDone : kForwardNotBuilt;
    }();
    trace.Step(L"MAPIFreeBuffer start");
    takenOver.reset();
    trace.Step(L"MAPIFreeBuffer end");
    trace.Step(L"CloseOutbox");
    CloseOutbox();
    trace.Step(L"MAPIFreeBuffer start");
    sentItems.reset();
    trace.Step(L"MAPIFreeBuffer end");
    trace.Step(L"releases");
    message.Reset();
    source = CFoundMessage{};
    if (bOutlookForceSend) OutlookForceSend();
    return status;
}

void CVelmarMapi::CopyAttachments(LPMESSAGE lpSource, LPMESSAGE lpTarget,
                                  std::vector<AttachmentFileEntry>& copied, const std::wstring& strFolder) {
    const CTraceScope trace(*this, L"CVelmarMapi::CopyAttachments");
    trace.Step(L"FetchAttachments start");
    EMailData data;
    FetchAttachments(lpSource, &data);
    trace.Step(L"FetchAttachments end");
    AddAttachements(lpTarget, data, lpSource, copied, strFolder);
}

void CVelmarMapi::AddAttachements(LPMESSAGE lpTarget, const EMailData& source, LPMESSAGE lpSource,
                                  std::vector<AttachmentFileEntry>& copied, const std::wstring& strFolder) {
    const CTraceScope trace(*this, L"CVelmarMapi::AddAttachements");
    trace.Step(L"searchAttachementIndex");
    for (const EMailAttachment& attachment : source.attachments) {
        const ULONG number = static_cast<ULONG>(attachment.attachmentIndex);
        const std::wstring path = OpenAttachment1(lpSource, number, strFolder);
        if (!path.empty()) copied.push_back({path, number, attachment.contentId});
    }
    trace.Step(L"addAttachments");
    AddAttachments(lpTarget, copied);
}
