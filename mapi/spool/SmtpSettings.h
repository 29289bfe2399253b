// The SMTP server of a profile, from the smtp.* keys of its section of the profile file:
//   smtp.url = smtp://host:587 | smtps://host:465   (empty: no SMTP server)
//   smtp.starttls = required | optional | no        (unset: required, unless the host is a loopback address)
//   smtp.user, smtp.passwordeval (a command whose first output line is the password), smtp.password
//   smtp.cafile = a CA bundle (PEM) for a private server, trusted instead of the system's store
//   smtp.auth = oauth2 with the smtp.oauth2.* keys (OAuth2Account.h), or smtp.oauth2.store = N to sign in
//   as IMAP store N does
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "mapi/provider/OAuth2Account.h"
#include "mapi/provider/Profiles.h"

namespace velmar::mapi {

enum class StartTlsPolicy { Required, Optional, No };

// The name --authorize knows the SMTP account of a profile by, when it signs in on its own.
inline constexpr char kSmtpSignInName[] = "SMTP";

struct CSmtpSettings {
    std::string url;                         // smtp://host:port or smtps://host:port; empty: no SMTP server
    std::optional<StartTlsPolicy> starttls;  // as given; see EffectiveStartTls for the policy in force
    std::string user;                        // empty: no authentication
    std::string passwordEval;                // a shell command whose first output line is the password
    std::string password;                    // given in the profile file itself
    // A CA bundle (PEM) for a private server. When set it is the only trust for the connection: the
    // system's store is not consulted, so a public server is refused unless its CA is in the bundle too.
    std::string caFile;
    COAuth2Account oauth2;     // enabled: signed in with an access token (SASL XOAUTH2 or OAUTHBEARER)
    unsigned oauth2Store = 0;  // N of smtp.oauth2.store: store N's sign-in instead of one of its own

    bool SignsInWithOAuth2() const { return oauth2.enabled || oauth2Store != 0; }
};

// Applies one key of a profile section ("smtp.url", "smtp.starttls", "smtp.user", "smtp.passwordeval",
// "smtp.password", "smtp.cafile", "smtp.auth", "smtp.oauth2.*"; letter case aside, values trimmed except the
// password's). False, and settings unchanged, for a key it does not know or a starttls value other than
// required|optional|no.
bool ApplySmtpSetting(CSmtpSettings& settings, std::string_view key, std::string_view value);

// The policy in force: as given, else Required, except Optional for a loopback host (127.0.0.0/8, ::1,
// "localhost"), where nothing travels over a network.
StartTlsPolicy EffectiveStartTls(const CSmtpSettings& settings);

// The password to log on with. From passwordEval when set: its first output line without the line end, run
// by /bin/sh -c, and only when profileFile is trusted with commands (ProfileFileTrusted); a command that
// fails, is killed or runs longer than 30 s is an error. Else from password, honoured only when profileFile
// is trusted with secrets. Returns the password (empty when none is configured), or nullopt with error set
// to a sentence saying why.
std::optional<std::string> ResolveSmtpPassword(const CSmtpSettings& settings, const std::string& profileFile,
                                               std::string& error);

// The smtp.* settings of the profile's section.
CSmtpSettings SmtpSettingsOf(const CProfile& profile);

// The sign-in of the profile's SMTP account when it uses OAuth2: that of the store smtp.oauth2.store names,
// or its own, kept under a name of the profile's. Nullopt with problem set when the store named has none.
std::optional<COAuth2Account> SmtpOAuth2Account(const CProfile& profile, const CSmtpSettings& settings,
                                                std::string& problem);

}  // namespace velmar::mapi
