#include <windows.h>

#include "app/CommandJobs.h"
#include "app/MainWindow.h"
#include "print/PrintLibrary.h"

int RunPrintJobs(CActivityList& activity, std::vector<std::wstring> job) {
    velmar::print::CPrintDialogs dialogs(
        velmar::print::LoadPrintDialogs([] { return std::uintptr_t{0}; }),
        [&activity](const std::wstring& line) { activity.AddLine(line); },
        [](size_t) { PostQuitMessage(0); });
    CCommandJobs jobs;
    const std::optional<size_t> index = jobs.Add(std::move(job));
    if (!index) return 1;
    jobs.Run(*index, 1, activity, &dialogs);
    if (!dialogs.HasDialog(*index)) return 1;
    MSG message;
    while (GetMessageW(&message, nullptr, 0, 0) > 0) {
        TranslateMessage(&message);
        DispatchMessageW(&message);
    }
    return 0;
}
