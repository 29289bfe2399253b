#include "app/Application.h"

#include <algorithm>

#include "app/CommandLineInfo.h"
#include "app/HeadlessWindow.h"
#include "app/MainWindow.h"
#include "app/StopSignals.h"
#include "mail/VelmarMapi.h"
#include "service/RequestService.h"
#include "support/ActivityList.h"

namespace {

// The service without its window: for servers, tests and sessions without a desktop. The activity list
// goes to standard output.
int RunHeadless(CActivityList& activity, CVelmarMapi& mapi, int memoryLimit) {
    CHeadlessWindow window;
    WatchStopSignals(window);
    bool served = false;
    {
        velmar::service::CRequestService service(mapi, activity, window, memoryLimit);
        served = service.Start();
        if (served) window.WaitForClose();
        service.Stop();
    }
    return served ? 0 : 1;
}

}  // namespace

int CVelmarTaskSchedulerApp::Run(const std::vector<std::wstring>& arguments) {
    BlockStopSignals();
    CTaskSchedCCmdLineInfo cmdInfo;
    ParseCommandLine(cmdInfo, arguments);
    m_nMemLimit = cmdInfo.m_nMemLimit;
    m_nVelmarSync = cmdInfo.m_nVelmarSync;
    const bool headless = std::find(arguments.begin(), arguments.end(), L"--headless") != arguments.end() ||
                          !DesktopAvailable();

    CActivityList activity(headless);
    activity.AddLine(L"VelmarTaskScheduler MEM_LIMIT=" + std::to_wstring(m_nMemLimit) + L" VELMAR_SYNC=" +
                     std::to_wstring(m_nVelmarSync));
    CVelmarMapi mapi(&activity);
    return headless ? RunHeadless(activity, mapi, m_nMemLimit) : RunMainWindow(activity, mapi, m_nMemLimit);
}
