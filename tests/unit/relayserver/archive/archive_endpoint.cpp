#include "tests/unit/relayserver/archive/archive_endpoint.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>

#include "tests/unit/relayserver/loopback.h"

namespace {

std::string sLoopbackURL(int fd) {
    return "http://127.0.0.1:" + std::to_string(nLocalPort(fd)) + "/put?feed=1";
}

std::size_t nContentLength(const std::string& sHead) {
    constexpr char achName[] = "Content-Length: ";
    const std::size_t nAt = sHead.find(achName);
    return nAt == std::string::npos
               ? 0
               : std::strtoul(sHead.c_str() + nAt + sizeof achName - 1, nullptr, 10);
}

}  // namespace

ArchiveEndpoint::ArchiveEndpoint() : _fdListen(nOpenLoopbackListener()) {}

ArchiveEndpoint::~ArchiveEndpoint() {
    close(_fdListen);
    if (_fdConnection != -1) {
        close(_fdConnection);
    }
}

std::string ArchiveEndpoint::sURL() const {
    return sLoopbackURL(_fdListen);
}

bool ArchiveEndpoint::bAccept() {
    if (_fdConnection != -1) {
        return true;
    }
    if (bWaitReadable(_fdListen)) {
        _fdConnection = accept4(_fdListen, nullptr, nullptr, SOCK_CLOEXEC);
    }
    return _fdConnection != -1;
}

bool ArchiveEndpoint::bRead(std::string& rsInto, const std::function<bool()>& bComplete) const {
    while (!bComplete()) {
        char achChunk[65536];
        const ssize_t nRead =
            bWaitReadable(_fdConnection) ? recv(_fdConnection, achChunk, sizeof achChunk, 0) : 0;
        if (nRead <= 0) {
            return false;
        }
        rsInto.append(achChunk, static_cast<std::size_t>(nRead));
    }
    return true;
}

ArchiveRequest ArchiveEndpoint::nextRequest() {
    std::string sAll;
    std::size_t nHead = 0;
    const auto bHasHead = [&] {
        constexpr char achEnd[] = "\r\n\r\n";
        nHead = sAll.find(achEnd);
        return nHead != std::string::npos;
    };
    if (!bAccept() || !bRead(sAll, bHasHead)) {
        return {};
    }
    ArchiveRequest request{sAll.substr(0, nHead + 2), sAll.substr(nHead + 4)};
    const std::size_t nBody = nContentLength(request.sHead);
    if (!bRead(request.sBody, [&] { return request.sBody.size() >= nBody; })) {
        return {};
    }
    return request;
}

void ArchiveEndpoint::answer(const std::string& sStatus, const std::string& sHeaders) {
    const std::string sAnswer =
        "HTTP/1.1 " + sStatus + "\r\n" + sHeaders + "Content-Length: 0\r\n\r\n";
    (void)send(_fdConnection, sAnswer.data(), sAnswer.size(), MSG_NOSIGNAL);
}

std::string ArchiveEndpoint::sNextBody() {
    const ArchiveRequest request = nextRequest();
    answer("200 OK");
    return request.sBody;
}

bool ArchiveEndpoint::bQuiet() const {
    pollfd apfd[] = {{_fdListen, POLLIN, 0}, {_fdConnection, POLLIN, 0}};
    return poll(apfd, 2, 0) == 0;
}

bool bComesTrue(const std::function<bool()>& bCondition) {
    const auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!bCondition()) {
        if (std::chrono::steady_clock::now() > tEnd) {
            return false;
        }
        poll(nullptr, 0, 1);
    }
    return true;
}

RefusingPort::RefusingPort() : _fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in siAddress{};
    siAddress.sin_family = AF_INET;
    siAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(_fd, reinterpret_cast<const sockaddr*>(&siAddress), sizeof siAddress);  // and no listen
}

RefusingPort::~RefusingPort() {
    close(_fd);
}

std::string RefusingPort::sURL() const {
    return sLoopbackURL(_fd);
}
