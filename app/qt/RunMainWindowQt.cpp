#include <QApplication>
#include <cstdlib>
#include <optional>

#include "app/MainWindow.h"
#include "app/StopSignals.h"
#include "app/qt/MainWindowQt.h"
#include "mail/VelmarMapi.h"

bool DesktopAvailable() {
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY"}) {
        const char* value = std::getenv(name);
        if (value && *value) return true;
    }
    return false;
}

int RunMainWindow(CActivityList& activity, CVelmarMapi& mapi, int memoryLimit) {
    static int argc = 1;
    static char name[] = "VelmarTaskScheduler";
    static char* argv[] = {name, nullptr};
    QApplication application(argc, argv);
    // The window hides in the tray and boxes come and go: the program ends when the window closes, and
    // only then.
    application.setQuitOnLastWindowClosed(false);

    std::optional<velmar::service::CRequestService> service;
    CVelmarTaskSchedulerDlg window(activity, [&] {
        service.emplace(mapi, activity, window, memoryLimit);
        return service->Start();
    });
    WatchStopSignals(window);
    window.OnInitDialog();
    const int exitCode = application.exec();
    // The service threads write into the list the window follows: they end before the window does.
    if (service) service->Stop();
    return exitCode;
}
