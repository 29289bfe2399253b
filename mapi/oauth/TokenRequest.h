// One request to an authorization server: a form posted to its token or device endpoint (RFC 6749 section
// 4, RFC 8628 section 3.1), and the JSON object it answers with.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace velmar::mapi {

struct CTokenAnswer {
    bool answered = false;  // an HTTP answer with a JSON object came
    long httpStatus = 0;
    std::string accessToken;
    std::string refreshToken;
    long expiresIn = 0;
    std::string error;  // "invalid_grant", "authorization_pending", ...
    std::string errorDescription;
    // The device endpoint's answer.
    std::string deviceCode;
    std::string userCode;
    std::string verificationUri;
    long interval = 0;
    // Why there is no answer: the server could not be reached, or did not answer with JSON.
    std::string problem;
};

using CFormFields = std::vector<std::pair<std::string, std::string>>;

// Posts the fields, form-encoded, to url: over HTTPS with the server's certificate checked against the
// system's CAs, or over plain HTTP to this machine only. A server that takes more than 30 s is given up.
CTokenAnswer PostTokenForm(const std::string& url, const CFormFields& fields);

}  // namespace velmar::mapi
