/// The part of HTTP that the scripted endpoint understands.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

/// A request as received.
struct HttpRequest {
    std::string sMethod;
    std::string sTarget;
    /// Names, as written, and values.
    std::vector<std::pair<std::string, std::string>> headers;
    std::string sBody;
    /// Which connection brought it; the endpoint's first is 1.
    int nConnection = 0;

    /// The number of headers with that name, in any case.
    [[nodiscard]] int nHeaders(const std::string& sName) const;
    /// The value of the first header of that name; empty without one.
    [[nodiscard]] std::string sHeader(const std::string& sName) const;
};

/// The length of the request line, the headers and the empty line after them; 0 while they are
/// incomplete.
std::size_t nHeadLength(const std::string& sInput);

/// Parses request line and headers. Malformed parts stay empty.
HttpRequest parsedHead(const std::string& sHead);

/// The length of the body that follows; 0 if the headers do not give one.
std::size_t nContentLength(const HttpRequest& request);

/// One value of a header like `Digest username="u", nc=00000001`, without quotes.
std::string sParameter(const std::string& sHeader, const std::string& sName);

/// The hash of RFC 2617 ("auth", MD5) that answers a challenge: what "response" in
/// `sAuthorization` must be for this request.
std::string sDigestResponse(const HttpRequest& request, const std::string& sAuthorization,
                            const std::string& sPassword);
