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
    // A handler works on the mail session (under the lock), fills the reply and says whether it succeeded;
    // the dispatcher writes the reply.
    using Handler = bool (CRequestDispatcher::*)(CkJsonObject& request, CkJsonObject& reply,
                                                 std::atomic<bool>& stopFlag);
    struct CCommand {
        const char* name;
        const wchar_t* activityLine;
        Handler handler;
        bool endsProgram = false;
        // The handler touches no state of the session, so it does not wait for a request that does.
        bool withoutSession = false;
    };
    static const CCommand kCommands[];

    std::optional<bool> RunCaught(const CCommand& row, CkJsonObject& request, CkJsonObject& reply,
                                  std::atomic<bool>& stopFlag);

    // "Write Back Json": appends "status", emits indented, writes in one piece.
    HRESULT WriteBackJson(IPipeConnection& pipe, bool success, CkJsonObject& reply);
    std::wstring RequestString(CkJsonObject& request, const char* name);
    // The strings of an array member, in order and as they are; empty when the member is missing.
    std::vector<std::wstring> RequestStrings(CkJsonObject& request, const char* name);

    bool GetProfileNames(CkJsonObject& request, CkJsonObject& reply, std::atomic<bool>& stopFlag);
    bool Logon(CkJsonObject& request, CkJsonObject& reply, std::atomic<bool>& stopFlag);
    bool Logoff(CkJsonObject& request, CkJsonObject& reply, std::atomic<bool>& stopFlag);
    bool OpenMessageStoreTable(CkJsonObject& request, CkJsonObject& reply, std::atomic<bool>& stopFlag);
    bool SetMessageStore(CkJsonObject& request, CkJsonObject& reply, std::atomic<bool>& stopFlag);
    bool GetMessageData(CkJsonObject& request, CkJsonObject& reply, std::atomic<bool>& stopFlag);
    bool OpenAttachment(CkJsonObject& request, CkJsonObject& reply, std::atomic<bool>& stopFlag);
    bool FindMessage(CkJsonObject& request, CkJsonObject& reply, std::atomic<bool>& stopFlag);
    bool OpenEmail(CkJsonObject& request, CkJsonObject& reply, std::atomic<bool>& stopFlag);
    bool ForwardEmail(CkJsonObject& request, CkJsonObject& reply, std::atomic<bool>& stopFlag);
    bool SendEmail(CkJsonObject& request, CkJsonObject& reply, std::atomic<bool>& stopFlag);
    bool SaveToMsg(CkJsonObject& request, CkJsonObject& reply, std::atomic<bool>& stopFlag);
    bool IsInitialized(CkJsonObject& request, CkJsonObject& reply, std::atomic<bool>& stopFlag);
    bool IsMAPIDllInitialized(CkJsonObject& request, CkJsonObject& reply, std::atomic<bool>& stopFlag);
    bool CloseVelmarTaskScheduler(CkJsonObject& request, CkJsonObject& reply, std::atomic<bool>& stopFlag);

    CVelmarMapi& m_mapi;
    CActivityList& m_activity;
};

}  // namespace velmar::service
