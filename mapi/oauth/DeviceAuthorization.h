// Signing an account in once, by the device authorization grant (RFC 8628): the user opens an address in
// any browser, on any machine, and enters the code shown; meanwhile the authorization server is asked
// whether the sign-in is done. The refresh token it hands out is kept (RefreshTokens.h).
#pragma once

#include <functional>
#include <string>

#include "mapi/provider/OAuth2Account.h"

namespace velmar::mapi {

// say gets the lines for the user (the address and the code, then the outcome); never a token. False with
// error set when the account cannot be signed in so, the user declines, or the code expires first.
bool AuthorizeByDevice(const COAuth2Account& account, const std::function<void(const std::string&)>& say,
                       std::string& error);

}  // namespace velmar::mapi
