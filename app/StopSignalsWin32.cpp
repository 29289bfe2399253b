#include <windows.h>

#include "app/StopSignals.h"

namespace {

velmar::service::IMainWindow* g_window = nullptr;

BOOL WINAPI OnConsoleControl(DWORD) {
    if (g_window) g_window->PostClose();
    return TRUE;
}

}  // namespace

void BlockStopSignals() {}

void WatchStopSignals(velmar::service::IMainWindow& window) {
    g_window = &window;
    SetConsoleCtrlHandler(OnConsoleControl, TRUE);
}
