#include <windows.h>

#include "app/HeadlessWindow.h"

namespace {

CHeadlessWindow* g_window = nullptr;

BOOL WINAPI OnConsoleControl(DWORD) {
    if (g_window) g_window->PostClose();
    return TRUE;
}

}  // namespace

void WatchStopSignals(CHeadlessWindow& window) {
    g_window = &window;
    SetConsoleCtrlHandler(OnConsoleControl, TRUE);
}
