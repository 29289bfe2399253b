// Where an account signs in: the URLs and scope its profile names, else those of its provider.
#pragma once

#include <string>

#include "mapi/provider/OAuth2Account.h"

namespace velmar::mapi {

struct COAuth2Endpoints {
    std::string authorizeUrl;
    std::string tokenUrl;
    std::string deviceUrl;
    std::string scope;
};

// microsoft: the Microsoft identity platform of the tenant ("common" by default), with the IMAP, SMTP and
// offline-access scopes; google: Google's endpoints with the mail scope. What the profile names itself wins.
COAuth2Endpoints EndpointsOf(const COAuth2Account& account);

}  // namespace velmar::mapi
