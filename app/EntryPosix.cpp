#include <malloc.h>

#include "app/Application.h"
#include "support/Utf8.h"

int main(int argc, char** argv) {
    // Every connection is served on a thread of its own, and glibc would give each of up to eight per core an
    // arena of its own, each keeping what was freed in it: over months of short-lived threads that handle
    // large texts, the process grows by what sits unused in them. Two arenas keep that small.
    mallopt(M_ARENA_MAX, 2);
    std::vector<std::wstring> arguments;
    for (int i = 0; i < argc; ++i) arguments.push_back(velmar::Utf8ToWide(argv[i]));
    CVelmarTaskSchedulerApp app;
    return app.Run(arguments);
}
