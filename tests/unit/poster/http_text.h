/// The little of HTTP that the scripted endpoint reads.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

/// A request as it came.
struct HttpRequest {
    std::string sMethod;
    std::string sTarget;
    /// Names as they were written, and values.
    std::vector<std::pair<std::string, std::string>> headers;
    std::string sBody;
    /// Which connection brought it; the endpoint's first is 1.
    int nConnection = 0;

    /// How often there is a header of that name, in whatever case.
    [[nodiscard]] int nHeaders(const std::string& sName) const;
    /// The value of the first header of that name; empty without one.
    [[nodiscard]] std::string sHeader(const std::string& sName) const;
};

/// Length of the request line and the headers with the empty line behind them; 0 when they have not
/// all come.
std::size_t nHeadLength(const std::string& sInput);

/// Reads request line and headers. What has not their form stays empty.
HttpRequest parsedHead(const std::string& sHead);

/// Length of the body that follows; 0 when the head does not say.
std::size_t nContentLength(const HttpRequest& request);

/// One value of a header like `Digest username="u", nc=00000001`, without quotes.
std::string sParameter(const std::string& sHeader, const std::string& sName);

/// The hash of RFC 2617 ("auth", MD5) that answers a challenge: what the "response" of
/// `sAuthorization` has to be for this request.
std::string sDigestResponse(const HttpRequest& request, const std::string& sAuthorization,
                            const std::string& sPassword);
