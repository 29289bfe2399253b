// The OAuth2 sign-in of an account (an IMAP store, the SMTP server), from the keys of its profile section:
//   storeN.auth = oauth2                  (password, the default, logs in with the user's password)
//   storeN.oauth2.tokeneval = <command>   a command whose first output line is a current access token
//   storeN.oauth2.provider = microsoft | google, or storeN.oauth2.authorize_url, .token_url, .device_url
//   storeN.oauth2.client_id, .client_secret (where the provider needs one), .tenant, .scope
// and the same under "smtp.", where "smtp.oauth2.store = N" shares store N's sign-in instead.
#pragma once

#include <string>
#include <string_view>

namespace velmar::mapi {

struct COAuth2Account {
    bool enabled = false;  // auth = oauth2
    std::string tokenEval;
    std::string provider;  // "microsoft", "google" or empty: the URLs below
    std::string authorizeUrl;
    std::string tokenUrl;
    std::string deviceUrl;
    std::string clientId;
    std::string clientSecret;
    std::string tenant;
    std::string scope;
    // Set by whoever reads the profile: under which name the account's refresh token is kept, and the name
    // the user gives to --authorize (the store's display name, or "SMTP").
    std::string tokenKey;
    std::string signInName;
};

// Applies the key of an account (what follows "storeN." or "smtp.": "auth", "oauth2.tokeneval", ...); false
// for a key that is not one of these. Values are trimmed; an "auth" other than oauth2 means the password.
bool ApplyOAuth2Key(COAuth2Account& account, std::string_view field, std::string_view value);

}  // namespace velmar::mapi
