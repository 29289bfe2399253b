// The message commands: a message named by its message id, its data as JSON, its attachments as files.
#include "json/CkJsonArray.h"
#include "service/Dispatcher.h"
#include "support/CodePage.h"

namespace velmar::service {
namespace {

std::string Joined(const std::vector<std::wstring>& names) {
    std::wstring joined;
    for (size_t i = 0; i < names.size(); ++i) {
        if (i > 0) joined += L"; ";
        joined += names[i];
    }
    return WideToAnsi(joined);
}

void AddText(CkJsonObject& reply, const char* name, const std::wstring& text) {
    reply.AddStringAt(-1, name, WideToAnsi(text).c_str());
}

}  // namespace

bool CRequestDispatcher::GetMessageData(CkJsonObject& request, CkJsonObject& reply, std::atomic<bool>&) {
    const std::wstring messageId = RequestString(request, "messageId");
    const std::wstring address = RequestString(request, "toEMailAddress");
    m_mapi.SetProfileName(RequestString(request, "profileName"));
    m_mapi.SetStoreIndex(request.IntOf("storeIndex"));  // checked where it is used
    const bool setRead = request.BoolOf("setReadIfMainMessageStore");
    // Absent, the flag keeps what an earlier request set.
    if (request.HasMember("parameterStoreKestaEMailOptimalMessageStore"))
        m_mapi.SetOptimalMessageStore(request.BoolOf("parameterStoreKestaEMailOptimalMessageStore"));
    EMailData data;
    m_mapi.GetMessageData(data, messageId, address, setRead);

    AddText(reply, "emailConnection", data.emailConnection);
    AddText(reply, "mailbox", data.mailbox);
    AddText(reply, "messageId", data.messageId);
    AddText(reply, "from", data.from);
    AddText(reply, "fromAddress", data.fromAddress);
    reply.AddStringAt(-1, "to", Joined(data.to).c_str());
    reply.AddStringAt(-1, "cc", Joined(data.cc).c_str());
    reply.AddStringAt(-1, "bcc", Joined(data.bcc).c_str());
    AddText(reply, "sent", data.sent);
    AddText(reply, "subject", data.subject);
    AddText(reply, "body", data.body);
    AddText(reply, "rtfBody", data.rtfBody);
    AddText(reply, "htmlBody", data.htmlBody);
    AddText(reply, "sentDate", data.sentDate);
    AddText(reply, "LotusNotesUrl", data.LotusNotesUrl);
    reply.AddArrayAt(-1, "strEmbeddedAttachments");
    if (std::unique_ptr<CkJsonArray> paths = reply.ArrayAt(reply.Count() - 1)) {
        for (const std::wstring& path : data.strEmbeddedAttachments)
            if (!path.empty()) paths->AddStringAt(-1, WideToAnsi(path).c_str());
    }
    reply.AddArrayAt(-1, "attachments");
    if (std::unique_ptr<CkJsonArray> attachments = reply.ArrayAt(reply.Count() - 1)) {
        for (const EMailAttachment& attachment : data.attachments) {
            attachments->AddObjectAt(-1);
            if (std::unique_ptr<CkJsonObject> element = attachments->ObjectAt(attachments->Count() - 1)) {
                AddText(*element, "fileName", attachment.fileName);
                element->AddIntAt(-1, "attachmentIndex", attachment.attachmentIndex);
                AddText(*element, "contentId", attachment.contentId);
            }
        }
    }
    return !data.messageId.empty();
}

bool CRequestDispatcher::OpenAttachment(CkJsonObject& request, CkJsonObject& reply, std::atomic<bool>&) {
    const std::wstring messageId = RequestString(request, "messageId");
    const std::wstring mailbox = RequestString(request, "mailBox");
    const int index = request.IntOf("attachmentIndex");
    const std::wstring file = m_mapi.OpenAttachment2(messageId, mailbox, static_cast<ULONG>(index));
    AddText(reply, "fileName", file);
    return true;
}

bool CRequestDispatcher::FindMessage(CkJsonObject& request, CkJsonObject&, std::atomic<bool>&) {
    const std::wstring messageId = RequestString(request, "messageId");
    const std::wstring address = RequestString(request, "toEmailAddress");
    const bool setRead = request.BoolOf("setReadIfMainMessageStore");
    request.BoolOf("fetchEMailData");  // read and not used
    // With the main window as parent the message comes up in its form; without a window (headless) it is
    // only looked up, and marked read when asked.
    m_mapi.FindMessage(messageId, address, m_mapi.FormParentWindow(), setRead, nullptr);
    return true;
}

// Deliberate: "OK" whatever happened; the reasons are in the trace.
bool CRequestDispatcher::OpenEmail(CkJsonObject& request, CkJsonObject&, std::atomic<bool>&) {
    const std::wstring profile = RequestString(request, "outlookProfile");
    const std::wstring savedStore = RequestString(request, "savedMessageStore");
    const std::wstring messageId = RequestString(request, "messageId");
    const ULONG_PTR parentWindow = m_mapi.FormParentWindow();
    if (m_mapi.ProfileName() != profile) m_mapi.Logon(profile, parentWindow);
    const int index = m_mapi.StoreIndex();
    const bool keepStore = index >= 0 && static_cast<size_t>(index) < m_mapi.MessageStoreCount() &&
                           m_mapi.StoreDisplayName(static_cast<size_t>(index)) == savedStore;
    if (!keepStore) m_mapi.SetMessageStore(savedStore);
    if (!parentWindow) m_mapi.AddTrace(L"OpenEmail: no window to show the message in, it stays closed");
    m_mapi.FindMessage(messageId, L"", parentWindow, false, nullptr);
    return true;
}

bool CRequestDispatcher::SaveToMsg(CkJsonObject& request, CkJsonObject&, std::atomic<bool>&) {
    const std::wstring messageId = RequestString(request, "messageId");
    const std::wstring mailbox = RequestString(request, "mailBox");
    const std::wstring file = RequestString(request, "filename");
    CFoundMessage lookup;
    const bool found = m_mapi.GetpMessage(messageId, mailbox, lookup);
    if (found) m_mapi.SaveToMSG(lookup.message.get(), file);
    return found;
}

}  // namespace velmar::service
