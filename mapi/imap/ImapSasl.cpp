#include "mapi/imap/ImapSasl.h"

#include "mapi/imap/ImapLibetpan.h"
#include "mapi/mime/Base64.h"

namespace velmar::mapi {
namespace {

// A user name inside the GS2 header: "," and "=" are written as =2C and =3D (RFC 5801).
std::string SaslName(const std::string& user) {
    std::string name;
    for (const char c : user) name += c == ',' ? "=2C" : c == '=' ? "=3D" : std::string(1, c);
    return name;
}

bool Send(mailimap* session, const std::string& text) {
    return mailstream_write(session->imap_stream, text.data(), text.size()) ==
               static_cast<ssize_t>(text.size()) &&
           mailstream_flush(session->imap_stream) == 0;
}

}  // namespace

EBearerOutcome AuthenticateWithBearer(mailimap* session, const std::string& user, const std::string& host,
                                      unsigned port, const std::string& token, std::string& mechanism) {
    std::string response;
    // What answers a challenge that follows the response: the server's report of why it refuses, after which
    // the tagged NO comes (RFC 7628 section 3.2.3; XOAUTH2 wants an empty line).
    std::string acknowledgement;
    if (mailimap_has_authentication(session, "OAUTHBEARER")) {
        mechanism = "OAUTHBEARER";
        response = "n,a=" + SaslName(user) + ",\x01host=" + host + "\x01port=" + std::to_string(port) +
                   "\x01"
                   "auth=Bearer " +
                   token + "\x01\x01";
        acknowledgement = "AQ==";
    } else if (mailimap_has_authentication(session, "XOAUTH2")) {
        mechanism = "XOAUTH2";
        response = "user=" + user +
                   "\x01"
                   "auth=Bearer " +
                   token + "\x01\x01";
    } else {
        mechanism.clear();
        return EBearerOutcome::NoMechanism;
    }
    const std::string encoded = Base64Encode(response);
    const bool initialResponse = mailimap_has_extension(session, "SASL-IR");
    if (mailimap_send_current_tag(session) != MAILIMAP_NO_ERROR ||
        !Send(session, "AUTHENTICATE " + mechanism + (initialResponse ? " " + encoded : "") + "\r\n"))
        return EBearerOutcome::Broken;
    bool responded = initialResponse;
    // At most the server's invitation and its report: a server that goes on challenging is refused.
    for (int challenge = 0;; ++challenge) {
        if (!mailimap_read_line(session)) return EBearerOutcome::Broken;
        if (session->imap_stream_buffer->str[0] != '+') break;
        if (challenge == 2 || !Send(session, (responded ? acknowledgement : encoded) + "\r\n"))
            return EBearerOutcome::Broken;
        responded = true;
    }
    mailimap_response* answer = nullptr;
    if (mailimap_parse_response(session, &answer) != MAILIMAP_NO_ERROR || !answer)
        return EBearerOutcome::Broken;
    const bool signedIn =
        answer->rsp_resp_done && answer->rsp_resp_done->rsp_type == MAILIMAP_RESP_DONE_TYPE_TAGGED &&
        answer->rsp_resp_done->rsp_data.rsp_tagged->rsp_cond_state->rsp_type == MAILIMAP_RESP_COND_STATE_OK;
    mailimap_response_free(answer);
    if (!signedIn) return EBearerOutcome::Refused;
    session->imap_state = MAILIMAP_STATE_AUTHENTICATED;
    return EBearerOutcome::SignedIn;
}

}  // namespace velmar::mapi
