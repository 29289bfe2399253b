#include "app/Application.h"

#include "app/CommandLineInfo.h"
#include "app/HeadlessWindow.h"
#include "mail/VelmarMapi.h"
#include "service/RequestService.h"
#include "support/ActivityList.h"

int CVelmarTaskSchedulerApp::Run(const std::vector<std::wstring>& arguments) {
    CTaskSchedCCmdLineInfo cmdInfo;
    ParseCommandLine(cmdInfo, arguments);
    m_nMemLimit = cmdInfo.m_nMemLimit;
    m_nVelmarSync = cmdInfo.m_nVelmarSync;

    // Until the window is there, the activity list goes to standard output.
    CHeadlessWindow window;
    WatchStopSignals(window);
    CActivityList activity(true);
    activity.AddLine(L"VelmarTaskScheduler MEM_LIMIT=" + std::to_wstring(m_nMemLimit) + L" VELMAR_SYNC=" +
                     std::to_wstring(m_nVelmarSync));
    CVelmarMapi mapi(&activity);
    bool served = false;
    {
        velmar::service::CRequestService service(mapi, activity, window, m_nMemLimit);
        served = service.Start();
        if (served) window.WaitForClose();
        service.Stop();
    }
    return served ? 0 : 1;
}
