#include "mapi/spool/SmtpSettings.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>

#include "mapi/provider/AccountSecrets.h"
#include "mapi/provider/EntryId.h"
#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

std::string Lower(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return lower;
}

std::string Trimmed(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
    return std::string(text);
}

}  // namespace

bool ApplySmtpSetting(CSmtpSettings& settings, std::string_view key, std::string_view value) {
    const std::string name = Lower(Trimmed(key));
    const std::string text = Trimmed(value);
    if (name == "smtp.url") {
        settings.url = text;
    } else if (name == "smtp.starttls") {
        const std::string policy = Lower(text);
        if (policy == "required")
            settings.starttls = StartTlsPolicy::Required;
        else if (policy == "optional")
            settings.starttls = StartTlsPolicy::Optional;
        else if (policy == "no")
            settings.starttls = StartTlsPolicy::No;
        else
            return false;
    } else if (name == "smtp.user") {
        settings.user = text;
    } else if (name == "smtp.passwordeval") {
        settings.passwordEval = text;
    } else if (name == "smtp.password") {
        // Deliberate: not trimmed; a password may begin or end with a space.
        settings.password = std::string(value);
    } else if (name == "smtp.cafile") {
        settings.caFile = text;
    } else if (name == "smtp.oauth2.store") {
        const unsigned long number = std::strtoul(text.c_str(), nullptr, 10);
        if (number == 0 || number > 100000) return false;
        settings.oauth2Store = static_cast<unsigned>(number);
    } else {
        return name.starts_with("smtp.") && ApplyOAuth2Key(settings.oauth2, name.substr(5), value);
    }
    return true;
}

StartTlsPolicy EffectiveStartTls(const CSmtpSettings& settings) {
    if (settings.starttls) return *settings.starttls;
    return IsLoopbackHost(HostOfUrl(settings.url)) ? StartTlsPolicy::Optional : StartTlsPolicy::Required;
}

std::optional<std::string> ResolveSmtpPassword(const CSmtpSettings& settings, const std::string& profileFile,
                                               std::string& error) {
    if (!settings.passwordEval.empty())
        return PasswordFromProfileCommand(settings.passwordEval, "smtp.passwordeval", profileFile, error);
    if (settings.password.empty()) return std::string();
    return PasswordFromProfile(settings.password, "smtp.password", profileFile, error);
}

CSmtpSettings SmtpSettingsOf(const CProfile& profile) {
    CSmtpSettings settings;
    for (const auto& [key, value] : profile.settings)
        ApplySmtpSetting(settings, WideToUtf8(key), WideToUtf8(value));
    return settings;
}

std::optional<COAuth2Account> SmtpOAuth2Account(const CProfile& profile, const CSmtpSettings& settings,
                                                std::string& problem) {
    if (settings.oauth2Store) {
        for (const CStoreConfig& store : profile.stores)
            if (store.number == settings.oauth2Store && store.imap && store.imap->oauth2.enabled)
                return store.imap->oauth2;
        problem = "smtp.oauth2.store " + std::to_string(settings.oauth2Store) +
                  " ist kein IMAP-Postfach mit auth = oauth2";
        return std::nullopt;
    }
    COAuth2Account account = settings.oauth2;
    char key[32];
    std::snprintf(key, sizeof key, "smtp-%016llx",
                  static_cast<unsigned long long>(StoreIdForPath(WideToUtf8(profile.name))));
    account.tokenKey = key;
    account.signInName = kSmtpSignInName;
    return account;
}

}  // namespace velmar::mapi
