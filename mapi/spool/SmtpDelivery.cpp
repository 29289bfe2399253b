// Delivery through the profile's SMTP server (smtp.* keys, SmtpSettings.h), with the replies of the server
// turned into who was served, who was refused for good, and why the others wait.
#include <algorithm>

#include "mapi/oauth/AccessTokens.h"
#include "mapi/spool/QueuedMessage.h"
#include "mapi/spool/RemoteDelivery.h"
#include "mapi/spool/SmtpSettings.h"
#include "mapi/spool/SmtpSubmission.h"
#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

std::string ReplyText(int code, const std::string& text) {
    return (code ? std::to_string(code) + " " : std::string()) + text;
}

class CSmtpDelivery final : public IRemoteDelivery {
public:
    bool Available(const CProfile& profile) const override { return !SmtpSettingsOf(profile).url.empty(); }

    CRemoteResult Deliver(const CProfile& profile, const std::string& from,
                          const std::vector<std::string>& recipients, const std::string& message,
                          const std::atomic<bool>& cancel) const override {
        CRemoteResult result;
        const CSmtpSettings settings = SmtpSettingsOf(profile);
        const std::string mime = ToCrlf(message);
        CSmtpResult sent;
        if (settings.SignsInWithOAuth2()) {
            const std::optional<COAuth2Account> account =
                SmtpOAuth2Account(profile, settings, result.problem);
            if (!account) return result;
            // A token the server refuses is dropped, and one more is asked for: it may have been revoked or
            // have expired early.
            for (int attempt = 0; attempt < 2; ++attempt) {
                const CAccessToken token = CurrentAccessToken(*account, ProfilesFilePath());
                if (!token.token) {
                    result.problem = "SMTP: " + token.error;
                    return result;
                }
                sent = SubmitBySmtp(settings, *token.token, from, recipients, mime, &cancel);
                if (!sent.signInRefused) break;
                ForgetAccessToken(*account);
            }
        } else {
            std::string error;
            const std::optional<std::string> password =
                ResolveSmtpPassword(settings, ProfilesFilePath(), error);
            if (!password) {
                result.problem = "SMTP password: " + error;
                return result;
            }
            sent = SubmitBySmtp(settings, *password, from, recipients, mime, &cancel);
        }
        if (sent.outcome == SmtpOutcome::Permanent) {
            // The message itself was refused: every recipient, with its own words where it had them.
            for (const std::string& recipient : recipients) {
                const auto own =
                    std::find_if(sent.recipients.begin(), sent.recipients.end(),
                                 [&](const CRecipientReply& r) { return r.address == recipient; });
                const bool ownWords = own != sent.recipients.end() && IsPermanentRefusal(own->code);
                result.refused.push_back({recipient, ownWords ? ReplyText(own->code, own->text)
                                                              : ReplyText(sent.code, sent.text)});
            }
            return result;
        }
        for (const CRecipientReply& reply : sent.recipients) {
            if (IsPermanentRefusal(reply.code))
                result.refused.push_back({reply.address, ReplyText(reply.code, reply.text)});
            else if (reply.code >= 200 && reply.code < 300 && sent.outcome == SmtpOutcome::Accepted)
                result.accepted.push_back(reply.address);
        }
        if (result.accepted.size() + result.refused.size() < recipients.size())
            result.problem = "SMTP " + ReplyText(sent.code, sent.text);
        return result;
    }
};

}  // namespace

const IRemoteDelivery& SmtpDelivery() {
    static const CSmtpDelivery delivery;
    return delivery;
}

}  // namespace velmar::mapi
