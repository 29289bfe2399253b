#include "mapi/spool/SmtpSubmission.h"

#include <curl/curl.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>

namespace velmar::mapi {
namespace {

constexpr long kConnectSeconds = 30;
// A server that takes less than a byte a second for a minute is gone.
constexpr long kLowSpeedBytes = 1;
constexpr long kLowSpeedSeconds = 60;
// Large messages go up in large pieces: the default of 64 KB costs a system call and a callback each.
constexpr long kUploadBufferBytes = 512 * 1024;

struct CEasyDeleter {
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct CListDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

// What goes up: the message, read out in place.
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

// The conversation as the server answers it: each reply matched with the command it answers.
class CConversation {
public:
    explicit CConversation(const std::vector<std::string>& recipients) {
        for (const std::string& address : recipients) m_recipients.push_back({address, 0, {}});
    }

    void Sent(std::string_view command) {
        m_pending.clear();
        if (StartsWithNoCase(command, "RCPT TO:")) {
            m_command = Command::Rcpt;
            ++m_rcptIndex;
        } else if (StartsWithNoCase(command, "MAIL FROM:")) {
            m_command = Command::Mail;
        } else if (StartsWithNoCase(command, "DATA")) {
            m_command = Command::Data;
        } else if (StartsWithNoCase(command, "AUTH") || m_command == Command::Auth) {
            m_command = Command::Auth;
        } else {
            m_command = Command::Other;
        }
    }

    // Lines of a reply as the server sends them; "250-" goes on, "250 " ends it.
    void Received(std::string_view text) {
        while (!text.empty()) {
            const size_t end = text.find('\n');
            std::string_view line = text.substr(0, end);
            text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
            if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
            if (line.size() < 3) continue;
            if (!m_pending.empty()) m_pending += ' ';
            m_pending += line.size() > 4 ? line.substr(4) : std::string_view();
            if (line.size() == 3 || line[3] != '-')
                Complete(std::atoi(std::string(line.substr(0, 3)).c_str()));
        }
    }

    std::vector<CRecipientReply> m_recipients;
    int m_mailCode = 0, m_dataCode = 0, m_authCode = 0, m_lastCode = 0;
    std::string m_mailText, m_dataText, m_authText, m_lastText;

private:
    enum class Command { None, Mail, Rcpt, Data, DataEnd, Auth, Other };

    static bool StartsWithNoCase(std::string_view text, std::string_view prefix) {
        return text.size() >= prefix.size() &&
               std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) {
                   return std::toupper(static_cast<unsigned char>(a)) ==
                          std::toupper(static_cast<unsigned char>(b));
               });
    }

    void Complete(int code) {
        m_lastCode = code;
        m_lastText = m_pending;
        switch (m_command) {
            case Command::Rcpt:
                if (m_rcptIndex >= 0 && static_cast<size_t>(m_rcptIndex) < m_recipients.size()) {
                    m_recipients[static_cast<size_t>(m_rcptIndex)].code = code;
                    m_recipients[static_cast<size_t>(m_rcptIndex)].text = m_pending;
                }
                break;
            case Command::Mail:
                m_mailCode = code;
                m_mailText = m_pending;
                break;
            case Command::Data:
                // 354 asks for the data; the reply after it is the one to the data itself.
                if (code == 354) {
                    m_command = Command::DataEnd;
                    m_pending.clear();
                    return;
                }
                m_dataCode = code;
                m_dataText = m_pending;
                break;
            case Command::DataEnd:
                m_dataCode = code;
                m_dataText = m_pending;
                break;
            case Command::Auth:
                m_authCode = code;
                m_authText = m_pending;
                break;
            default:
                break;
        }
        m_pending.clear();
        if (m_command == Command::DataEnd || m_command == Command::Data) m_command = Command::None;
    }

    Command m_command = Command::None;
    int m_rcptIndex = -1;
    std::string m_pending;
};

int Debug(CURL*, curl_infotype type, char* data, size_t size, void* conversation) {
    auto* talk = static_cast<CConversation*>(conversation);
    if (type == CURLINFO_HEADER_OUT)
        talk->Sent(std::string_view(data, size));
    else if (type == CURLINFO_HEADER_IN)
        talk->Received(std::string_view(data, size));
    return 0;
}

int Progress(void* cancel, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    const auto* flag = static_cast<const std::atomic<bool>*>(cancel);
    return flag && flag->load() ? 1 : 0;
}

void InitializeCurl() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

std::string Bracketed(const std::string& address) {
    return "<" + address + ">";
}

// Decides the outcome from what the server said and how the transfer ended.
void Classify(const CConversation& talk, CURLcode code, const char* curlError, CSmtpResult& result) {
    const auto set = [&](SmtpOutcome outcome, int reply, const std::string& text) {
        result.outcome = outcome;
        result.code = reply;
        result.text = text;
    };
    if (talk.m_authCode >= 500 || code == CURLE_LOGIN_DENIED)
        return set(SmtpOutcome::Permanent, talk.m_authCode ? talk.m_authCode : 535,
                   talk.m_authText.empty() ? curlError : talk.m_authText);
    if (talk.m_mailCode >= 400)
        return set(talk.m_mailCode >= 500 ? SmtpOutcome::Permanent : SmtpOutcome::Temporary, talk.m_mailCode,
                   talk.m_mailText);
    if (talk.m_dataCode >= 200 && talk.m_dataCode < 300)
        return set(SmtpOutcome::Accepted, talk.m_dataCode, talk.m_dataText);
    if (talk.m_dataCode >= 400)
        return set(talk.m_dataCode >= 500 ? SmtpOutcome::Permanent : SmtpOutcome::Temporary, talk.m_dataCode,
                   talk.m_dataText);
    const bool allAnswered = std::all_of(result.recipients.begin(), result.recipients.end(),
                                         [](const CRecipientReply& r) { return r.code >= 400; });
    if (allAnswered && !result.recipients.empty()) {
        const bool allPermanent = std::all_of(result.recipients.begin(), result.recipients.end(),
                                              [](const CRecipientReply& r) { return r.code >= 500; });
        const CRecipientReply& first = result.recipients.front();
        return set(allPermanent ? SmtpOutcome::Permanent : SmtpOutcome::Temporary, first.code, first.text);
    }
    set(SmtpOutcome::Temporary, talk.m_lastCode >= 400 ? talk.m_lastCode : 0,
        std::string(curl_easy_strerror(code)) +
            (curlError[0] ? std::string(": ") + curlError : std::string()));
}

}  // namespace

CSmtpResult SubmitBySmtp(const CSmtpSettings& settings, const std::string& password, const std::string& from,
                         const std::vector<std::string>& recipients, std::string_view mime,
                         const std::atomic<bool>* cancel) {
    InitializeCurl();
    CSmtpResult result;
    std::unique_ptr<CURL, CEasyDeleter> easy(curl_easy_init());
    if (!easy) {
        result.text = "libcurl cannot start a transfer";
        return result;
    }
    curl_slist* rawList = nullptr;
    for (const std::string& recipient : recipients) {
        curl_slist* grown = curl_slist_append(rawList, Bracketed(recipient).c_str());
        if (!grown) {
            curl_slist_free_all(rawList);
            result.text = "out of memory";
            return result;
        }
        rawList = grown;
    }
    const std::unique_ptr<curl_slist, CListDeleter> list(rawList);
    CConversation talk(recipients);
    CUpload upload{mime, 0};
    char error[CURL_ERROR_SIZE] = {};
    const std::string sender = Bracketed(from);
    CURL* handle = easy.get();
    curl_easy_setopt(handle, CURLOPT_URL, settings.url.c_str());
    curl_easy_setopt(handle, CURLOPT_MAIL_FROM, sender.c_str());
    curl_easy_setopt(handle, CURLOPT_MAIL_RCPT, list.get());
    // Each refused recipient is refused alone; its reply is read off the conversation.
    curl_easy_setopt(handle, CURLOPT_MAIL_RCPT_ALLLOWFAILS, 1L);
    curl_easy_setopt(handle, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(handle, CURLOPT_READFUNCTION, ReadUpload);
    curl_easy_setopt(handle, CURLOPT_READDATA, &upload);
    curl_easy_setopt(handle, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(mime.size()));
    curl_easy_setopt(handle, CURLOPT_UPLOAD_BUFFERSIZE, kUploadBufferBytes);
    const StartTlsPolicy tls = EffectiveStartTls(settings);
    curl_easy_setopt(handle, CURLOPT_USE_SSL,
                     tls == StartTlsPolicy::Required   ? static_cast<long>(CURLUSESSL_ALL)
                     : tls == StartTlsPolicy::Optional ? static_cast<long>(CURLUSESSL_TRY)
                                                       : static_cast<long>(CURLUSESSL_NONE));
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!settings.caFile.empty()) curl_easy_setopt(handle, CURLOPT_CAINFO, settings.caFile.c_str());
    if (!settings.user.empty()) {
        curl_easy_setopt(handle, CURLOPT_USERNAME, settings.user.c_str());
        curl_easy_setopt(handle, CURLOPT_PASSWORD, password.c_str());
    }
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, kLowSpeedBytes);
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, kLowSpeedSeconds);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, error);
    curl_easy_setopt(handle, CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(handle, CURLOPT_DEBUGFUNCTION, Debug);
    curl_easy_setopt(handle, CURLOPT_DEBUGDATA, &talk);
    curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, Progress);
    curl_easy_setopt(handle, CURLOPT_XFERINFODATA, cancel);
    const CURLcode code = curl_easy_perform(handle);
    result.recipients = talk.m_recipients;
    Classify(talk, code, error, result);
    return result;
}

}  // namespace velmar::mapi
