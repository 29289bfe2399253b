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

bool CRequestDispatcher::GetMessageData(CRequestContext& context) {
    const std::wstring messageId = RequestString(context.request, "messageId");
    const std::wstring address = RequestString(context.request, "toEMailAddress");
    CLookupRequest lookup;
    lookup.strProfileName = RequestString(context.request, "profileName");
    lookup.nStoreIndex = context.request.IntOf("storeIndex");
    const bool setRead = context.request.BoolOf("setReadIfMainMessageStore");
    if (context.request.HasMember("parameterStoreKestaEMailOptimalMessageStore"))
        lookup.bOptimalMessageStore = context.request.BoolOf("parameterStoreKestaEMailOptimalMessageStore");
    EMailData data;
    m_mapi.GetMessageData(data, lookup, messageId, address, setRead);

    AddText(context.reply, "emailConnection", data.emailConnection);
    AddText(context.reply, "mailbox", data.mailbox);
    AddText(context.reply, "messageId", data.messageId);
    AddText(context.reply, "from", data.from);
    AddText(context.reply, "fromAddress", data.fromAddress);
    context.reply.AddStringAt(-1, "to", Joined(data.to).c_str());
    context.reply.AddStringAt(-1, "cc", Joined(data.cc).c_str());
    context.reply.AddStringAt(-1, "bcc", Joined(data.bcc).c_str());
    AddText(context.reply, "sent", data.sent);
    AddText(context.reply, "subject", data.subject);
    AddText(context.reply, "body", data.body);
    AddText(context.reply, "rtfBody", data.rtfBody);
    AddText(context.reply, "htmlBody", data.htmlBody);
    AddText(context.reply, "sentDate", data.sentDate);
    AddText(context.reply, "LotusNotesUrl", data.LotusNotesUrl);
    context.reply.AddArrayAt(-1, "strEmbeddedAttachments");
    if (std::unique_ptr<CkJsonArray> paths = context.reply.ArrayAt(context.reply.Count() - 1)) {
        for (const std::wstring& path : data.strEmbeddedAttachments)
            if (!path.empty()) paths->AddStringAt(-1, WideToAnsi(path).c_str());
    }
    context.reply.AddArrayAt(-1, "attachments");
    if (std::unique_ptr<CkJsonArray> attachments = context.reply.ArrayAt(context.reply.Count() - 1)) {
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

bool CRequestDispatcher::OpenAttachment(CRequestContext& context) {
    const std::wstring messageId = RequestString(context.request, "messageId");
    const std::wstring mailbox = RequestString(context.request, "mailBox");
    const int index = context.request.IntOf("attachmentIndex");
    const std::wstring file = m_mapi.OpenAttachment2(messageId, mailbox, static_cast<ULONG>(index));
    AddText(context.reply, "fileName", file);
    return true;
}

bool CRequestDispatcher::FindMessage(CRequestContext& context) {
    const std::wstring messageId = RequestString(context.request, "messageId");
    const std::wstring address = RequestString(context.request, "toEmailAddress");
    const bool setRead = context.request.BoolOf("setReadIfMainMessageStore");
    context.request.BoolOf("fetchEMailData");  // read and not used
    // With the main window as parent the message comes up in its form; without a window (headless) it is
    // only looked up, and marked read when asked.
    m_mapi.FindMessage(messageId, address, m_mapi.FormParentWindow(), setRead, nullptr);
    return true;
}

// Deliberate: "OK" whatever happened; the reasons are in the trace.
bool CRequestDispatcher::OpenEmail(CRequestContext& context) {
    const std::wstring profile = RequestString(context.request, "outlookProfile");
    const std::wstring savedStore = RequestString(context.request, "savedMessageStore");
    const std::wstring messageId = RequestString(context.request, "messageId");
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

bool CRequestDispatcher::SaveToMsg(CRequestContext& context) {
    const std::wstring messageId = RequestString(context.request, "messageId");
    const std::wstring mailbox = RequestString(context.request, "mailBox");
    const std::wstring file = RequestString(context.request, "filename");
    CFoundMessage lookup;
    const bool found = m_mapi.GetpMessage(messageId, mailbox, lookup);
    if (found) m_mapi.SaveToMSG(lookup.message.get(), file);
    return found;
}

}  // namespace velmar::service
