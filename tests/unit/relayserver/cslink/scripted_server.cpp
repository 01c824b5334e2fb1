#include "tests/unit/relayserver/cslink/scripted_server.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/ip_utils.h"
#include "tests/unit/relayserver/cslink/test_keys.h"

namespace {

constexpr int kDeadlineMillis = 5000;
constexpr unsigned short kConnServPort = 9736;

bool bReadable(int fd) {
    pollfd pfd{fd, POLLIN, 0};
    return poll(&pfd, 1, kDeadlineMillis) == 1;
}

}  // namespace

std::string sOwnLoopbackAddress() {
    const int nProcess = getpid();
    return "127." + std::to_string(64 + nProcess / 62500 % 64) + "." +
           std::to_string(1 + nProcess / 250 % 250) + "." + std::to_string(1 + nProcess % 250);
}

ScriptedServer::ScriptedServer(bool bAnyPort)
    : _sAddress(sOwnLoopbackAddress()), _fd(socket(AF_INET, SOCK_STREAM, 0)) {
    const int nOn = 1;
    EXPECT_EQ(0, setsockopt(_fd, SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof nOn));
    sockaddr_in siLocal{};
    siLocal.sin_family = AF_INET;
    siLocal.sin_port = htons(bAnyPort ? 0 : kConnServPort);
    EXPECT_TRUE(bParseIPv4(_sAddress, siLocal.sin_addr));
    EXPECT_EQ(0, bind(_fd, reinterpret_cast<const sockaddr*>(&siLocal), sizeof siLocal));
    EXPECT_EQ(0, listen(_fd, 4));
    socklen_t nLen = sizeof siLocal;
    EXPECT_EQ(0, getsockname(_fd, reinterpret_cast<sockaddr*>(&siLocal), &nLen));
    _nPort = ntohs(siLocal.sin_port);
}

ScriptedServer::~ScriptedServer() {
    close(_fd);
}

Peer ScriptedServer::acceptRelay() const {
    EXPECT_TRUE(bReadable(_fd)) << "the relay does not connect";
    fcntl(_fd, F_SETFL, O_NONBLOCK);
    const int fdRelay = accept(_fd, nullptr, nullptr);
    EXPECT_LE(0, fdRelay);
    return Peer(fdRelay);
}

bool bWaitForInput(const Peer& rPeer) {
    return bReadable(rPeer.fd());
}

std::vector<std::string> waitForImages(const Peer& rPeer, size_t nFrames) {
    std::vector<std::string> found;
    std::string sAll;
    while (found.size() < nFrames && bWaitForInput(rPeer)) {
        const std::string sPart = rPeer.sReceived();
        if (sPart.empty()) {
            break;  // the relay has closed
        }
        sAll += sPart;
        while (!sAll.empty() && sAll.size() >= 2U * static_cast<unsigned char>(sAll[0])) {
            const size_t nFrame = 2U * static_cast<unsigned char>(sAll[0]);
            found.push_back(sAll.substr(1, nFrame - 1));
            sAll.erase(0, nFrame);
        }
    }
    EXPECT_EQ(nFrames, found.size());
    found.resize(nFrames);
    return found;
}

TlsEnd::TlsEnd(const Peer& rPeer) {
    SSL_CTX* const pContext = newServerContext();
    _pSession = SSL_new(pContext);
    SSL_CTX_free(pContext);
    EXPECT_EQ(0, fcntl(rPeer.fd(), F_SETFL, O_NONBLOCK));
    EXPECT_EQ(1, SSL_set_fd(_pSession, rPeer.fd()));
    SSL_set_accept_state(_pSession);
}

TlsEnd::~TlsEnd() {
    SSL_free(_pSession);
}

bool TlsEnd::bStepAccept() {
    return SSL_do_handshake(_pSession) == 1;
}

void TlsEnd::sendBytes(const std::string& sBytes) {
    EXPECT_EQ(static_cast<int>(sBytes.size()),
              SSL_write(_pSession, sBytes.data(), static_cast<int>(sBytes.size())));
}

std::string TlsEnd::sReceived() {
    std::string sAll;
    char achChunk[4096];
    int nRead = 0;
    while ((nRead = SSL_read(_pSession, achChunk, sizeof achChunk)) > 0) {
        sAll.append(achChunk, static_cast<size_t>(nRead));
    }
    return sAll;
}
