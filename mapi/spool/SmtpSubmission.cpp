#include "mapi/spool/SmtpSubmission.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>

#include "mapi/oauth/CurlTransfer.h"

namespace velmar::mapi {
namespace {

constexpr long kConnectSeconds = 30;
// A server that takes less than a byte a second for a minute is gone.
constexpr long kLowSpeedBytes = 1;
constexpr long kLowSpeedSeconds = 60;
// Large messages go up in large pieces: libcurl's default of 64 KB costs a callback and a send each.
constexpr long kUploadBufferBytes = 512 * 1024;

#if LIBCURL_VERSION_NUM >= 0x080200
constexpr CURLoption kAllowFailingRecipients = CURLOPT_MAIL_RCPT_ALLOWFAILS;
#else
// libcurl before 8.2 spells it with three L.
constexpr CURLoption kAllowFailingRecipients = CURLOPT_MAIL_RCPT_ALLLOWFAILS;
#endif

// What goes up: the caller's message, copied straight into libcurl's buffer.
struct CUpload {
    std::string_view bytes;
    size_t sent = 0;
};

size_t ReadUpload(char* buffer, size_t size, size_t count, void* data) {
    auto* upload = static_cast<CUpload*>(data);
    const size_t n = std::min(size * count, upload->bytes.size() - upload->sent);
    std::memcpy(buffer, upload->bytes.data() + upload->sent, n);
    upload->sent += n;
    return n;
}

struct CReply {
    int code = 0;  // 0: none came
    std::string text;
};

bool StartsWithNoCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() &&
           std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) {
               return std::toupper(static_cast<unsigned char>(a)) ==
                      std::toupper(static_cast<unsigned char>(b));
           });
}

// The server's replies, each matched with the command it answers, as libcurl's debug callback shows them.
// libcurl speaks SMTP without pipelining: it sends one command and reads its whole reply before the next,
// so the reply that completes after a command is that command's. Only replies are kept, never what we
// sent: the lines after AUTH carry the password.
class CSmtpTranscript {
public:
    explicit CSmtpTranscript(const std::vector<std::string>& recipients) {
        for (const std::string& address : recipients) m_recipients.push_back({address, 0, {}});
    }

    void CommandSent(std::string_view line) {
        m_pending.clear();
        m_partial.clear();
        // The lines that answer the server's 334 challenges belong to the AUTH that began them.
        if (m_command == Command::Auth) return;
        if (StartsWithNoCase(line, "RCPT TO:")) {
            m_command = Command::Rcpt;
            ++m_rcptSent;
        } else if (StartsWithNoCase(line, "MAIL FROM:")) {
            m_command = Command::Mail;
        } else if (StartsWithNoCase(line, "DATA")) {
            m_command = Command::Data;
        } else if (StartsWithNoCase(line, "AUTH")) {
            m_command = Command::Auth;
        } else {
            m_command = Command::Other;
        }
    }

    // Reply text as it comes: "250-..." lines go on, a "250 ..." (or bare "250") line ends the reply.
    void ReplyReceived(std::string_view text) {
        m_partial.append(text);
        size_t start = 0;
        for (size_t end; (end = m_partial.find('\n', start)) != std::string::npos; start = end + 1) {
            std::string_view line(m_partial.data() + start, end - start);
            if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
            ReplyLine(line);
        }
        m_partial.erase(0, start);
    }

    const std::vector<CRecipientReply>& Recipients() const { return m_recipients; }
    const CReply& Auth() const { return m_auth; }
    const CReply& Mail() const { return m_mail; }
    const CReply& Data() const { return m_data; }  // to DATA when it refused, else to the data itself
    const CReply& Last() const { return m_last; }

private:
    enum class Command { None, Mail, Rcpt, Data, DataEnd, Auth, Other };

    void ReplyLine(std::string_view line) {
        if (line.size() < 3 || !std::all_of(line.begin(), line.begin() + 3, [](char c) {
                return std::isdigit(static_cast<unsigned char>(c));
            }))
            return;
        if (!m_pending.empty()) m_pending += ' ';
        if (line.size() > 4) m_pending.append(line.substr(4));
        if (line.size() > 3 && line[3] == '-') return;
        Complete((line[0] - '0') * 100 + (line[1] - '0') * 10 + (line[2] - '0'));
    }

    void Complete(int code) {
        CReply reply{code, std::move(m_pending)};
        m_pending.clear();
        m_last = reply;
        switch (m_command) {
            case Command::Rcpt:
                // libcurl walks the recipient list in order, one RCPT TO each: the n-th sent is our n-th.
                // The address on the wire may differ from ours (a domain in its ASCII form), so the order
                // pairs them, not the text.
                if (m_rcptSent >= 1 && static_cast<size_t>(m_rcptSent) <= m_recipients.size()) {
                    CRecipientReply& recipient = m_recipients[static_cast<size_t>(m_rcptSent - 1)];
                    recipient.code = reply.code;
                    recipient.text = std::move(reply.text);
                }
                break;
            case Command::Mail:
                m_mail = std::move(reply);
                break;
            case Command::Data:
                // 354 asks for the data; the reply after it is the one to the data itself.
                m_command = code == 354 ? Command::DataEnd : Command::None;
                if (code != 354) m_data = std::move(reply);
                break;
            case Command::DataEnd:
                m_command = Command::None;
                m_data = std::move(reply);
                break;
            case Command::Auth:
                if (code != 334) m_command = Command::None;  // 334: a challenge, the exchange goes on
                m_auth = std::move(reply);
                break;
            default:
                break;
        }
    }

    std::vector<CRecipientReply> m_recipients;
    CReply m_auth, m_mail, m_data, m_last;
    Command m_command = Command::None;
    int m_rcptSent = 0;
    std::string m_pending;  // the text of the reply so far
    std::string m_partial;  // a line not yet ended
};

int OnDebug(CURL*, curl_infotype type, char* data, size_t size, void* transcript) {
    auto* talk = static_cast<CSmtpTranscript*>(transcript);
    if (type == CURLINFO_HEADER_OUT)
        talk->CommandSent(std::string_view(data, size));
    else if (type == CURLINFO_HEADER_IN)
        talk->ReplyReceived(std::string_view(data, size));
    return 0;
}

int OnProgress(void* cancel, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    const auto* flag = static_cast<const std::atomic<bool>*>(cancel);
    return flag && flag->load() ? 1 : 0;
}

// Decides the outcome from what the server said and, where it said nothing that decides, from how the
// transfer ended. Only the message itself (5xx to DATA or to the data, a size at MAIL FROM the server never
// takes) and every recipient's own refusal are for good: whatever concerns our account (a log-on refused or
// wanted, a sender address refused) or the connection waits for the profile or the server to be right.
void Classify(const CSmtpTranscript& talk, CURLcode transfer, const char* curlError, CSmtpResult& result) {
    const auto decide = [&](SmtpOutcome outcome, const CReply& reply) {
        result.outcome = outcome;
        result.code = reply.code;
        result.text = reply.text;
    };
    result.signInRefused = transfer == CURLE_LOGIN_DENIED || talk.Auth().code == 535;
    if (talk.Auth().code >= 400) return decide(SmtpOutcome::Temporary, talk.Auth());
    if (talk.Mail().code >= 400)
        return decide(talk.Mail().code == 552 ? SmtpOutcome::Permanent : SmtpOutcome::Temporary, talk.Mail());
    if (talk.Data().code >= 200 && talk.Data().code < 300) return decide(SmtpOutcome::Accepted, talk.Data());
    if (talk.Data().code >= 400)
        return decide(IsPermanentRefusal(talk.Data().code) ? SmtpOutcome::Permanent : SmtpOutcome::Temporary,
                      talk.Data());

    const std::vector<CRecipientReply>& recipients = talk.Recipients();
    const bool noneAccepted = std::all_of(recipients.begin(), recipients.end(),
                                          [](const CRecipientReply& r) { return r.code >= 400; });
    if (noneAccepted && !recipients.empty()) {
        // One refused for now is reason enough to try again; the report waits for the final word.
        const auto temporary =
            std::find_if(recipients.begin(), recipients.end(),
                         [](const CRecipientReply& r) { return !IsPermanentRefusal(r.code); });
        const CRecipientReply& deciding = temporary != recipients.end() ? *temporary : recipients.front();
        return decide(temporary != recipients.end() ? SmtpOutcome::Temporary : SmtpOutcome::Permanent,
                      CReply{deciding.code, deciding.text});
    }

    result.outcome = SmtpOutcome::Temporary;
    // A refusal the transfer ended on (a 421 greeting, say) is the server's word; a lost line has none.
    result.code = talk.Last().code >= 400 ? talk.Last().code : 0;
    result.text = curl_easy_strerror(transfer);
    if (curlError[0]) result.text += std::string(": ") + curlError;
}

long CurlSslLevel(StartTlsPolicy policy) {
    switch (policy) {
        case StartTlsPolicy::Required:
            return CURLUSESSL_ALL;
        case StartTlsPolicy::Optional:
            return CURLUSESSL_TRY;
        case StartTlsPolicy::No:
            break;
    }
    return CURLUSESSL_NONE;
}

// A line break in an address would end the command early and start one of its own.
bool SafeForSmtp(const std::string& address) {
    return address.find_first_of(std::string_view("\r\n\0", 3)) == std::string::npos;
}

CSmtpResult Refused(const std::vector<std::string>& recipients, std::string text) {
    CSmtpResult result;
    result.outcome = SmtpOutcome::Permanent;
    result.text = std::move(text);
    for (const std::string& address : recipients) result.recipients.push_back({address, 0, {}});
    return result;
}

}  // namespace

bool ConcernsAccount(int code) {
    return code == 530 || code == 534 || code == 535 || code == 538;
}

bool IsPermanentRefusal(int code) {
    return code >= 500 && !ConcernsAccount(code);
}

CSmtpResult SubmitBySmtp(const CSmtpSettings& settings, const std::string& password, const std::string& from,
                         const std::vector<std::string>& recipients, std::string_view mime,
                         const std::atomic<bool>* cancel) {
    if (recipients.empty()) return Refused(recipients, "the message has no recipients");
    if (!SafeForSmtp(from) || !std::all_of(recipients.begin(), recipients.end(), SafeForSmtp))
        return Refused(recipients, "an address with a line break cannot be sent");

    InitializeCurl();
    CSmtpResult result;
    const CEasyHandle easy(curl_easy_init());
    if (!easy) {
        result.text = "libcurl cannot start a transfer";
        return result;
    }
    // Bare addresses: libcurl adds the brackets, and puts a domain in its ASCII form when it has to.
    CStringList list;
    for (const std::string& recipient : recipients) {
        curl_slist* head = curl_slist_append(list.get(), recipient.c_str());
        if (!head) {
            result.text = "out of memory";
            return result;
        }
        if (!list) list.reset(head);  // later appends return the same head
    }
    CSmtpTranscript talk(recipients);
    CUpload upload{mime, 0};
    char error[CURL_ERROR_SIZE] = {};

    COptionSetter options(easy.get());
    options.Set(CURLOPT_ERRORBUFFER, error);
    options.Set(CURLOPT_URL, settings.url.c_str());
    // A mistyped URL must not make us speak another protocol to somebody; no scheme means smtp.
#if LIBCURL_VERSION_NUM >= 0x075500
    options.Set(CURLOPT_PROTOCOLS_STR, "smtp,smtps");
#else
    options.Set(CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_SMTP | CURLPROTO_SMTPS));
#endif
    options.Set(CURLOPT_DEFAULT_PROTOCOL, "smtp");
    options.Set(CURLOPT_MAIL_FROM, from.c_str());
    options.Set(CURLOPT_MAIL_RCPT, list.get());
    // One refused recipient does not end the transfer for the others; each one's reply is in the transcript.
    options.Set(kAllowFailingRecipients, 1L);
    options.Set(CURLOPT_UPLOAD, 1L);
    options.Set(CURLOPT_READFUNCTION, ReadUpload);
    options.Set(CURLOPT_READDATA, &upload);
    options.Set(CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(mime.size()));
    options.Set(CURLOPT_UPLOAD_BUFFERSIZE, kUploadBufferBytes);
    // smtps:// is TLS from the first byte whatever this says; for smtp:// it decides on STARTTLS.
    options.Set(CURLOPT_USE_SSL, CurlSslLevel(EffectiveStartTls(settings)));
    options.Set(CURLOPT_SSL_VERIFYPEER, 1L);
    options.Set(CURLOPT_SSL_VERIFYHOST, 2L);
    if (settings.SignsInWithOAuth2()) {
        options.Set(CURLOPT_USERNAME, settings.user.c_str());
        options.Set(CURLOPT_XOAUTH2_BEARER, password.c_str());
    } else if (!settings.user.empty()) {
        options.Set(CURLOPT_USERNAME, settings.user.c_str());
        options.Set(CURLOPT_PASSWORD, password.c_str());
    }
    options.Set(CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
    options.Set(CURLOPT_LOW_SPEED_LIMIT, kLowSpeedBytes);
    options.Set(CURLOPT_LOW_SPEED_TIME, kLowSpeedSeconds);
    options.Set(CURLOPT_NOSIGNAL, 1L);
    // The debug callback is how the server's replies are seen; it needs the verbose mode, and prints nothing.
    options.Set(CURLOPT_VERBOSE, 1L);
    options.Set(CURLOPT_DEBUGFUNCTION, OnDebug);
    options.Set(CURLOPT_DEBUGDATA, &talk);
    options.Set(CURLOPT_NOPROGRESS, 0L);
    options.Set(CURLOPT_XFERINFOFUNCTION, OnProgress);
    options.Set(CURLOPT_XFERINFODATA, cancel);
    if (!settings.caFile.empty()) {
        options.Set(CURLOPT_CAINFO, settings.caFile.c_str());
        // The bundle is the whole trust for this server: else the system's CA folder, libcurl's default
        // path, would be read beside it. Ignored on purpose when it fails: a libcurl without CA folders
        // has none to leave out.
        static_cast<void>(curl_easy_setopt(easy.get(), CURLOPT_CAPATH, static_cast<const char*>(nullptr)));
    }
    if (options.Result() != CURLE_OK) {
        result.text =
            std::string("libcurl cannot be set up for SMTP: ") + curl_easy_strerror(options.Result());
        return result;
    }

    const CURLcode transfer = curl_easy_perform(easy.get());
    result.recipients = talk.Recipients();
    Classify(talk, transfer, error, result);
    return result;
}

}  // namespace velmar::mapi
