// The key file is a bare RSA key: the network requires it.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "bench/load/server_stand_in.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

#include "bench/load/give_up.h"
#include "genner/output/ChallengeNetMessage.h"
#include "genner/output/ConnectConfirmNetMessage.h"
#include "genner/output/HeartbeatNetMessage.h"
#include "genner/output/LogInNetMessage.h"
#include "genner/output/RelayPortNetMessage.h"
#include "genner/output/ResponseNetMessage.h"
#include "genner/output/RoutingUpdateNetMessage.h"
#include "genner/output/message_types.h"
#include "orvex/rsa_decrypter_impl.h"

namespace Load {

namespace {

constexpr std::uint16_t kServerPort = 9736;
constexpr int kChallenge = 4711;
constexpr unsigned kRelayId = 1000;
constexpr int kTimeoutMs = 15000;
/// Route orders for many receivers are written at once.
constexpr int kSendBuffer = 4 << 20;

void awaitReadable(int fd, const char* sWhat) {
    pollfd pfd{fd, POLLIN, 0};
    if (poll(&pfd, 1, kTimeoutMs) != 1) {
        giveUp("the relay does not %s", sWhat);
    }
}

bool bIsOfType(const Orvex::NetMessage& message, long lType) {
    return message.GetNetMsgType() == lType;
}

}  // namespace

ServerStandIn::ServerStandIn(const std::string& sKeyFile) {
    FILE* const pFile = std::fopen(sKeyFile.c_str(), "rb");
    if (pFile != nullptr) {
        pPrivateKey = PEM_read_RSAPrivateKey(pFile, nullptr, nullptr, nullptr);
        std::fclose(pFile);
    }
    if (pPrivateKey == nullptr) {
        giveUp("no private key of the connection server in '%s'", sKeyFile.c_str());
    }
}

ServerStandIn::~ServerStandIn() {
    RSA_free(pPrivateKey);
    for (const int fd : {fdListener, msRelay.getMsgSockFileDesc()}) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

void ServerStandIn::listenAt(const std::string& sAddress) {
    sockaddr_in siServer{};
    siServer.sin_family = AF_INET;
    siServer.sin_port = htons(kServerPort);
    fdListener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int nYes = 1;
    (void)setsockopt(fdListener, SOL_SOCKET, SO_REUSEADDR, &nYes, sizeof nYes);
    if (inet_pton(AF_INET, sAddress.c_str(), &siServer.sin_addr) != 1 ||
        bind(fdListener, reinterpret_cast<sockaddr*>(&siServer), sizeof siServer) != 0 ||
        listen(fdListener, 8) != 0) {
        giveUp("the connection server cannot listen on '%s'", sAddress.c_str());
    }
}

void ServerStandIn::acceptConnection() {
    awaitReadable(fdListener, "connect to its connection server");
    sockaddr_in siRelay{};
    socklen_t nLen = sizeof siRelay;
    const int fd = accept4(fdListener, reinterpret_cast<sockaddr*>(&siRelay), &nLen, SOCK_NONBLOCK);
    if (fd < 0) {
        giveUp("the relay's connection was lost");
    }
    (void)setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
    msRelay = Orvex::RelayMessageSocket(fd, siRelay);
}

void ServerStandIn::awaitRelay() {
    awaitLogIn();
    (void)acceptLogIn();  // a relay that has just started has no clients to report
}

void ServerStandIn::awaitLogIn() {
    acceptConnection();
    Orvex::ChallengeNetMessage challenge(kChallenge);
    send(challenge);
    readUntil(Orvex::LogInNetMessage::nTYPE,
              [this](const char* pImage, int nLen) { takeLogIn(pImage, nLen); });
}

std::vector<unsigned> ServerStandIn::acceptLogIn() {
    Orvex::ResponseNetMessage response(kRelayId, rcOK);
    send(response);
    std::vector<unsigned> named;
    readUntil(Orvex::RelayPortNetMessage::nTYPE, [&named](const char* pImage, int nLen) {
        const Orvex::ConnectConfirmNetMessage confirm(pImage, nLen);
        if (bIsOfType(confirm, Orvex::ConnectConfirmNetMessage::nTYPE)) {
            named.push_back(static_cast<unsigned>(confirm.GetClientID()));
        }
    });
    return named;
}

void ServerStandIn::readUntil(long lType, const std::function<void(const char*, int)>& take) {
    bool bDone = false;
    while (!bDone) {
        awaitReadable(msRelay.getMsgSockFileDesc(), "log in");
        if (msRelay.nReadNonBlockingSocket() < 0) {
            giveUp("the relay disconnected during its log-in");
        }
        while (const auto image = msRelay.input().dequeueView()) {
            const auto nLen = static_cast<int>(image->size());
            take(image->data(), nLen);
            bDone = bDone || bIsOfType(Orvex::NetMessage(image->data(), nLen), lType);
        }
    }
}

void ServerStandIn::takeLogIn(const char* pImage, int nLen) {
    Orvex::LogInNetMessage logIn(pImage, nLen);
    if (!bIsOfType(logIn, Orvex::LogInNetMessage::nTYPE)) {
        return;
    }
    Orvex::RSADecrypterImpl decrypter(pPrivateKey);
    if (!logIn.RSADecrypt(&decrypter) || logIn.GetLoginNumber() != kChallenge) {
        giveUp("the relay's log-in cannot be read; does it have the right public key?");
    }
    logIn.GetClientDESKey(achDesKey.data());
}

void ServerStandIn::resetLink() {
    const linger resetIt{1, 0};
    const int fd = msRelay.getMsgSockFileDesc();
    (void)setsockopt(fd, SOL_SOCKET, SO_LINGER, &resetIt, sizeof resetIt);
    close(fd);
    msRelay = Orvex::RelayMessageSocket();
}

void ServerStandIn::send(Orvex::NetMessage& rMessage) {
    if (rMessage.Send(true, msRelay) < 1) {
        giveUp("the relay does not read from its connection server");
    }
}

Orvex::RelayConnectNetMessage ServerStandIn::ticketFor(unsigned nClientId) const {
    return makeTicketMessage(nClientId, achDesKey);
}

void ServerStandIn::addRoute(unsigned nFromId, unsigned nToId, int nMsgClass) {
    Orvex::RoutingUpdateNetMessage update(rcConnect, nFromId, nToId, nMsgClass);
    send(update);
}

void ServerStandIn::sendHeartbeat() {
    Orvex::HeartbeatNetMessage heartbeat;
    send(heartbeat);
}

void ServerStandIn::readAll() {
    while (true) {
        const int nRead = msRelay.nReadNonBlockingSocket();
        if (nRead < 0) {
            giveUp("the relay disconnected from its connection server");
        }
        while (msRelay.input().dequeueView()) {
        }
        if (nRead == 0) {
            return;
        }
    }
}

}  // namespace Load
