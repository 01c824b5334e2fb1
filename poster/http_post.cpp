#include "poster/http_post.h"

#include <boost/thread/thread.hpp>

namespace {

constexpr long kConnectTimeOutSecs = 15;
constexpr long kRequestTimeOutSecs = 60;

struct HeaderListFree {
    void operator()(curl_slist* pList) const { curl_slist_free_all(pList); }
};
using header_list_t = std::unique_ptr<curl_slist, HeaderListFree>;

std::size_t passBodyOn(char* bytes, std::size_t nSize, std::size_t nCount, void* pSink) {
    (*static_cast<const HttpPost::body_sink_t*>(pSink))(bytes, nSize * nCount);
    return nSize * nCount;
}

/// libcurl calls this at least once a second, whatever it is waiting for.
int nAbortWhenInterrupted(void* /*pUnused*/, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return boost::this_thread::interruption_requested() ? 1 : 0;
}

void setFixedOptions(CURL* pCurl) {
    curl_easy_setopt(pCurl, CURLOPT_POST, 1L);
    curl_easy_setopt(pCurl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(pCurl, CURLOPT_CONNECTTIMEOUT, kConnectTimeOutSecs);
    curl_easy_setopt(pCurl, CURLOPT_TIMEOUT, kRequestTimeOutSecs);
    // A mistyped address must not make libcurl write to a file or contact a mail server.
    curl_easy_setopt(pCurl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(pCurl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(pCurl, CURLOPT_XFERINFOFUNCTION, nAbortWhenInterrupted);
    // An aborted request must not wait for the name server.
    curl_easy_setopt(pCurl, CURLOPT_QUICK_EXIT, 1L);
    curl_easy_setopt(pCurl, CURLOPT_WRITEFUNCTION, passBodyOn);
}

}  // namespace

bool HttpPost::bOpen(const char* achURL) {
    _capCurl.reset(curl_easy_init());
    if (!_capCurl) {
        return false;
    }
    setFixedOptions(_capCurl.get());
    setURL(achURL);
    return true;
}

void HttpPost::setURL(const char* achURL) {
    curl_easy_setopt(_capCurl.get(), CURLOPT_URL, achURL);
}

void HttpPost::setDigestAuth(const char* achUserPwd) {
    curl_easy_setopt(_capCurl.get(), CURLOPT_HTTPAUTH, CURLAUTH_DIGEST);
    curl_easy_setopt(_capCurl.get(), CURLOPT_USERPWD, achUserPwd);
}

PostResult HttpPost::perform(const std::string& sPayload, const std::string& sContentType,
                             const body_sink_t& takeBody) {
    if (!_capCurl) {
        return {CURLE_URL_MALFORMAT, 0};
    }
    CURL* const pCurl = _capCurl.get();
    const std::string sHeader = "Content-type: " + sContentType + "; charset=utf-8";
    const header_list_t pHeaders(curl_slist_append(nullptr, sHeader.c_str()));
    curl_easy_setopt(pCurl, CURLOPT_HTTPHEADER, pHeaders.get());
    curl_easy_setopt(pCurl, CURLOPT_POSTFIELDS, sPayload.c_str());
    curl_easy_setopt(pCurl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(sPayload.size()));
    curl_easy_setopt(pCurl, CURLOPT_WRITEDATA, &takeBody);
    PostResult result;
    result.nCurlCode = curl_easy_perform(pCurl);
    if (result.nCurlCode == CURLE_OK) {
        curl_easy_getinfo(pCurl, CURLINFO_RESPONSE_CODE, &result.nHttpCode);
    }
    // These are not valid after this call, but the handle is.
    curl_easy_setopt(pCurl, CURLOPT_HTTPHEADER, nullptr);
    curl_easy_setopt(pCurl, CURLOPT_POSTFIELDS, nullptr);
    curl_easy_setopt(pCurl, CURLOPT_WRITEDATA, nullptr);
    return result;
}
