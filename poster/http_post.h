/// One libcurl handle that posts texts to one HTTP address, over a connection that stays open
/// between them. Used by one thread at a time.
#pragma once

#include <curl/curl.h>

#include <functional>
#include <memory>
#include <string>

/// The result of a request.
struct PostResult {
    /// CURLE_OK when an answer came.
    CURLcode nCurlCode = CURLE_OK;
    /// The answer's status code; 0 without an answer.
    long nHttpCode = 0;
};

class HttpPost {
  public:
    /// Called with each piece of the answer's body.
    using body_sink_t = std::function<void(const char* bytes, std::size_t nBytes)>;

    /// Opens a new handle, without authentication, for the HTTP or HTTPS address `achURL`, which is
    /// not checked yet. The time-out for connecting is 15 s, for a whole request 60 s. Returns
    /// false, with no handle open, if libcurl fails.
    [[nodiscard]] bool bOpen(const char* achURL);

    /// Whether there is an open handle.
    [[nodiscard]] bool bIsOpen() const { return _capCurl != nullptr; }

    /// Sets the address for the next requests. Needs an open handle.
    void setURL(const char* achURL);

    /// Sets "user:password" for digest authentication of the next requests. Needs an open handle.
    void setDigestAuth(const char* achUserPwd);

    /// Posts `sPayload` as media type `sContentType` and waits for the answer, whose body goes to
    /// `takeBody`. Without an open handle the result is CURLE_URL_MALFORMAT. If the calling thread,
    /// a boost::thread, is interrupted, the request is aborted within a second, and the result is
    /// CURLE_ABORTED_BY_CALLBACK.
    [[nodiscard]] PostResult perform(const std::string& sPayload, const std::string& sContentType,
                                     const body_sink_t& takeBody);

  private:
    struct CurlCleanup {
        void operator()(CURL* pCurl) const { curl_easy_cleanup(pCurl); }
    };
    std::unique_ptr<CURL, CurlCleanup> _capCurl;
};
