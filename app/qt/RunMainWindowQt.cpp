#include <QApplication>
#include <xcb/xcb.h>

#include <cstdio>
#include <cstdlib>
#include <optional>

#include "app/MainWindow.h"
#include "app/PrintJobInbox.h"
#include "app/StopSignals.h"
#include "app/WindowFormHost.h"
#include "app/qt/GermanQtTexts.h"
#include "app/qt/MainWindowQt.h"
#include "mail/VelmarMapi.h"
#include "print/PrintLibrary.h"

// A display that is named but cannot be reached (a closed session, a forwarded display gone) would end
// Qt at start: the service then runs headless instead.
bool DesktopAvailable() {
    const char* wayland = std::getenv("WAYLAND_DISPLAY");
    if (wayland && *wayland) return true;
    const char* display = std::getenv("DISPLAY");
    if (!display || !*display) return false;
    xcb_connection_t* connection = xcb_connect(display, nullptr);
    const bool reachable = xcb_connection_has_error(connection) == 0;
    xcb_disconnect(connection);
    if (!reachable)
        std::fprintf(stderr, "VelmarTaskScheduler: cannot open display %s, running headless\n", display);
    return reachable;
}

int RunMainWindow(CActivityList& activity, CVelmarMapi& mapi, int memoryLimit) {
    static int argc = 1;
    static char name[] = "VelmarTaskScheduler";
    static char* argv[] = {name, nullptr};
    QApplication application(argc, argv);
    const std::unique_ptr<QTranslator> germanTexts = InstallGermanQtTexts();
    // This thread owns the message forms.
    const CVelmarMapi::CThreadContext formThread;
    // The window hides in the tray and boxes come and go: the program ends when the window closes, and
    // only then.
    application.setQuitOnLastWindowClosed(false);

    std::optional<velmar::service::CRequestService> service;
    CVelmarTaskSchedulerDlg window(activity, [&] {
        service.emplace(mapi, activity, window, memoryLimit);
        return service->Start();
    });
    // Message forms open on this thread; the window hears of each one on screen.
    const auto parentWindow = static_cast<ULONG_PTR>(window.winId());
    const auto formHost = std::make_shared<CWindowFormHost>(
        [parentWindow] { return parentWindow; }, window.Jobs(), [&window] { window.PostFormTasks(); },
        [&window](const std::wstring& text) { window.ShowMessage(text); });
    window.SetFormHost(formHost);
    mapi.SetFormHost(formHost);
    // PRINTHTML jobs: handed over by later starts of the program, printed by dialogs on this thread.
    velmar::print::CPrintDialogs printDialogs(
        velmar::print::LoadPrintDialogs([] { return std::uintptr_t{0}; }),
        [&activity](const std::wstring& line) { activity.AddLine(line); },
        [&window](size_t index) { window.PostPrintJobDone(index); });
    window.SetPrintJobHost(&printDialogs);
    CPrintJobInbox printJobs(
        activity, [&window](std::vector<std::wstring> job) { return window.AcceptPrintJob(std::move(job)); });
    WatchStopSignals(window);
    window.OnInitDialog();
    printJobs.Start();
    const int exitCode = application.exec();
    // The service threads write into the list the window follows: they end before the window does, and
    // the forms they opened go with it.
    printJobs.Stop();
    window.SetPrintJobHost(nullptr);
    if (service) service->Stop();
    mapi.SetFormHost(nullptr);
    formHost->Detach();
    return exitCode;
}
