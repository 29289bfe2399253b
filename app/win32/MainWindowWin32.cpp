#include <optional>

#include "app/MainWindow.h"
#include "app/StopSignals.h"
#include "app/WindowFormHost.h"
#include "app/win32/VelmarTaskSchedulerDlg.h"
#include "mail/VelmarMapi.h"
#include "print/PrintLibrary.h"

bool DesktopAvailable() {
    return true;
}

int RunMainWindow(CActivityList& activity, CVelmarMapi& mapi, int memoryLimit) {
    // This thread owns the message forms: COM and MAPI for it.
    const CVelmarMapi::CThreadContext formThread;
    std::optional<velmar::service::CRequestService> service;
    CVelmarTaskSchedulerDlg dialog(activity, [&] {
        service.emplace(mapi, activity, dialog, memoryLimit);
        return service->Start();
    });
    // Message forms open on this thread; the dialog hears of each one on screen.
    const auto formHost =
        std::make_shared<CWindowFormHost>([&dialog] { return reinterpret_cast<ULONG_PTR>(dialog.Handle()); },
                                          dialog.Jobs(), [&dialog] { dialog.PostFormTasks(); },
                                          [&dialog](const std::wstring& text) { dialog.ShowMessage(text); });
    dialog.SetFormHost(formHost);
    mapi.SetFormHost(formHost);
    // PRINTHTML jobs, handed over by later starts of the program (WM_COPYDATA), printed by dialogs on this
    // thread.
    velmar::print::CPrintDialogs printDialogs(
        velmar::print::LoadPrintDialogs(
            [&dialog] { return reinterpret_cast<std::uintptr_t>(dialog.Handle()); }),
        [&activity](const std::wstring& line) { activity.AddLine(line); },
        [&dialog](size_t index) { dialog.PostPrintJobDone(index); });
    dialog.SetPrintJobHost(&printDialogs);
    WatchStopSignals(dialog);
    dialog.DoModal();
    dialog.SetPrintJobHost(nullptr);
    // The service threads write into the list the window follows: they end before the window does, and
    // the forms they opened go with it.
    if (service) service->Stop();
    mapi.SetFormHost(nullptr);
    formHost->Detach();
    return 0;
}
