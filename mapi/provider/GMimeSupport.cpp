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

std::vector<std::string> RawHeaderValues(GMimeObject* object, const char* name) {
    std::vector<std::string> values;
    GMimeHeaderList* headers = object ? g_mime_object_get_header_list(object) : nullptr;
    const int count = headers ? g_mime_header_list_get_count(headers) : 0;
    for (int i = 0; i < count; ++i) {
        GMimeHeader* header = g_mime_header_list_get_header_at(headers, i);
        const char* headerName = g_mime_header_get_name(header);
        const char* raw = g_mime_header_get_raw_value(header);
        if (headerName && raw && g_ascii_strcasecmp(headerName, name) == 0) values.emplace_back(raw);
    }
    return values;
}

}  // namespace velmar::mapi
