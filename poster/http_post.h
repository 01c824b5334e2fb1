/// One libcurl handle that posts texts to one HTTP address, over a connection that stays open from
/// one text to the next. Used by one thread at a time.
#pragma once

#include <curl/curl.h>

#include <functional>
#include <memory>
#include <string>

/// What became of a request.
struct PostResult {
    /// CURLE_OK when an answer came.
    CURLcode nCurlCode = CURLE_OK;
    /// The answer's status code; 0 without an answer.
    long nHttpCode = 0;
};

class HttpPost {
  public:
    /// Takes one piece of the answer's body.
    using body_sink_t = std::function<void(const char* bytes, std::size_t nBytes)>;

    /// Begins anew, without authentication, for the address `achURL` of HTTP or HTTPS. Connecting
    /// may take 15 s, a request 60 s in all. False, and nothing is open, when libcurl refuses.
    [[nodiscard]] bool bOpen(const char* achURL);

    [[nodiscard]] bool bIsOpen() const { return _capCurl != nullptr; }

    /// From now on the address is `achURL`. Needs an open handle.
    void setURL(const char* achURL);

    /// From now on authenticates by digest as "user:password". Needs an open handle.
    void setDigestAuth(const char* achUserPwd);

    /// Posts `sPayload` and waits for the answer, whose body goes to `takeBody`. Without an open
    /// handle there is no address: CURLE_URL_MALFORMAT. When the calling thread, a boost::thread,
    /// is interrupted, the request is abandoned within a second: CURLE_ABORTED_BY_CALLBACK.
    [[nodiscard]] PostResult perform(const std::string& sPayload, const std::string& sContentType,
                                     const body_sink_t& takeBody);

  private:
    struct CurlCleanup {
        void operator()(CURL* pCurl) const { curl_easy_cleanup(pCurl); }
    };
    std::unique_ptr<CURL, CurlCleanup> _capCurl;
};
