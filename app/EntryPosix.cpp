#include "app/Application.h"
#include "support/Utf8.h"

int main(int argc, char** argv) {
    std::vector<std::wstring> arguments;
    for (int i = 0; i < argc; ++i) arguments.push_back(velmar::Utf8ToWide(argv[i]));
    CVelmarTaskSchedulerApp app;
    return app.Run(arguments);
}
