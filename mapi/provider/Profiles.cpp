#include "mapi/provider/Profiles.h"

#include <pwd.h>
#include <unistd.h>

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>

#include "mapi/provider/EntryId.h"
#include "support/FileBytes.h"
#include "support/IniText.h"
#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

constexpr size_t kMaxProfileFileBytes = 1024 * 1024;

std::string Environment(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

std::string HomeFolder() {
    std::string home = Environment("HOME");
    if (home.empty()) {
        if (const passwd* user = getpwuid(getuid()); user && user->pw_dir) home = user->pw_dir;
    }
    return home.empty() ? "/tmp" : home;
}

// An XDG base folder: the variable when it holds an absolute path, else the fallback under the home folder.
std::string XdgFolder(const char* variable, const char* fallback) {
    const std::string value = Environment(variable);
    return !value.empty() && value.front() == '/' ? value : HomeFolder() + "/" + fallback;
}

std::string ResolvePath(const std::string& path, const std::string& baseFolder) {
    if (path == "~") return HomeFolder();
    if (path.starts_with("~/")) return HomeFolder() + path.substr(1);
    if (!path.empty() && path.front() == '/') return path;
    return baseFolder + "/" + path;
}

bool IsYes(const std::wstring& value) {
    return IniNamesEqual(value, L"yes") || IniNamesEqual(value, L"true") || value == L"1";
}

void ChooseOneDefault(auto& items) {
    if (items.empty()) return;
    auto chosen = std::find_if(items.begin(), items.end(), [](const auto& item) { return item.isDefault; });
    if (chosen == items.end()) chosen = items.begin();
    for (auto& item : items) item.isDefault = &item == &*chosen;
}

CProfile EmbeddedProfile() {
    CStoreConfig store;
    store.displayName = L"Postfach";
    store.path = DataFolder() + "/Maildir";
    const std::string user = Environment("USER");
    store.ownerAddress = Utf8ToWide((user.empty() ? std::string("user") : user) + "@localhost");
    store.isDefault = true;
    store.id = StoreIdForPath(store.path);
    return CProfile{L"Velmar", true, {store}, {}, {}};
}

// imaps://host[:port] or imap://host[:port] (an IPv6 host in brackets); false for anything else.
bool ParseImapUrl(const std::string& url, CImapAccount& account) {
    std::string rest;
    if (url.size() > 8 && strncasecmp(url.c_str(), "imaps://", 8) == 0) {
        account.implicitTls = true;
        rest = url.substr(8);
    } else if (url.size() > 7 && strncasecmp(url.c_str(), "imap://", 7) == 0) {
        account.implicitTls = false;
        rest = url.substr(7);
    } else {
        return false;
    }
    rest = rest.substr(0, rest.find('/'));
    std::string port;
    if (rest.starts_with("[")) {
        const size_t close = rest.find(']');
        if (close == std::string::npos) return false;
        account.host = rest.substr(1, close - 1);
        if (close + 1 < rest.size() && rest[close + 1] == ':') port = rest.substr(close + 2);
    } else {
        account.host = rest.substr(0, rest.find(':'));
        if (rest.find(':') != std::string::npos) port = rest.substr(rest.find(':') + 1);
    }
    unsigned long number = account.implicitTls ? 993 : 143;
    if (!port.empty()) {
        char* end = nullptr;
        number = std::strtoul(port.c_str(), &end, 10);
        if (*end || number == 0 || number > 65535) return false;
    }
    account.port = static_cast<std::uint16_t>(number);
    account.url = url;
    return !account.host.empty();
}

// Applies a store key of an IMAP account ("imap", "user", "passwordeval", "password", "cafile",
// "imaptunnel", "auth", "oauth2.*"); false for a key that is not one. An "imap" URL that cannot be read
// leaves the URL empty.
bool ApplyImapKey(CImapAccount& account, const std::wstring& field, const std::wstring& value) {
    if (IniNamesEqual(field, L"imap")) {
        if (!ParseImapUrl(WideToUtf8(value), account)) account.url.clear();
    } else if (IniNamesEqual(field, L"user")) {
        account.user = WideToUtf8(value);
    } else if (IniNamesEqual(field, L"passwordeval")) {
        account.passwordEval = WideToUtf8(value);
    } else if (IniNamesEqual(field, L"password")) {
        account.password = WideToUtf8(value);
    } else if (IniNamesEqual(field, L"cafile")) {
        account.caFile = WideToUtf8(value);
    } else if (IniNamesEqual(field, L"imaptunnel")) {
        account.tunnel = WideToUtf8(value);
    } else {
        return ApplyOAuth2Key(account.oauth2, WideToUtf8(field), WideToUtf8(value));
    }
    return true;
}

// "store3.path" with prefix "store" → (3, "path"); false for other keys.
bool SplitNumberedKey(const std::wstring& key, std::wstring_view prefix, unsigned& number,
                      std::wstring& field) {
    const size_t start = prefix.size();
    if (key.size() < start + 2 || !IniNamesEqual(key.substr(0, start), std::wstring(prefix))) return false;
    const size_t dot = key.find(L'.', start);
    if (dot == std::wstring::npos || dot == start) return false;
    number = 0;
    for (size_t i = start; i < dot; ++i) {
        if (key[i] < L'0' || key[i] > L'9' || number > 100000) return false;
        number = number * 10 + static_cast<unsigned>(key[i] - L'0');
    }
    field = key.substr(dot + 1);
    return true;
}

CProfile ProfileFromSection(const CIniSection& section, const std::string& baseFolder) {
    CProfile profile;
    profile.name = section.name;
    std::map<unsigned, CStoreConfig> stores;
    std::map<unsigned, CImapAccount> accounts;  // the IMAP keys of the stores that have any
    std::map<unsigned, CContact> contacts;
    for (const CIniEntry& entry : section.entries) {
        unsigned number = 0;
        std::wstring field;
        if (IniNamesEqual(entry.key, L"default")) {
            profile.isDefault = IsYes(entry.value);
        } else if (SplitNumberedKey(entry.key, L"contact", number, field)) {
            if (IniNamesEqual(field, L"name")) contacts[number].name = entry.value;
            if (IniNamesEqual(field, L"address")) contacts[number].address = entry.value;
        } else if (!SplitNumberedKey(entry.key, L"store", number, field)) {
            profile.settings.emplace_back(entry.key, entry.value);
        } else {
            CStoreConfig& store = stores[number];
            if (IniNamesEqual(field, L"name")) store.displayName = entry.value;
            if (IniNamesEqual(field, L"path")) store.path = ResolvePath(WideToUtf8(entry.value), baseFolder);
            if (IniNamesEqual(field, L"address")) store.ownerAddress = entry.value;
            if (IniNamesEqual(field, L"owner")) store.ownerName = entry.value;
            if (IniNamesEqual(field, L"default")) store.isDefault = IsYes(entry.value);
            CImapAccount account = accounts.count(number) ? accounts[number] : CImapAccount{};
            if (ApplyImapKey(account, field, entry.value)) accounts[number] = account;
        }
    }
    for (auto& [number, store] : stores) {
        // A store is on an IMAP server when it names one, by URL or by tunnel.
        if (const auto found = accounts.find(number); found != accounts.end() && store.path.empty()) {
            const CImapAccount& account = found->second;
            if (!account.url.empty() || !account.tunnel.empty()) store.imap = account;
        }
        if (store.imap) {
            CImapAccount& account = *store.imap;
            // A tunnel needs no URL.
            if (account.url.empty()) account.host = "localhost";
            // Where the store's own Outbox lives, one folder per account.
            const std::string name = account.url.empty() ? "tunnel:" + account.tunnel : account.url;
            char folder[32];
            std::snprintf(folder, sizeof folder, "%016llx",
                          static_cast<unsigned long long>(StoreIdForPath(account.user + "@" + name)));
            store.path = DataFolder() + "/imap/" + folder;
            account.oauth2.tokenKey = std::string("imap-") + folder;
        }
        if (store.path.empty()) continue;  // a store without a folder cannot be opened
        if (store.displayName.empty()) store.displayName = L"Store " + std::to_wstring(number);
        if (store.imap) store.imap->oauth2.signInName = WideToUtf8(store.displayName);
        store.id = StoreIdForPath(store.path);
        store.number = number;
        profile.stores.push_back(store);
    }
    ChooseOneDefault(profile.stores);
    for (auto& [number, contact] : contacts)
        if (!contact.address.empty()) profile.contacts.push_back(std::move(contact));
    return profile;
}

}  // namespace

std::wstring OwnerName(const CStoreConfig& store) {
    if (!store.ownerName.empty()) return store.ownerName;
    return store.ownerAddress.substr(0, store.ownerAddress.rfind(L'@'));
}

std::string CacheFolder() {
    return XdgFolder("XDG_CACHE_HOME", ".cache") + "/velmar-mapi";
}

std::string DataFolder() {
    return XdgFolder("XDG_DATA_HOME", ".local/share") + "/velmar-mapi";
}

std::string ProfilesFilePath() {
    const std::string named = Environment("VELMAR_MAPI_PROFILES");
    if (!named.empty()) return named;
    return XdgFolder("XDG_CONFIG_HOME", ".config") + "/velmar-mapi/profiles.ini";
}

std::vector<CProfile> LoadProfiles() {
    const std::string file = ProfilesFilePath();
    const std::optional<std::string> bytes = ReadFileBytes(Utf8ToWide(file), kMaxProfileFileBytes);
    if (!bytes) return {EmbeddedProfile()};
    std::string_view text = *bytes;
    if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
    const std::string baseFolder =
        file.find('/') == std::string::npos ? "." : file.substr(0, file.rfind('/'));
    std::vector<CProfile> profiles;
    for (const CIniSection& section : ParseIniText(Utf8ToWide(text)))
        if (!section.name.empty()) profiles.push_back(ProfileFromSection(section, baseFolder));
    ChooseOneDefault(profiles);
    return profiles;
}

}  // namespace velmar::mapi
