#include "tests/unit/poster/http_text.h"

#include <openssl/evp.h>
#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace {

constexpr char kLineEnd[] = "\r\n";

std::string sMd5(const std::string& sText) {
    unsigned char achDigest[EVP_MAX_MD_SIZE];
    unsigned nDigest = 0;
    EVP_Digest(sText.data(), sText.size(), achDigest, &nDigest, EVP_md5(), nullptr);
    static constexpr char kHex[] = "0123456789abcdef";
    std::string sHex;
    for (unsigned i = 0; i < nDigest; ++i) {
        sHex += {kHex[achDigest[i] >> 4], kHex[achDigest[i] & 15]};
    }
    return sHex;
}

}  // namespace

int HttpRequest::nHeaders(const std::string& sName) const {
    return static_cast<int>(std::count_if(headers.begin(), headers.end(), [&](const auto& header) {
        return strcasecmp(header.first.c_str(), sName.c_str()) == 0;
    }));
}

std::string HttpRequest::sHeader(const std::string& sName) const {
    for (const auto& [sHeaderName, sValue] : headers) {
        if (strcasecmp(sHeaderName.c_str(), sName.c_str()) == 0) {
            return sValue;
        }
    }
    return "";
}

std::size_t nHeadLength(const std::string& sInput) {
    const std::size_t nEnd = sInput.find("\r\n\r\n");
    return nEnd == std::string::npos ? 0 : nEnd + 4;
}

HttpRequest parsedHead(const std::string& sHead) {
    HttpRequest request;
    std::size_t nLine = sHead.find(kLineEnd);
    std::istringstream(sHead.substr(0, nLine)) >> request.sMethod >> request.sTarget;
    for (nLine += 2; nLine < sHead.size();) {
        const std::size_t nEnd = sHead.find(kLineEnd, nLine);
        const std::size_t nColon = sHead.find(": ", nLine);
        if (nColon < nEnd) {
            request.headers.emplace_back(sHead.substr(nLine, nColon - nLine),
                                         sHead.substr(nColon + 2, nEnd - nColon - 2));
        }
        nLine = nEnd + 2;
    }
    return request;
}

std::size_t nContentLength(const HttpRequest& request) {
    return std::strtoul(request.sHeader("Content-Length").c_str(), nullptr, 10);
}

std::string sParameter(const std::string& sHeader, const std::string& sName) {
    std::size_t n = sHeader.find(' ' + sName + '=');
    if (n == std::string::npos) {
        return "";
    }
    n += sName.size() + 2;
    const bool bQuoted = sHeader[n] == '"';
    n += bQuoted ? 1 : 0;
    return sHeader.substr(n, sHeader.find(bQuoted ? '"' : ',', n) - n);
}

std::string sDigestResponse(const HttpRequest& request, const std::string& sAuthorization,
                            const std::string& sPassword) {
    const auto sValue = [&](const char* achName) { return sParameter(sAuthorization, achName); };
    const std::string sWho = sMd5(sValue("username") + ':' + sValue("realm") + ':' + sPassword);
    const std::string sWhat = sMd5(request.sMethod + ':' + request.sTarget);
    return sMd5(sWho + ':' + sValue("nonce") + ':' + sValue("nc") + ':' + sValue("cnonce") + ':' +
                sValue("qop") + ':' + sWhat);
}
