// Signing in to an IMAP server with an OAuth2 access token: SASL OAUTHBEARER (RFC 7628) where the server
// offers it, else XOAUTH2, each with its response in the AUTHENTICATE command where the server takes that
// (SASL-IR, RFC 4959).
#pragma once

#include <string>

struct mailimap;

namespace velmar::mapi {

enum class EBearerOutcome { SignedIn, Refused, NoMechanism, Broken };

// The session must be connected and not yet authenticated, its capabilities read after any STARTTLS.
// mechanism is set to the one tried.
EBearerOutcome AuthenticateWithBearer(mailimap* session, const std::string& user, const std::string& host,
                                      unsigned port, const std::string& token, std::string& mechanism);

}  // namespace velmar::mapi
