#include "service/Dispatcher.h"

#include <cstring>

#include "json/CkJsonArray.h"
#include "service/HandledException.h"
#include "support/ActivityList.h"
#include "support/CodePage.h"

namespace velmar::service {

// Compared in this order.
const CRequestDispatcher::CCommand CRequestDispatcher::kCommands[] = {
    {"GetProfileNames", L"-> GetProfileNames", &CRequestDispatcher::GetProfileNames},
    {"Logon", L"-> Logon", &CRequestDispatcher::Logon},
    {"Logoff", L"-> Logoff", &CRequestDispatcher::Logoff},
    {"OpenMessageStoreTable", L"-> OpenMessageStoreTable", &CRequestDispatcher::OpenMessageStoreTable},
    {"SetMessageStore", L"-> SetMessageStore", &CRequestDispatcher::SetMessageStore},
    {"GetMessageData", L"-> GetMessageData", &CRequestDispatcher::GetMessageData},
    {"OpenAttachment", L"-> OpenAttachment", &CRequestDispatcher::OpenAttachment},
    // ForwardEmail writes the line of OpenAttachment: it has none of its own.
    {"ForwardEmail", L"-> OpenAttachment", &CRequestDispatcher::ForwardEmail},
    {"OpenEmail", L"-> OpenEmail", &CRequestDispatcher::OpenEmail},
    {"SendEmail", L"-> SendEmail", &CRequestDispatcher::SendEmail},
    // FindMessage writes the line of SendEmail: it has none of its own.
    {"FindMessage", L"-> SendEmail", &CRequestDispatcher::FindMessage},
    {"IsInitialized", L"-> IsInitialized", &CRequestDispatcher::IsInitialized},
    {"IsMAPIDllInitialized", L"-> IsMAPIDllInitialized", &CRequestDispatcher::IsMAPIDllInitialized, false,
     true},
    // Sets the stop flag; the request service closes the program once the reply is out.
    {"CloseVelmarTaskScheduler", L"-> CloseVelmarTaskScheduler",
     &CRequestDispatcher::CloseVelmarTaskScheduler, true, true},
    {"SaveToMsg", L"-> SaveToMsg", &CRequestDispatcher::SaveToMsg},
};

HRESULT CRequestDispatcher::Dispatch(CkJsonObject& request, IPipeConnection& pipe,
                                     std::atomic<bool>& stopFlag, bool& endsProgram) {
    endsProgram = false;
    const char* command = request.StringOf("command");
    if (!command || !*command) return kNoReply;
    for (const CCommand& row : kCommands) {
        if (std::strcmp(command, row.name) != 0) continue;
        m_activity.AddLine(row.activityLine);
        CkJsonObject reply;
        CRequestContext context{request, reply, stopFlag};
        const std::optional<bool> success = RunCaught(row, context);
        // Written without the lock: a client that does not read its replies holds up nobody else.
        endsProgram = row.endsProgram;
        if (!success) {
            // What the command had put into its reply before it threw is no answer: it failed.
            CkJsonObject failure;
            return WriteBackJson(pipe, false, failure);
        }
        return WriteBackJson(pipe, *success, reply);
    }
    return kNoReply;
}

// The command's own result, or nullopt when it threw: whatever a library or the mail layer throws ends the
// command, traced, and never the request thread (and with it the service).
std::optional<bool> CRequestDispatcher::RunCaught(const CCommand& row, CRequestContext& context) {
    try {
        if (row.withoutSession) return (this->*row.handler)(context);
        // Requests take turns on the session; a message request lets the others in once its message is
        // found.
        const CVelmarMapi::CSessionLock lock(m_mapi);
        return (this->*row.handler)(context);
    } catch (...) {
        m_activity.AddLine(AnsiToWide(row.name) + L": " + HandledExceptionText());
    }
    return std::nullopt;
}

HRESULT CRequestDispatcher::WriteBackJson(IPipeConnection& pipe, bool success, CkJsonObject& reply) {
    reply.AppendString("status", success ? "OK" : "FAILED");
    reply.SetCompactOutput(false);
    const char* emitted = reply.Emit();
    const std::string text = emitted ? emitted : "";
    m_activity.AddLine(L"Write Back Json");
    m_activity.AddLine(AnsiToWide(text));
    std::wstring error;
    if (!pipe.WriteReply(text, error)) {
        m_mapi.AddTrace(error);
        return E_FAIL;
    }
    return kReplyWritten;
}

std::wstring CRequestDispatcher::RequestString(CkJsonObject& request, const char* name) {
    const char* value = request.StringOf(name);
    return value ? AnsiToWide(value) : std::wstring();
}

bool CRequestDispatcher::GetProfileNames(CRequestContext& context) {
    if (m_mapi.IsMAPIInitialized()) {
        int defaultProfile = -1;
        m_mapi.GetProfileNames(defaultProfile);
    }
    const std::vector<std::wstring> names = m_mapi.ProfileNames();
    const bool success = !names.empty();
    // "status" leads as well as ends this reply: the writer appends its own.
    context.reply.AppendString("status", success ? "OK" : "FAILED");
    context.reply.AddArrayAt(-1, "arraystrings");
    if (std::unique_ptr<CkJsonArray> array = context.reply.ArrayAt(context.reply.Count() - 1)) {
        for (const std::wstring& name : names) {
            array->AddObjectAt(-1);
            if (std::unique_ptr<CkJsonObject> element = array->ObjectAt(array->Count() - 1))
                element->AddStringAt(-1, "element", WideToAnsi(name).c_str());
        }
    }
    return success;
}

bool CRequestDispatcher::Logon(CRequestContext& context) {
    if (m_mapi.IsMAPIInitialized()) {
        const std::wstring profile = RequestString(context.request, "data_string");
        // The logon's own outcome is not reported: a client checks the session with IsInitialized.
        if (!m_mapi.IsLoggedOnTo(profile)) m_mapi.Logon(profile, 0);
    }
    return m_mapi.IsMAPIInitialized();
}

bool CRequestDispatcher::Logoff(CRequestContext&) {
    if (m_mapi.IsMAPIInitialized()) m_mapi.Logoff();
    return m_mapi.IsMAPIInitialized();
}

bool CRequestDispatcher::OpenMessageStoreTable(CRequestContext& context) {
    m_mapi.RefreshMessageStoreTable();
    context.reply.AddIntAt(-1, "storeIndex", m_mapi.StoreIndex());
    context.reply.AddArrayAt(-1, "messageStoreEntries");
    if (std::unique_ptr<CkJsonArray> array = context.reply.ArrayAt(context.reply.Count() - 1)) {
        for (const MsgStoreInfo& entry : m_mapi.MessageStores()) {
            array->AddObjectAt(-1);
            if (std::unique_ptr<CkJsonObject> store = array->ObjectAt(array->Count() - 1)) {
                store->AddStringAt(-1, "displayName", WideToAnsi(entry.strDisplayName).c_str());
                store->AddStringAt(-1, "emailAddress", WideToAnsi(entry.strEMailAddress).c_str());
            }
        }
    }
    return true;
}

bool CRequestDispatcher::SetMessageStore(CRequestContext& context) {
    const std::wstring name = RequestString(context.request, "data_string");
    bool success = true;
    if (!name.empty()) {
        success = m_mapi.SetMessageStore(name);
        context.reply.AddIntAt(-1, "foundIndex", m_mapi.StoreIndex());
    } else {
        // Out of range leaves the index as it was: the client sees "foundIndex" equal "oldIndex".
        const int oldIndex = m_mapi.SetMessageStoreByIndex(context.request.IntOf("data_int"));
        context.reply.AddIntAt(-1, "oldIndex", oldIndex);
        context.reply.AddIntAt(-1, "foundIndex", m_mapi.StoreIndex());
    }
    return success;
}

bool CRequestDispatcher::IsInitialized(CRequestContext&) {
    return m_mapi.IsInitialized();
}

bool CRequestDispatcher::IsMAPIDllInitialized(CRequestContext&) {
    return m_mapi.IsMAPIInitialized();
}

// The request service posts the close once the reply is out (endsProgram in the table).
bool CRequestDispatcher::CloseVelmarTaskScheduler(CRequestContext& context) {
    context.stopFlag = true;
    return true;
}

}  // namespace velmar::service
