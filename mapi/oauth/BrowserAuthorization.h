// Signing an account in once in the user's browser: the authorization code grant with PKCE (RFC 7636) and
// a redirect to a port of this machine's loopback address (RFC 8252 section 7.3), for providers whose device
// flow does not cover mail (Google's). The refresh token it hands out is kept (RefreshTokens.h).
#pragma once

#include <functional>
#include <string>

#include "mapi/provider/OAuth2Account.h"

namespace velmar::mapi {

// say gets the lines for the user: the address to open, which is also handed to the desktop's browser
// (xdg-open) where there is a display; then the outcome. Waits up to 5 minutes for the browser to come
// back. False with error set when that does not happen, the user declines, or no token comes.
bool AuthorizeInBrowser(const COAuth2Account& account, const std::function<void(const std::string&)>& say,
                        std::string& error);

}  // namespace velmar::mapi
