#include "tests/unit/relayserver/engine_fixture.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "base/clock.h"
#include "relayserver/admission/connect_limits.h"
#include "relayserver/archive/archive_pass.h"
#include "relayserver/audio/packet_counts.h"
#include "relayserver/audio/switch_audio.h"
#include "relayserver/audio/udp_receive.h"
#include "relayserver/audio/udp_registration.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/departures.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/clients/video_gate.h"
#include "relayserver/cslink/forward_queue.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/loop/housekeeping.h"
#include "relayserver/orders/routing_update.h"
#include "relayserver/peers/peer_sources.h"
#include "relayserver/peers/relay_peer.h"
#include "relayserver/routes/route_store.h"
#include "relayserver/settings/servers.h"
#include "relayserver/settings/settings.h"
#include "relayserver/settings/timers.h"
#include "relayserver/sockets/accept_pause.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/sockets/listeners.h"
#include "relayserver/switching/switch_packet.h"
#include "tests/stubs/logging_stub.h"
#include "tests/stubs/tesselsql_stub.h"

using Orvex::RelayClient;
using Orvex::RelayClientTable;
using Orvex::RelayMessageSocket;

namespace {

struct SocketPair {
    int fdRelay;
    int fdPeer;
};

SocketPair makePair() {
    int fds[2] = {-1, -1};
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    return {fds[0], fds[1]};
}

/// A connected pair over the loopback interface; the peer's end takes little before it reads.
SocketPair makeTcpPair() {
    sockaddr_in siLocal{};
    siLocal.sin_family = AF_INET;
    siLocal.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t nLen = sizeof siLocal;
    const int fdListen = socket(AF_INET, SOCK_STREAM, 0);
    const int nSmall = 4096;
    EXPECT_EQ(0, setsockopt(fdListen, SOL_SOCKET, SO_RCVBUF, &nSmall, sizeof nSmall));
    EXPECT_EQ(0, bind(fdListen, reinterpret_cast<const sockaddr*>(&siLocal), sizeof siLocal));
    EXPECT_EQ(0, listen(fdListen, 1));
    EXPECT_EQ(0, getsockname(fdListen, reinterpret_cast<sockaddr*>(&siLocal), &nLen));
    const int fdRelay = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(0, connect(fdRelay, reinterpret_cast<const sockaddr*>(&siLocal), sizeof siLocal));
    const int fdPeer = accept(fdListen, nullptr, nullptr);
    close(fdListen);
    fcntl(fdRelay, F_SETFL, O_NONBLOCK);
    return {fdRelay, fdPeer};
}

Peer admit(SocketPair pair, int nClientID) {
    RelayClient client{RelayMessageSocket(pair.fdRelay, sockaddr_in{})};
    client.SetClientID(nClientID);
    client.SetLastMessageTime(nowSecs());
    ctAuthClientTable.Add(client);
    addToEpollForRead(pair.fdRelay);
    return Peer(pair.fdPeer);
}

/// A client that has just connected, in `table`.
Peer enter(RelayClientTable& table) {
    const SocketPair pair = makePair();
    RelayClient client{RelayMessageSocket(pair.fdRelay, sockaddr_in{})};
    client.SetLastMessageTime(nowSecs());
    table.Add(client);
    addToEpollForRead(pair.fdRelay);
    return Peer(pair.fdPeer);
}

void emptyTable(RelayClientTable& table) {
    while (table.bBeginTraverse()) {
        const int fd = table.current().GetMessageSocket()->getMsgSockFileDesc();
        SSL_free(table.current().GetMessageSocket()->getSSLPtr());
        EXPECT_TRUE(table.bDelete(fd));
        close(fd);
    }
}

void resetEngine() {
    emptyTable(ctAuthClientTable);
    emptyTable(ctLooseClientTable);
    emptyTable(ctSslHandshakingTable);
    emptyTable(ctOutboundConnectsPending);
    resetLinkStateForTest();
    resetDeparturesForTest();
    resetForwardQueueForTest();
    resetRecentlyLostForTest();
    resetRouteStoreForTest();
    resetRoutingUpdateForTest();
    resetConnectLimitsForTest();
    resetHousekeepingForTest();
    resetTimersForTest();
    resetArchiveForTest();
    resetSettingsForTest();
    resetServersForTest();
    resetListenersForTest();
    resetAcceptPauseForTest();
    resetPacketsSwitchedForTest(0);
    resetPeerSourcesForTest();
    resetSwitchAudioForTest(0);
    resetUdpReceiveForTest();
    resetUdpRegistrationForTest();
    nAudioPacketsRcvd = 0;
    resetEpollSetForTest();
    resetDatabaseStub();
    videoPermissions.Clear();
    ERR_clear_error();
    loggedLines().clear();
    nSenderID = 0;
}

}  // namespace

Peer::~Peer() {
    close();
}

void Peer::sendBytes(const std::string& sBytes) const {
    ASSERT_EQ(static_cast<ssize_t>(sBytes.size()), ::send(_fd, sBytes.data(), sBytes.size(), 0));
}

void Peer::send(Orvex::NetMessage& nmMessage) const {
    sendBytes(std::string(nmMessage.frame()));
}

std::string Peer::sReceived() const {
    std::string sAll;
    char achChunk[4096];
    ssize_t nRead = 0;
    while ((nRead = recv(_fd, achChunk, sizeof achChunk, MSG_DONTWAIT)) > 0) {
        sAll.append(achChunk, static_cast<size_t>(nRead));
    }
    return sAll;
}

std::vector<std::string> Peer::images() const {
    const std::string sAll = sReceived();
    std::vector<std::string> found;
    for (size_t nAt = 0; nAt < sAll.size();) {
        const size_t nFrame = 2U * static_cast<unsigned char>(sAll[nAt]);
        found.push_back(sAll.substr(nAt + 1, nFrame - 1));
        nAt += nFrame;
    }
    return found;
}

bool Peer::bClosedByRelay() const {
    char chByte = 0;
    return recv(_fd, &chByte, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
}

void Peer::close() {
    if (_fd != -1) {
        ::close(_fd);
        _fd = -1;
    }
}

void Peer::stopReading() const {
    shutdown(_fd, SHUT_RD);
}

EngineTest::EngineTest() {
    setClockForTest(kNow);
    std::signal(SIGPIPE, SIG_IGN);  // the process keeps it away from the engine, too
    resetEngine();
    EXPECT_TRUE(bOpenEpollSet());
}

EngineTest::~EngineTest() {
    resetEngine();
    resetClockForTest();
}

Peer EngineTest::addAuthClient(int nClientID) {
    return admit(makePair(), nClientID);
}

Peer EngineTest::addTcpAuthClient(int nClientID) {
    return admit(makeTcpPair(), nClientID);
}

Peer EngineTest::addLooseClient() {
    return enter(ctLooseClientTable);
}

Peer EngineTest::addHandshaking() {
    return enter(ctSslHandshakingTable);
}

RelayClient& EngineTest::authClient(int nClientID) {
    RelayClient* pClient = nullptr;
    if (!ctAuthClientTable.bLookUp(nClientID, &pClient)) {
        throw std::logic_error("no such client in the test");
    }
    return *pClient;
}

bool EngineTest::bIsAdmitted(int nClientID) {
    RelayClient* pClient = nullptr;
    return ctAuthClientTable.bLookUp(nClientID, &pClient);
}

int EngineTest::fdOf(int nClientID) {
    return authClient(nClientID).GetMessageSocket()->getMsgSockFileDesc();
}

Peer EngineTest::openLink() {
    const SocketPair pair = makePair();
    connserv_sockfd = pair.fdRelay;
    msConnServMsgSock = RelayMessageSocket(pair.fdRelay, sockaddr_in{});
    nConnectionStage = CONNECTION_FINISHED;
    addToEpollForRead(pair.fdRelay);
    return Peer(pair.fdPeer);
}

void EngineTest::route(unsigned nFrom, int nPipe, std::vector<unsigned> to) {
    Tessel_Routing::RoutingCache::Instance()->Add(
        Tessel_Routing::RouteEntry(nFrom, nPipe, std::move(to)));
}

bool EngineTest::bIsRouteCached(unsigned nFrom, int nPipe) {
    return Tessel_Routing::RoutingCache::Instance()->find(nFrom, nPipe) != nullptr;
}

std::vector<std::string> EngineTest::dissolvingStatements(unsigned nFrom, unsigned nTo, int nPipe) {
    const std::string sTo = std::to_string(nTo);
    return {"DELETE FROM iopatch WHERE clientto='" + sTo + "' AND clientfrom='" +
                std::to_string(nFrom) + "' AND msgclass='" + std::to_string(nPipe) + "'",
            "SELECT * FROM iopatch WHERE clientto='" + sTo + "' OR clientfrom='" + sTo + "'"};
}

void EngineTest::makePeer(int nClientID) {
    MarkAsRelay(authClient(nClientID));
    loggedLines().clear();
}

std::string EngineTest::sImage(int nType, unsigned nSender, unsigned nDestination,
                               const std::string& sPayload) {
    std::string sResult(9, '\0');
    sResult[0] = static_cast<char>(nType);
    std::memcpy(sResult.data() + 1, &nSender, sizeof nSender);
    std::memcpy(sResult.data() + 5, &nDestination, sizeof nDestination);
    return sResult + sPayload;
}

std::string EngineTest::sFrame(const std::string& sImage) {
    std::string sPadded = sImage;
    if (sPadded.size() % 2 == 0) {
        sPadded += '~';
    }
    return std::string(1, static_cast<char>((sPadded.size() + 1) / 2)) + sPadded;
}
