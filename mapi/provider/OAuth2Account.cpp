#include "mapi/provider/OAuth2Account.h"

#include <strings.h>

#include <cctype>
#include <utility>

namespace velmar::mapi {
namespace {

std::string Trimmed(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
    return std::string(text);
}

bool Named(std::string_view field, const char* name) {
    return field.size() == std::char_traits<char>::length(name) &&
           strncasecmp(field.data(), name, field.size()) == 0;
}

}  // namespace

bool ApplyOAuth2Key(COAuth2Account& account, std::string_view field, std::string_view value) {
    std::string text = Trimmed(value);
    if (Named(field, "auth")) {
        account.enabled = strcasecmp(text.c_str(), "oauth2") == 0;
        return true;
    }
    const std::pair<const char*, std::string COAuth2Account::*> keys[] = {
        {"oauth2.tokeneval", &COAuth2Account::tokenEval},
        {"oauth2.provider", &COAuth2Account::provider},
        {"oauth2.authorize_url", &COAuth2Account::authorizeUrl},
        {"oauth2.token_url", &COAuth2Account::tokenUrl},
        {"oauth2.device_url", &COAuth2Account::deviceUrl},
        {"oauth2.client_id", &COAuth2Account::clientId},
        {"oauth2.client_secret", &COAuth2Account::clientSecret},
        {"oauth2.tenant", &COAuth2Account::tenant},
        {"oauth2.scope", &COAuth2Account::scope}};
    for (const auto& [name, member] : keys) {
        if (!Named(field, name)) continue;
        if (member == &COAuth2Account::provider)
            for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        account.*member = std::move(text);
        return true;
    }
    return false;
}

}  // namespace velmar::mapi
