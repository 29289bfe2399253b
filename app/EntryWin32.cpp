#include <windows.h>
#include <commctrl.h>

#include "app/Application.h"

int wmain(int argc, wchar_t** argv) {
    // The common controls of the window (the list view among them), before anything else.
    INITCOMMONCONTROLSEX controls{};
    controls.dwSize = sizeof controls;
    controls.dwICC = ICC_WIN95_CLASSES;
    InitCommonControlsEx(&controls);
    const std::vector<std::wstring> arguments(argv, argv + argc);
    CVelmarTaskSchedulerApp app;
    return app.Run(arguments);
}
