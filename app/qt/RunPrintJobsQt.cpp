#include <QApplication>

#include <cstdlib>

#include "app/CommandJobs.h"
#include "app/MainWindow.h"
#include "app/qt/GermanQtTexts.h"
#include "print/PrintLibrary.h"

int RunPrintJobs(CActivityList& activity, std::vector<std::wstring> job) {
    // Printing needs no screen: without one the page is rendered off screen (and no print dialog shows).
    if (!DesktopAvailable()) qputenv("QT_QPA_PLATFORM", "offscreen");
    static int argc = 1;
    static char name[] = "VelmarTaskScheduler";
    static char* argv[] = {name, nullptr};
    QApplication application(argc, argv);
    const std::unique_ptr<QTranslator> germanTexts = InstallGermanQtTexts();
    application.setQuitOnLastWindowClosed(false);
    velmar::print::CPrintDialogs dialogs(
        velmar::print::LoadPrintDialogs([] { return std::uintptr_t{0}; }),
        [&activity](const std::wstring& line) { activity.AddLine(line); },
        [](size_t) { QMetaObject::invokeMethod(qApp, &QCoreApplication::quit, Qt::QueuedConnection); });
    CCommandJobs jobs;
    const std::optional<size_t> index = jobs.Add(std::move(job));
    if (!index) return 1;
    jobs.Run(*index, 1, activity, &dialogs);
    if (!dialogs.HasDialog(*index)) return 1;
    return application.exec();
}
