#include "mapi/provider/GMimeSupport.h"

#include <mutex>

namespace velmar::mapi {

void EnsureGMime() {
    static std::once_flag once;
    std::call_once(once, [] { g_mime_init(); });
}

std::string TakeGString(char* text) {
    if (!text) return {};
    std::string copy(text);
    g_free(text);
    return copy;
}

}  // namespace velmar::mapi
