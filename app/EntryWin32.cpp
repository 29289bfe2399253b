#include "app/Application.h"

int wmain(int argc, wchar_t** argv) {
    const std::vector<std::wstring> arguments(argv, argv + argc);
    CVelmarTaskSchedulerApp app;
    return app.Run(arguments);
}
