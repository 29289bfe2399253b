#include "mapi/oauth/DeviceAuthorization.h"

#include <chrono>
#include <thread>

#include "mapi/oauth/Endpoints.h"
#include "mapi/oauth/RefreshTokens.h"
#include "mapi/oauth/TokenRequest.h"

namespace velmar::mapi {
namespace {

constexpr long kDefaultIntervalSeconds = 5;
constexpr long kDefaultLifetimeSeconds = 900;

std::string Described(const CTokenAnswer& answer) {
    if (!answer.answered) return answer.problem;
    std::string text = answer.error.empty() ? "HTTP " + std::to_string(answer.httpStatus) : answer.error;
    if (!answer.errorDescription.empty()) text += " (" + answer.errorDescription + ")";
    return text;
}

}  // namespace

bool AuthorizeByDevice(const COAuth2Account& account, const std::function<void(const std::string&)>& say,
                       std::string& error) {
    const COAuth2Endpoints endpoints = EndpointsOf(account);
    if (endpoints.deviceUrl.empty() || endpoints.tokenUrl.empty()) {
        error = "für " + account.signInName + " sind oauth2.device_url und oauth2.token_url nötig";
        return false;
    }
    if (account.clientId.empty()) {
        error = "für " + account.signInName + " fehlt oauth2.client_id";
        return false;
    }
    CFormFields request{{"client_id", account.clientId}, {"scope", endpoints.scope}};
    if (!account.clientSecret.empty()) request.emplace_back("client_secret", account.clientSecret);
    const CTokenAnswer device = PostTokenForm(endpoints.deviceUrl, request);
    if (device.deviceCode.empty() || device.userCode.empty() || device.verificationUri.empty()) {
        error = "Anmeldeserver: " + Described(device);
        return false;
    }
    say("Anmeldung für " + account.signInName + ": öffnen Sie " + device.verificationUri +
        " und geben Sie den Code " + device.userCode + " ein.");

    long interval = device.interval > 0 ? device.interval : kDefaultIntervalSeconds;
    const auto deadline =
        std::chrono::steady_clock::now() +
        std::chrono::seconds(device.expiresIn > 0 ? device.expiresIn : kDefaultLifetimeSeconds);
    CFormFields poll{{"grant_type", "urn:ietf:params:oauth:grant-type:device_code"},
                     {"device_code", device.deviceCode},
                     {"client_id", account.clientId}};
    if (!account.clientSecret.empty()) poll.emplace_back("client_secret", account.clientSecret);
    while (std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::seconds(interval));
        const CTokenAnswer answer = PostTokenForm(endpoints.tokenUrl, poll);
        if (answer.error == "authorization_pending") continue;
        if (answer.error == "slow_down") {
            interval += 5;
            continue;
        }
        if (answer.refreshToken.empty()) {
            error = "Anmeldung abgebrochen: " + Described(answer);
            return false;
        }
        if (!SaveRefreshToken(account.tokenKey, answer.refreshToken, error)) return false;
        say("Angemeldet: " + account.signInName);
        return true;
    }
    error = "Der Code ist abgelaufen, bevor die Anmeldung geschah";
    return false;
}

}  // namespace velmar::mapi
