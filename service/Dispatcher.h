// The request dispatcher: selects a command by the request's "command", writes its activity line, runs it
// on the mail session object and writes exactly one reply, which ends with "status". Unknown, empty and
// missing commands get no reply at all.
#pragma once

#include <atomic>
#include <mutex>

#include "json/CkJsonObject.h"
#include "mail/VelmarMapi.h"
#include "service/PipeChannel.h"

class CActivityList;

namespace velmar::service {

// What the service needs of the main window.
class IMainWindow {
public:
    virtual ~IMainWindow() = default;
    // Asks the window to close, which ends the program (asynchronously, as a posted WM_CLOSE does).
    virtual void PostClose() = 0;
};

// Dispatch results.
inline constexpr HRESULT kReplyWritten = 0;
inline constexpr HRESULT kNoReply = 1;

class CRequestDispatcher {
public:
    CRequestDispatcher(CVelmarMapi& mapi, CActivityList& activity, IMainWindow& window)
        : m_mapi(mapi), m_activity(activity), m_window(window) {}

    // kReplyWritten, E_FAIL when the reply could not be written, kNoReply when there was none to write.
    HRESULT Dispatch(CkJsonObject& request, IPipeConnection& pipe, std::atomic<bool>& stopFlag);

private:
    using Handler = HRESULT (CRequestDispatcher::*)(CkJsonObject& request, IPipeConnection& pipe,
                                                    std::atomic<bool>& stopFlag);
    struct CCommand {
        const char* name;
        const wchar_t* activityLine;
        Handler handler;
    };
    static const CCommand kCommands[];

    // "Write Back Json": appends "status", emits indented, writes in one piece.
    HRESULT WriteBackJson(IPipeConnection& pipe, bool success, CkJsonObject& reply);
    std::wstring RequestString(CkJsonObject& request, const char* name);

    HRESULT GetProfileNames(CkJsonObject& request, IPipeConnection& pipe, std::atomic<bool>& stopFlag);
    HRESULT Logon(CkJsonObject& request, IPipeConnection& pipe, std::atomic<bool>& stopFlag);
    HRESULT Logoff(CkJsonObject& request, IPipeConnection& pipe, std::atomic<bool>& stopFlag);
    HRESULT OpenMessageStoreTable(CkJsonObject& request, IPipeConnection& pipe, std::atomic<bool>& stopFlag);
    HRESULT SetMessageStore(CkJsonObject& request, IPipeConnection& pipe, std::atomic<bool>& stopFlag);
    HRESULT GetMessageData(CkJsonObject& request, IPipeConnection& pipe, std::atomic<bool>& stopFlag);
    HRESULT OpenAttachment(CkJsonObject& request, IPipeConnection& pipe, std::atomic<bool>& stopFlag);
    HRESULT FindMessage(CkJsonObject& request, IPipeConnection& pipe, std::atomic<bool>& stopFlag);
    HRESULT SaveToMsg(CkJsonObject& request, IPipeConnection& pipe, std::atomic<bool>& stopFlag);
    HRESULT IsInitialized(CkJsonObject& request, IPipeConnection& pipe, std::atomic<bool>& stopFlag);
    HRESULT IsMAPIDllInitialized(CkJsonObject& request, IPipeConnection& pipe, std::atomic<bool>& stopFlag);
    HRESULT CloseVelmarTaskScheduler(CkJsonObject& request, IPipeConnection& pipe,
                                     std::atomic<bool>& stopFlag);

    CVelmarMapi& m_mapi;
    CActivityList& m_activity;
    IMainWindow& m_window;
    // Requests of several connections take turns on the one mail session object.
    std::mutex m_mapiLock;
    // The profile of the last Logon request. The session's own profile name also follows the message
    // requests' "profileName", so it cannot tell whether a Logon asks for the session already open.
    std::wstring m_strCurrentProfileName;
};

}  // namespace velmar::service
