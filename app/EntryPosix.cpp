#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "app/Application.h"
#include "support/IniPlatform.h"
#include "support/Utf8.h"

namespace {

// --authorize <name>: the one-time OAuth2 sign-in is velmar-authorize's, beside this program; the service
// itself never asks the user anything.
int Authorize(char** argv) {
    std::string helper = velmar::WideToUtf8(velmar::ini::ExecutableDirectory()) + "/velmar-authorize";
    char* arguments[] = {helper.data(), argv[2], nullptr};
    execv(helper.c_str(), arguments);
    std::perror(helper.c_str());
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--authorize") return Authorize(argv);
    // Every connection is served on a thread of its own, and glibc would give each of up to eight per core an
    // arena of its own, each keeping what was freed in it: over months of short-lived threads that handle
    // large texts, the process grows by what sits unused in them. Two arenas keep that small.
    mallopt(M_ARENA_MAX, 2);
    std::vector<std::wstring> arguments;
    for (int i = 0; i < argc; ++i) arguments.push_back(velmar::Utf8ToWide(argv[i]));
    CVelmarTaskSchedulerApp app;
    return app.Run(arguments);
}
