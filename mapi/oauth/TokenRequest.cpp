#include "mapi/oauth/TokenRequest.h"

#include <strings.h>

#include "json/CkJsonObject.h"
#include "mapi/oauth/CurlTransfer.h"
#include "mapi/provider/AccountSecrets.h"

namespace velmar::mapi {
namespace {

constexpr long kTimeoutSeconds = 30;
constexpr size_t kMaxAnswerBytes = 64 * 1024;

size_t KeepAnswer(char* bytes, size_t size, size_t count, void* data) {
    auto* answer = static_cast<std::string*>(data);
    if (answer->size() + size * count > kMaxAnswerBytes) return 0;  // ends the transfer
    answer->append(bytes, size * count);
    return size * count;
}

std::string Encoded(const CFormFields& fields) {
    std::string form;
    for (const auto& [name, value] : fields)
        form += (form.empty() ? "" : "&") + name + "=" + UrlEncoded(value);
    return form;
}

bool SchemeAllowed(const std::string& url) {
    if (url.size() > 8 && strncasecmp(url.c_str(), "https://", 8) == 0) return true;
    return url.size() > 7 && strncasecmp(url.c_str(), "http://", 7) == 0 && IsLoopbackHost(HostOfUrl(url));
}

std::string Text(CkJsonObject& json, const char* name) {
    const char* value = json.StringOf(name);
    return value ? value : "";
}

}  // namespace

CTokenAnswer PostTokenForm(const std::string& url, const CFormFields& fields) {
    CTokenAnswer answer;
    if (!SchemeAllowed(url)) {
        answer.problem = "die Adresse " + url + " ist weder https:// noch dieser Rechner";
        return answer;
    }
    InitializeCurl();
    const CEasyHandle easy(curl_easy_init());
    if (!easy) {
        answer.problem = "libcurl kann keine Anfrage beginnen";
        return answer;
    }
    const std::string form = Encoded(fields);
    std::string body;
    char error[CURL_ERROR_SIZE] = {};
    CStringList headers(curl_slist_append(nullptr, "Accept: application/json"));
    COptionSetter options(easy.get());
    options.Set(CURLOPT_ERRORBUFFER, error);
    options.Set(CURLOPT_URL, url.c_str());
#if LIBCURL_VERSION_NUM >= 0x075500
    options.Set(CURLOPT_PROTOCOLS_STR, "http,https");
#else
    options.Set(CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTP | CURLPROTO_HTTPS));
#endif
    options.Set(CURLOPT_FOLLOWLOCATION, 0L);
    options.Set(CURLOPT_HTTPHEADER, headers.get());
    options.Set(CURLOPT_POSTFIELDS, form.c_str());
    options.Set(CURLOPT_POSTFIELDSIZE, static_cast<long>(form.size()));
    options.Set(CURLOPT_WRITEFUNCTION, KeepAnswer);
    options.Set(CURLOPT_WRITEDATA, &body);
    options.Set(CURLOPT_SSL_VERIFYPEER, 1L);
    options.Set(CURLOPT_SSL_VERIFYHOST, 2L);
    options.Set(CURLOPT_TIMEOUT, kTimeoutSeconds);
    options.Set(CURLOPT_NOSIGNAL, 1L);
    if (options.Result() != CURLE_OK) {
        answer.problem = std::string("libcurl: ") + curl_easy_strerror(options.Result());
        return answer;
    }
    const CURLcode transfer = curl_easy_perform(easy.get());
    if (transfer != CURLE_OK) {
        answer.problem = url + ": " + (*error ? error : curl_easy_strerror(transfer));
        return answer;
    }
    curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &answer.httpStatus);
    CkJsonObject json;
    json.SetUtf8Strings(true);
    if (body.find('{') == std::string::npos || !json.Load(body)) {
        answer.problem = url + " antwortet mit HTTP " + std::to_string(answer.httpStatus) + " ohne JSON";
        return answer;
    }
    answer.answered = true;
    answer.accessToken = Text(json, "access_token");
    answer.refreshToken = Text(json, "refresh_token");
    answer.expiresIn = json.IntOf("expires_in");
    answer.error = Text(json, "error");
    answer.errorDescription = Text(json, "error_description");
    answer.deviceCode = Text(json, "device_code");
    answer.userCode = Text(json, "user_code");
    // Google names it verification_url.
    answer.verificationUri = Text(json, "verification_uri");
    if (answer.verificationUri.empty()) answer.verificationUri = Text(json, "verification_url");
    answer.interval = json.IntOf("interval");
    return answer;
}

}  // namespace velmar::mapi
