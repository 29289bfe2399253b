#include "mapi/oauth/BrowserAuthorization.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <unistd.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <gnutls/crypto.h>

#include <cctype>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <map>

#include "mapi/mime/Base64.h"
#include "mapi/oauth/CurlTransfer.h"
#include "mapi/oauth/Endpoints.h"
#include "mapi/oauth/RefreshTokens.h"
#include "mapi/oauth/TokenRequest.h"
#include "support/FileDescriptor.h"

extern char** environ;

namespace velmar::mapi {
namespace {

constexpr auto kPatience = std::chrono::minutes(5);
constexpr size_t kMaxRequestBytes = 16 * 1024;
constexpr char kPage[] =
    "HTTP/1.1 200 OK\r\nContent-Type: text/html; charset=utf-8\r\nConnection: close\r\n\r\n"
    "<!DOCTYPE html><html lang=\"de\"><head><title>VelmarTaskScheduler</title></head><body>"
    "<p>Die Anmeldung ist angekommen. Sie können dieses Fenster schließen.</p></body></html>";

bool RandomText(size_t bytes, std::string& text) {
    std::string random(bytes, '\0');
    if (getrandom(random.data(), bytes, 0) != static_cast<ssize_t>(bytes)) return false;
    text = Base64Encode(random, EBase64Alphabet::Url);
    return true;
}

// The S256 challenge of a verifier: BASE64URL(SHA256(verifier)).
std::string Challenge(const std::string& verifier) {
    unsigned char digest[32];
    gnutls_hash_fast(GNUTLS_DIG_SHA256, verifier.data(), verifier.size(), digest);
    return Base64Encode(std::string_view(reinterpret_cast<const char*>(digest), sizeof digest),
                        EBase64Alphabet::Url);
}

std::string Unescaped(std::string_view text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '+') {
            out += ' ';
        } else if (text[i] == '%' && i + 2 < text.size() &&
                   std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
                   std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            out += static_cast<char>(std::strtol(std::string(text.substr(i + 1, 2)).c_str(), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

// The query of "GET /?a=b&c=d HTTP/1.1", decoded.
std::map<std::string, std::string> QueryOf(const std::string& request) {
    std::map<std::string, std::string> fields;
    const size_t start = request.find('?');
    const size_t end = request.find(' ', request.find(' ') + 1);
    if (request.rfind("GET ", 0) != 0 || start == std::string::npos || end == std::string::npos ||
        start > end)
        return fields;
    std::string_view query(request.data() + start + 1, end - start - 1);
    while (!query.empty()) {
        const std::string_view pair = query.substr(0, query.find('&'));
        const size_t equals = pair.find('=');
        if (equals != std::string_view::npos)
            fields[Unescaped(pair.substr(0, equals))] = Unescaped(pair.substr(equals + 1));
        query.remove_prefix(std::min(query.size(), pair.size() + 1));
    }
    return fields;
}

// Hands the address to the desktop's browser, where there is a desktop; the user has it printed anyway.
void OpenInBrowser(const std::string& url) {
    if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY")) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::string program = "xdg-open";
    std::string address = url;
    char* arguments[] = {program.data(), address.data(), nullptr};
    pid_t pid = -1;
    if (posix_spawnp(&pid, "xdg-open", &actions, nullptr, arguments, environ) == 0) waitpid(pid, nullptr, 0);
    posix_spawn_file_actions_destroy(&actions);
}

// Waits for the browser's request on listener; its query, or an empty map when none came in time.
std::map<std::string, std::string> AwaitRedirect(int listener, const std::string& state) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd ready{listener, POLLIN, 0};
        if (poll(&ready, 1, 1000) <= 0) continue;
        const velmar::CFileDescriptor client(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
        if (client.get() < 0) continue;
        std::string request;
        char buffer[2048];
        while (request.find("\r\n") == std::string::npos && request.size() < kMaxRequestBytes) {
            pollfd readable{client.get(), POLLIN, 0};
            if (poll(&readable, 1, 10000) <= 0) break;
            const ssize_t got = read(client.get(), buffer, sizeof buffer);
            if (got <= 0) break;
            request.append(buffer, static_cast<size_t>(got));
        }
        std::map<std::string, std::string> query = QueryOf(request.substr(0, request.find("\r\n")));
        // Anything else that knocks (a browser's favicon, another program) is not the answer.
        if (query["state"] != state) {
            static constexpr char kNotFound[] = "HTTP/1.1 404 Not Found\r\nConnection: close\r\n\r\n";
            static_cast<void>(write(client.get(), kNotFound, sizeof kNotFound - 1));
            continue;
        }
        static_cast<void>(write(client.get(), kPage, sizeof kPage - 1));
        return query;
    }
    return {};
}

}  // namespace

bool AuthorizeInBrowser(const COAuth2Account& account, const std::function<void(const std::string&)>& say,
                        std::string& error) {
    const COAuth2Endpoints endpoints = EndpointsOf(account);
    if (endpoints.authorizeUrl.empty() || endpoints.tokenUrl.empty() || account.clientId.empty()) {
        error = "für " + account.signInName +
                " sind oauth2.authorize_url, oauth2.token_url und oauth2.client_id nötig";
        return false;
    }
    const velmar::CFileDescriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener.get() < 0 ||
        bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener.get(), 4) != 0 ||
        getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        error = "kein Port auf 127.0.0.1 für die Rückkehr des Browsers";
        return false;
    }
    std::string verifier, state;
    if (!RandomText(32, verifier) || !RandomText(16, state)) {
        error = "keine Zufallszahlen";
        return false;
    }
    const std::string redirect = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
    std::string url =
        endpoints.authorizeUrl + (endpoints.authorizeUrl.find('?') == std::string::npos ? "?" : "&") +
        "response_type=code&client_id=" + UrlEncoded(account.clientId) +
        "&redirect_uri=" + UrlEncoded(redirect) + "&scope=" + UrlEncoded(endpoints.scope) +
        "&state=" + state + "&code_challenge=" + Challenge(verifier) + "&code_challenge_method=S256";
    // Google hands out a refresh token only when asked for offline access.
    if (account.provider == "google") url += "&access_type=offline&prompt=consent";
    say("Anmeldung für " + account.signInName + ": öffnen Sie im Browser " + url);
    OpenInBrowser(url);

    std::map<std::string, std::string> answer = AwaitRedirect(listener.get(), state);
    if (answer.empty()) {
        error = "Der Browser ist nicht innerhalb von 5 Minuten zurückgekehrt";
        return false;
    }
    if (answer["code"].empty()) {
        error =
            "Anmeldung abgelehnt: " + (answer["error"].empty() ? std::string("kein Code") : answer["error"]);
        return false;
    }
    CFormFields form{{"grant_type", "authorization_code"},
                     {"code", answer["code"]},
                     {"redirect_uri", redirect},
                     {"client_id", account.clientId},
                     {"code_verifier", verifier}};
    if (!account.clientSecret.empty()) form.emplace_back("client_secret", account.clientSecret);
    const CTokenAnswer token = PostTokenForm(endpoints.tokenUrl, form);
    if (token.refreshToken.empty()) {
        error = "Anmeldeserver: " +
                (token.answered ? (token.error.empty() ? "kein Refresh-Token" : token.error) : token.problem);
        return false;
    }
    if (!SaveRefreshToken(account.tokenKey, token.refreshToken, error)) return false;
    say("Angemeldet: " + account.signInName);
    return true;
}

}  // namespace velmar::mapi
