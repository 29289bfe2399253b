#include "mapi/oauth/CurlTransfer.h"

#include <mutex>

namespace velmar::mapi {

void InitializeCurl() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

}  // namespace velmar::mapi
