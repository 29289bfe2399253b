#include "mapi/oauth/AccessTokens.h"

#include <time.h>
#include <sys/prctl.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>

#include "mapi/oauth/Endpoints.h"
#include "mapi/oauth/RefreshTokens.h"
#include "mapi/oauth/TokenRequest.h"
#include "mapi/provider/AccountSecrets.h"

namespace velmar::mapi {
namespace {

using Seconds = std::chrono::seconds;

// Seconds on the clock that goes on while the machine sleeps; the wall clock is the other witness.
std::int64_t BootSeconds() {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return now.tv_sec;
}

std::int64_t WallSeconds() {
    return std::chrono::duration_cast<Seconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

struct CKeptToken {
    std::string token;
    bool expires = false;
    // When to get the next one, on both clocks: the earlier of the two decides.
    std::int64_t renewBoot = 0;
    std::int64_t renewWall = 0;
    std::int64_t gotWall = 0;
};

bool StillGood(const CKeptToken& kept) {
    if (!kept.expires) return true;
    const std::int64_t wall = WallSeconds();
    // A wall clock set back by more than a minute says nothing: the boot clock alone decides then.
    const bool wallTrusted = wall + 60 >= kept.gotWall;
    return BootSeconds() < kept.renewBoot && (!wallTrusted || wall < kept.renewWall);
}

// A process that holds secrets leaves no core file behind, and no other process of the user may read its
// memory.
void KeepSecretsInMemory() {
    static std::once_flag once;
    std::call_once(once, [] { prctl(PR_SET_DUMPABLE, 0, 0, 0, 0); });
}

class CTokenCache {
public:
    CAccessToken Current(const COAuth2Account& account, const std::string& profileFile) {
        // One request per account at a time: two refreshes with one refresh token would spend it twice, and
        // a server that rotates refresh tokens takes only the first. Other accounts do not wait for it.
        std::lock_guard accountLock(AccountLock(account.tokenKey));
        if (std::optional<std::string> kept = Kept(account.tokenKey)) return {std::move(kept), {}, false};
        CAccessToken fresh =
            account.tokenEval.empty() ? Refreshed(account) : FromCommand(account, profileFile);
        if (fresh.token) KeepSecretsInMemory();
        return fresh;
    }

    void Forget(const COAuth2Account& account) {
        std::lock_guard lock(m_lock);
        m_tokens.erase(account.tokenKey);
    }

private:
    std::mutex& AccountLock(const std::string& key) {
        std::lock_guard lock(m_lock);
        std::unique_ptr<std::mutex>& held = m_accountLocks[key];
        if (!held) held = std::make_unique<std::mutex>();
        return *held;
    }

    std::optional<std::string> Kept(const std::string& key) {
        std::lock_guard lock(m_lock);
        const auto found = m_tokens.find(key);
        if (found == m_tokens.end() || !StillGood(found->second)) return std::nullopt;
        return found->second.token;
    }

    void Keep(const std::string& key, CKeptToken kept) {
        std::lock_guard lock(m_lock);
        m_tokens[key] = std::move(kept);
    }

    CAccessToken FromCommand(const COAuth2Account& account, const std::string& profileFile) {
        CAccessToken result;
        result.token =
            PasswordFromProfileCommand(account.tokenEval, "oauth2.tokeneval", profileFile, result.error);
        if (result.token && result.token->empty()) {
            result.token.reset();
            result.error = "oauth2.tokeneval gab kein Token aus";
        }
        if (result.token) Keep(account.tokenKey, CKeptToken{*result.token});
        return result;
    }

    CAccessToken Refreshed(const COAuth2Account& account) {
        CAccessToken result;
        const std::optional<std::string> refreshToken = LoadRefreshToken(account.tokenKey);
        const COAuth2Endpoints endpoints = EndpointsOf(account);
        if (!refreshToken) {
            result.error = SignInNeededText(account);
            result.signInNeeded = true;
            return result;
        }
        if (endpoints.tokenUrl.empty()) {
            result.error = "kein oauth2.token_url und kein bekannter oauth2.provider";
            return result;
        }
        CFormFields form{{"grant_type", "refresh_token"},
                         {"refresh_token", *refreshToken},
                         {"client_id", account.clientId}};
        if (!account.clientSecret.empty()) form.emplace_back("client_secret", account.clientSecret);
        if (!endpoints.scope.empty()) form.emplace_back("scope", endpoints.scope);
        const CTokenAnswer answer = PostTokenForm(endpoints.tokenUrl, form);
        if (!answer.answered) {
            result.error = "Anmeldeserver nicht erreichbar: " + answer.problem;
            return result;
        }
        if (answer.accessToken.empty()) {
            // invalid_grant: the refresh token was revoked, has expired or was spent; nothing but a new
            // sign-in helps. Anything else may pass.
            result.signInNeeded = answer.error == "invalid_grant";
            result.error =
                result.signInNeeded
                    ? SignInNeededText(account)
                    : "Anmeldeserver: " +
                          (answer.error.empty() ? "HTTP " + std::to_string(answer.httpStatus) : answer.error);
            return result;
        }
        if (!answer.refreshToken.empty() && answer.refreshToken != *refreshToken) {
            std::string ignored;
            // The old one stays usable where the server does not rotate; where it does, the next refresh
            // says so and asks for a sign-in.
            SaveRefreshToken(account.tokenKey, answer.refreshToken, ignored);
        }
        CKeptToken kept{answer.accessToken, answer.expiresIn > 0};
        // Renewed a quarter of its life early, and at most a minute: a token never reaches a server late.
        const std::int64_t early = std::min<std::int64_t>(60, answer.expiresIn / 4);
        kept.gotWall = WallSeconds();
        kept.renewBoot = BootSeconds() + answer.expiresIn - early;
        kept.renewWall = kept.gotWall + answer.expiresIn - early;
        Keep(account.tokenKey, kept);
        result.token = answer.accessToken;
        return result;
    }

    std::mutex m_lock;  // over the two maps
    std::map<std::string, CKeptToken> m_tokens;
    std::map<std::string, std::unique_ptr<std::mutex>> m_accountLocks;
};

CTokenCache& Cache() {
    static CTokenCache cache;
    return cache;
}

}  // namespace

CAccessToken CurrentAccessToken(const COAuth2Account& account, const std::string& profileFile) {
    return Cache().Current(account, profileFile);
}

void ForgetAccessToken(const COAuth2Account& account) {
    Cache().Forget(account);
}

std::string SignInNeededText(const COAuth2Account& account) {
    return "Anmeldung nötig: VelmarTaskScheduler --authorize \"" + account.signInName + "\" ausführen";
}

}  // namespace velmar::mapi
