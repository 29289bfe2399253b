// The access tokens our MAPI signs in with: one per account, kept while it is good. From the account's
// token command (oauth2.tokeneval), asked again once the server refuses what it printed; or of our own,
// got from the authorization server with the refresh token --authorize kept, before expires_in runs out
// (measured on the wall clock and on the clock that counts suspended time, so that neither a resume nor a
// clock set back keeps an old token), and again once the server refuses one.
#pragma once

#include <optional>
#include <string>

#include "mapi/provider/OAuth2Account.h"

namespace velmar::mapi {

struct CAccessToken {
    std::optional<std::string> token;
    // Why there is none, a sentence for the store's status or the spooler's trace.
    std::string error;
    // The authorization server no longer takes the refresh token, or there is none: only the user can help,
    // with --authorize. Until then mail waits; nothing is undeliverable for it.
    bool signInNeeded = false;
};

// The token to sign the account in with now. profileFile is the file that names the token command: it is
// run only when the file is trusted with commands.
CAccessToken CurrentAccessToken(const COAuth2Account& account, const std::string& profileFile);

// The server refused the token last handed out for the account: the next CurrentAccessToken gets another.
void ForgetAccessToken(const COAuth2Account& account);

// What the user reads when only a new sign-in helps.
std::string SignInNeededText(const COAuth2Account& account);

}  // namespace velmar::mapi
