// The send commands: a new mail, and a forward of a message named by its message id. Both reply "OK"
// whatever the mail layer made of them; its trace tells what happened.
#include "json/CkJsonArray.h"
#include "service/Dispatcher.h"
#include "support/CodePage.h"

namespace velmar::service {

std::vector<std::wstring> CRequestDispatcher::RequestStrings(CkJsonObject& request, const char* name) {
    std::vector<std::wstring> strings;
    if (std::unique_ptr<CkJsonArray> array = request.ArrayOf(name)) {
        const int count = array->Count();
        strings.reserve(static_cast<size_t>(count));
        for (int i = 0; i < count; ++i) {
            const char* element = array->StringAt(i);
            strings.push_back(element ? AnsiToWide(element) : std::wstring());
        }
    }
    return strings;
}

bool CRequestDispatcher::SendEmail(CRequestContext& context) {
    const std::wstring subject = RequestString(context.request, "subject");
    const std::wstring body = RequestString(context.request, "body");
    const std::vector<std::wstring> to = RequestStrings(context.request, "recipientsTo");
    const std::vector<std::wstring> cc = RequestStrings(context.request, "recipientsCC");
    const std::vector<std::wstring> bcc = RequestStrings(context.request, "recipientsBCC");
    const std::vector<std::wstring> files = RequestStrings(context.request, "attachmentFiles");
    const bool forceSend = context.request.BoolOf("outlookForceSend");
    // Deliberate: "OK" whatever the send's result; its failure is in the trace.
    static_cast<void>(m_mapi.SendMail(subject, body, to, cc, bcc, files, forceSend));
    return true;
}

bool CRequestDispatcher::ForwardEmail(CRequestContext& context) {
    const std::wstring brandingSubject = RequestString(context.request, "brandingSubject");
    const std::wstring subject = RequestString(context.request, "subject");
    const std::wstring sendNote = RequestString(context.request, "sendNote");
    const std::vector<std::wstring> to = RequestStrings(context.request, "recipientsTo");
    const std::vector<std::wstring> cc = RequestStrings(context.request, "recipientsCC");
    const std::vector<std::wstring> bcc = RequestStrings(context.request, "recipientsBCC");
    const std::wstring messageId = RequestString(context.request, "messageId");
    const std::wstring address = RequestString(context.request, "toEmailAddress");
    const std::vector<std::wstring> files = RequestStrings(context.request, "attachmentFiles");
    const bool forceSend = context.request.BoolOf("outlookForceSend");
    m_mapi.ForwardMail(messageId, brandingSubject, subject, sendNote, address, to, cc, bcc, files, forceSend);
    return true;
}

}  // namespace velmar::service
