// The SMTP server of a profile, from the smtp.* keys of its section of the profile file:
//   smtp.url = smtp://host:587 | smtps://host:465   (empty: no SMTP server)
//   smtp.starttls = required | optional | no        (default: required, unless the host is a loopback
//   address) smtp.user, smtp.passwordeval (a command whose first output line is the password), smtp.password
//   smtp.cafile = a CA bundle (PEM) trusted for this server instead of the system's store
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace velmar::mapi {

enum class StartTlsPolicy { Required, Optional, No };

struct CSmtpSettings {
    std::string url;
    std::optional<StartTlsPolicy> starttls;  // as given
    std::string user;
    std::string passwordEval;
    std::string password;
    std::string caFile;
};

// Applies one key of a profile section ("smtp.url", ...; letter case aside); false for a key it does not
// know.
bool ApplySmtpSetting(CSmtpSettings& settings, std::string_view key, std::string_view value);
// The policy in force: as given, else required unless the URL's host is a loopback address.
StartTlsPolicy EffectiveStartTls(const CSmtpSettings& settings);
// The password: the first line of what passwordEval prints (run by /bin/sh, at most 30 s), else password,
// honoured only when profileFile is neither readable nor writable by group or others. Nullopt with error
// set when it cannot be had; empty when none is configured.
std::optional<std::string> ResolveSmtpPassword(const CSmtpSettings& settings, const std::string& profileFile,
                                               std::string& error);

}  // namespace velmar::mapi
