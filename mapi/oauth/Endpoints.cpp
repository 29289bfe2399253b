#include "mapi/oauth/Endpoints.h"

namespace velmar::mapi {

COAuth2Endpoints EndpointsOf(const COAuth2Account& account) {
    COAuth2Endpoints endpoints;
    if (account.provider == "microsoft") {
        const std::string base = "https://login.microsoftonline.com/" +
                                 (account.tenant.empty() ? std::string("common") : account.tenant) +
                                 "/oauth2/v2.0/";
        endpoints = {base + "authorize", base + "token", base + "devicecode",
                     "https://outlook.office.com/IMAP.AccessAsUser.All https://outlook.office.com/SMTP.Send "
                     "offline_access"};
    } else if (account.provider == "google") {
        endpoints = {"https://accounts.google.com/o/oauth2/v2/auth", "https://oauth2.googleapis.com/token",
                     "https://oauth2.googleapis.com/device/code", "https://mail.google.com/"};
    }
    if (!account.authorizeUrl.empty()) endpoints.authorizeUrl = account.authorizeUrl;
    if (!account.tokenUrl.empty()) endpoints.tokenUrl = account.tokenUrl;
    if (!account.deviceUrl.empty()) endpoints.deviceUrl = account.deviceUrl;
    if (!account.scope.empty()) endpoints.scope = account.scope;
    return endpoints;
}

}  // namespace velmar::mapi
