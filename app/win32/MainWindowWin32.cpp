#include <optional>

#include "app/MainWindow.h"
#include "app/StopSignals.h"
#include "app/win32/VelmarTaskSchedulerDlg.h"
#include "mail/VelmarMapi.h"

bool DesktopAvailable() {
    return true;
}

int RunMainWindow(CActivityList& activity, CVelmarMapi& mapi, int memoryLimit) {
    std::optional<velmar::service::CRequestService> service;
    CVelmarTaskSchedulerDlg dialog(activity, [&] {
        service.emplace(mapi, activity, dialog, memoryLimit);
        return service->Start();
    });
    WatchStopSignals(dialog);
    dialog.DoModal();
    // The service threads write into the list the window follows: they end before the window does.
    if (service) service->Stop();
    return 0;
}
