#include "mapi/mime/GMimeSupport.h"

#include <mutex>

namespace velmar::mapi {

void EnsureGMime() {
    static std::once_flag once;
    std::call_once(once, [] {
        g_mime_init();
        // GLib makes a class when its first instance is made, in whichever thread that is, and our type
        // checks read the class inline. Made here, once, every class of what a parser builds is finished
        // before any thread reads mail, in an order the thread sanitizer can see too. Static classes live
        // as long as the process; these references are never given back.
        for (GType type : {GMIME_TYPE_MESSAGE, GMIME_TYPE_PART, GMIME_TYPE_TEXT_PART, GMIME_TYPE_MULTIPART,
                           GMIME_TYPE_MULTIPART_SIGNED, GMIME_TYPE_MULTIPART_ENCRYPTED,
                           GMIME_TYPE_MESSAGE_PART, GMIME_TYPE_MESSAGE_PARTIAL,
                           GMIME_TYPE_APPLICATION_PKCS7_MIME, GMIME_TYPE_STREAM_MEM, GMIME_TYPE_STREAM_FS})
            g_type_class_ref(type);
    });
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
