// libcurl for our MAPI's own transfers (SMTP submission, the OAuth2 token requests): handles in holders,
// the one global start, and options set one after the other with the first refusal kept.
#pragma once

#include <curl/curl.h>

#include <memory>
#include <string>

namespace velmar::mapi {

struct CEasyDeleter {
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct CListDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using CEasyHandle = std::unique_ptr<CURL, CEasyDeleter>;
using CStringList = std::unique_ptr<curl_slist, CListDeleter>;

// curl_global_init, once per process, before the first handle.
void InitializeCurl();

// text percent-encoded for a URL's query or a form (RFC 3986 unreserved characters stay).
std::string UrlEncoded(const std::string& text);

// Sets options one after the other and keeps the first refusal, so one check after them all will do.
class COptionSetter {
public:
    explicit COptionSetter(CURL* easy) : m_easy(easy) {}
    template <typename T>
    void Set(CURLoption option, T value) {
        if (m_result == CURLE_OK) m_result = curl_easy_setopt(m_easy, option, value);
    }
    CURLcode Result() const { return m_result; }

private:
    CURL* m_easy;
    CURLcode m_result = CURLE_OK;
};

}  // namespace velmar::mapi
