#include "tests/unit/relayserver/peers/peer_fixture.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

#include "base/clock.h"
#include "base/ip_utils.h"
#include "genner/output/ConnectConfirmNetMessage.h"
#include "genner/output/LostConnectionNetMessage.h"
#include "genner/output/RelayConnectNetMessage.h"
#include "genner/output/ResponseNetMessage.h"
#include "genner/output/TicketRequestNetMessage.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/loop/event_loop.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/sockets/listeners.h"
#include "tests/unit/relayserver/loopback.h"

using Orvex::RelayClient;

namespace {

constexpr int kWaitMillis = 5000;

sockaddr_in siAt(const std::string& sAddress, int nPort) {
    sockaddr_in siResult{};
    siResult.sin_family = AF_INET;
    siResult.sin_port = htons(static_cast<std::uint16_t>(nPort));
    EXPECT_TRUE(bParseIPv4(sAddress, siResult.sin_addr));
    return siResult;
}

/// A socket bound to that address; -1 when it is taken.
int nBound(int nType, const sockaddr_in& siLocal) {
    const int fd = socket(AF_INET, nType | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&siLocal), sizeof siLocal) == -1) {
        close(fd);
        return -1;
    }
    return fd;
}

const unsigned char* bytesOf(const std::string& sBytes) {
    return reinterpret_cast<const unsigned char*>(sBytes.data());
}

std::string sImageOf(Orvex::NetMessage&& nmMessage) {
    return std::string(nmMessage.frame().substr(1));
}

}  // namespace

OtherRelay::OtherRelay(const std::string& sAddress) : _fd(nBound(SOCK_STREAM, siAt(sAddress, 0))) {
    EXPECT_EQ(0, listen(_fd, 10));
    _nPort = nLocalPort(_fd);
}

OtherRelay::~OtherRelay() {
    close(_fd);
}

Peer OtherRelay::acceptRelay() const {
    EXPECT_TRUE(bWaitReadable(_fd));
    return Peer(accept(_fd, nullptr, nullptr));
}

bool OtherRelay::bHasCaller() const {
    pollfd pfd{_fd, POLLIN, 0};
    return poll(&pfd, 1, 0) == 1;
}

AudioPorts::AudioPorts() {
    for (int nTry = 0; nTry < 100; ++nTry) {
        const int fdAny = nBound(SOCK_DGRAM, siAt("127.0.0.1", 0));
        const int nBase = nLocalPort(fdAny);
        close(fdAny);
        if (bOpenAt(nBase)) {
            _nBase = nBase;
            return;
        }
    }
    ADD_FAILURE() << "no six free ports";
}

AudioPorts::~AudioPorts() {
    closeAll();
}

void AudioPorts::closeAll() {
    for (const int fd : _sockets) {
        close(fd);
    }
    _sockets.clear();
}

bool AudioPorts::bOpenAt(int nBase) {
    constexpr int kPortsPerProgram = 2;
    for (int i = 0; i < kAudioPrograms; ++i) {
        const int nPort = nBase + kPortsPerProgram * i;
        const int fd = nPort > 65535 ? -1 : nBound(SOCK_DGRAM, siAt("127.0.0.1", nPort));
        if (fd == -1) {
            closeAll();
            return false;
        }
        _sockets.push_back(fd);
    }
    return true;
}

std::vector<std::string> AudioPorts::received(int nProgram) const {
    std::vector<std::string> datagrams;
    char achBytes[2048];
    ssize_t nRead = 0;
    while ((nRead = recv(_sockets[static_cast<size_t>(nProgram)], achBytes, sizeof achBytes,
                         MSG_DONTWAIT)) > 0) {
        datagrams.emplace_back(achBytes, static_cast<size_t>(nRead));
    }
    return datagrams;
}

PeerTest::PeerTest() {
    nSenderID = kOwnID;
}

Orvex::ConnectOrderNetMessage PeerTest::orderOf(const Order& order) {
    return {order.nToID,
            siAt(order.sAddress, 0).sin_addr.s_addr,
            order.nTcpPort,
            order.nUdpPort,
            bytesOf(order.sTicket),
            static_cast<int>(order.sTicket.size()),
            order.code,
            0};
}

RelayClient& PeerTest::pending(int nPeerID) {
    RelayClient* pClient = nullptr;
    if (!ctOutboundConnectsPending.bLookUp(nPeerID, &pClient)) {
        throw std::logic_error("no such pending connect in the test");
    }
    return *pClient;
}

bool PeerTest::bIsPending(int nPeerID) {
    RelayClient* pClient = nullptr;
    return ctOutboundConnectsPending.bLookUp(nPeerID, &pClient);
}

int PeerTest::fdOf(RelayClient& client) {
    return client.GetMessageSocket()->getMsgSockFileDesc();
}

std::string PeerTest::sTicketOf(const RelayClient& client) {
    unsigned char achTicket[RelayClient::nMAX_TICKET_LEN];
    int nLen = 0;
    long lAge = 0;
    client.GetTicket(achTicket, nLen, lAge);
    return {reinterpret_cast<const char*>(achTicket), static_cast<size_t>(nLen)};
}

Peer PeerTest::addAuthClientAt(int nClientID, const std::string& sAddress) {
    int fds[2] = {-1, -1};
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    RelayClient client{Orvex::RelayMessageSocket(fds[0], siAt(sAddress, 5000))};
    client.SetClientID(nClientID);
    client.SetLastMessageTime(nowSecs());
    ctAuthClientTable.Add(client);
    addToEpollForRead(fds[0]);
    return Peer(fds[1]);
}

void PeerTest::openOwnAudio() {
    for (int& rfd : udp_listen_sockfd) {
        rfd = nBound(SOCK_DGRAM, siAt("127.0.0.1", 0));
    }
}

void PeerTest::offerReady() {
    const int nReady = epoll_wait(ep_fd, ep_events, kMaxEpollEvents, kWaitMillis);
    ASSERT_LE(1, nReady);
    for (int i = 0; i < nReady; ++i) {
        offerToHandlers(ep_events[i], i);
    }
}

std::string PeerTest::sConfirmation(int nClientID) {
    return sImageOf(Orvex::ConnectConfirmNetMessage(nClientID));
}

std::string PeerTest::sTicketRequest(int nPeerID) {
    return sImageOf(Orvex::TicketRequestNetMessage(nPeerID, rcUdpReg));
}

std::string PeerTest::sResponse(unsigned nSender, Orvex::ReturnCode code) {
    Orvex::ResponseNetMessage rnm(nSender, code);
    rnm.ChangeSenderID(nSender);
    return std::string(rnm.frame().substr(1));
}

std::string PeerTest::sLoss(int nClientID) {
    return sImageOf(Orvex::LostConnectionNetMessage(nClientID));
}

std::string PeerTest::sOwnLogin(const std::string& sTicket) {
    return sImageOf(Orvex::RelayConnectNetMessage(nSenderID, bytesOf(sTicket),
                                                  static_cast<int>(sTicket.size())));
}

sockaddr_in PeerTest::siOf(const std::string& sAddress, int nPort) {
    return siAt(sAddress, nPort);
}

int PeerTest::nOpenDescriptors() {
    DIR* const pFolder = opendir("/proc/self/fd");
    int nCount = 0;
    while (readdir(pFolder) != nullptr) {
        ++nCount;
    }
    closedir(pFolder);
    return nCount;
}
