#include "mapi/oauth/CurlTransfer.h"

#include <mutex>

namespace velmar::mapi {

void InitializeCurl() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

std::string UrlEncoded(const std::string& text) {
    // The handle is not needed: libcurl ignores it here since 7.82.
    char* escaped = curl_easy_escape(nullptr, text.c_str(), static_cast<int>(text.size()));
    if (!escaped) return {};
    std::string encoded = escaped;
    curl_free(escaped);
    return encoded;
}

}  // namespace velmar::mapi
