#include "relayserver/cslink/link_state.h"

#include "base/clock.h"
#include "connserver/logging.h"
#include "relayserver/sockets/epoll_set.h"

namespace {

constexpr unsigned kLeastSecsBetweenAttempts = 1;

}  // namespace

connection_stage_t nConnectionStage = CONNECTION_IDLE;
std::string sLastServer;
int connserv_sockfd = 0;
SSL* connserv_ssl = nullptr;
Orvex::RelayMessageSocket msConnServMsgSock;
bool bMarkedBroken = false;
int nLastChallenge = 0;
bool bLoginContinue = false;
bool bAccepting = true;
std::time_t ttLastConnServMsg = nowSecs();
std::time_t ttLastCSConnectAttempt = nowSecs();
std::time_t ttConnectLost = 0;
unsigned connectRetry_secs = kLeastSecsBetweenAttempts;

void enterStage(connection_stage_t stage) {
    nConnectionStage = stage;
}

void adoptSocket(int fd, const sockaddr_in& siServer) {
    connserv_sockfd = fd;
    msConnServMsgSock = Orvex::RelayMessageSocket(fd, siServer);
    nConnectionStage = WAITING_FOR_CONNECT;
}

void adoptSession(SSL* pSSL) {
    sockaddr_in siServer{};
    msConnServMsgSock.GetAddress(siServer);
    connserv_ssl = pSSL;
    msConnServMsgSock = Orvex::RelayMessageSocket(connserv_sockfd, siServer, pSSL);
}

void noteAttempt(std::time_t ttNow) {
    ttLastCSConnectAttempt = ttNow;
}

void noteServerHeard(std::time_t ttNow) {
    ttLastConnServMsg = ttNow;
}

void noteChallenge(int nChallenge) {
    nLastChallenge = nChallenge;
}

void noteLoggedIn() {
    bLoginContinue = true;
}

void forgetSession() {
    bLoginContinue = false;
}

void noteSessionWith(const std::string& sServer) {
    sLastServer = sServer;
}

void setAccepting(bool bNewClients) {
    bAccepting = bNewClients;
}

void markLinkBroken() {
    bMarkedBroken = true;
}

void LostConnectionToCS() {
    if (connserv_sockfd != 0) {
        writeToLog(true, nConnectionStage < SSL_HANDSHAKE ? "Connection attempt timed out to CS!\n"
                                                          : "Lost connection to CS!\n");
    }
    closeLink();
    ttConnectLost = nowSecs();
}

void closeLink() {
    if (connserv_ssl != nullptr) {
        SSL_free(connserv_ssl);
        connserv_ssl = nullptr;
    }
    if (connserv_sockfd != 0) {
        closeDescriptor(connserv_sockfd);
        connserv_sockfd = 0;
    }
    msConnServMsgSock = Orvex::RelayMessageSocket();
    nConnectionStage = CONNECTION_IDLE;
    bMarkedBroken = false;
}

void resetLinkStateForTest() {
    closeLink();
    sLastServer.clear();
    nLastChallenge = 0;
    bLoginContinue = false;
    bAccepting = true;
    ttLastConnServMsg = nowSecs();
    ttLastCSConnectAttempt = nowSecs();
    ttConnectLost = 0;
    connectRetry_secs = kLeastSecsBetweenAttempts;
}
