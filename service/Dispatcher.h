// The request dispatcher: selects a command by the request's "command", writes its activity line, runs it
// on the mail session object and writes exactly one reply, which ends with "status". Unknown, empty and
// missing commands get no reply at all.
#pragma once

#include <atomic>
#include <optional>

#include "json/CkJsonObject.h"
#include "mail/VelmarMapi.h"
#include "service/PipeChannel.h"

class CActivityList;

namespace velmar::service {

// Dispatch results.
inline constexpr HRESULT kReplyWritten = 0;
inline constexpr HRESULT kNoReply = 1;

class CRequestDispatcher {
public:
    CRequestDispatcher(CVelmarMapi& mapi, CActivityList& activity) : m_mapi(mapi), m_activity(activity) {}

    // kReplyWritten, E_FAIL when the reply could not be written, kNoReply when there was none to write.
    // endsProgram: the command asks the program to end now that its reply is out.
    HRESULT Dispatch(CkJsonObject& request, IPipeConnection& pipe, std::atomic<bool>& stopFlag,
                     bool& endsProgram);

private:
    // What a handler works with: the request, the reply it fills, and the service's stop flag (which only
    // CloseVelmarTaskScheduler sets).
    struct CRequestContext {
        CkJsonObject& request;
        CkJsonObject& reply;
        std::atomic<bool>& stopFlag;
    };
    // A handler works on the mail session (under the lock), fills the reply and says whether it succeeded;
    // the dispatcher writes the reply.
    using Handler = bool (CRequestDispatcher::*)(CRequestContext& context);
    struct CCommand {
        const char* name;
        const wchar_t* activityLine;
        Handler handler;
        bool endsProgram = false;
        // The handler touches no state of the session, so it does not wait for a request that does.
        bool withoutSession = false;
    };
    static const CCommand kCommands[];

    std::optional<bool> RunCaught(const CCommand& row, CRequestContext& context);

    // "Write Back Json": appends "status", emits indented, writes in one piece.
    HRESULT WriteBackJson(IPipeConnection& pipe, bool success, CkJsonObject& reply);
    std::wstring RequestString(CkJsonObject& request, const char* name);
    // The strings of an array member, in order and as they are; empty when the member is missing.
    std::vector<std::wstring> RequestStrings(CkJsonObject& request, const char* name);

    bool GetProfileNames(CRequestContext& context);
    bool Logon(CRequestContext& context);
    bool Logoff(CRequestContext& context);
    bool OpenMessageStoreTable(CRequestContext& context);
    bool SetMessageStore(CRequestContext& context);
    bool GetMessageData(CRequestContext& context);
    bool OpenAttachment(CRequestContext& context);
    bool FindMessage(CRequestContext& context);
    bool OpenEmail(CRequestContext& context);
    bool ForwardEmail(CRequestContext& context);
    bool SendEmail(CRequestContext& context);
    bool SaveToMsg(CRequestContext& context);
    bool IsInitialized(CRequestContext& context);
    bool IsMAPIDllInitialized(CRequestContext& context);
    bool CloseVelmarTaskScheduler(CRequestContext& context);

    CVelmarMapi& m_mapi;
    CActivityList& m_activity;
};

}  // namespace velmar::service
