#include "tests/unit/relayserver/audio/audio_fixture.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "base/clock.h"
#include "base/ip_utils.h"
#include "base/string_format.h"
#include "genner/output/RelayConnectNetMessage.h"
#include "relayserver/audio/udp_receive.h"
#include "relayserver/peers/relay_peer.h"
#include "relayserver/settings/session_keys.h"
#include "relayserver/sockets/listeners.h"
#include "tests/stubs/logging_stub.h"
#include "tests/stubs/tesselsql_stub.h"
#include "tests/unit/relayserver/admission/ticket_maker.h"
#include "tests/unit/relayserver/loopback.h"

namespace {

constexpr int kChannels = 3;

int nOpenUdp(const sockaddr_in& siAddress, bool& rbBound) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int nBytes = 4194304;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &nBytes, sizeof nBytes);
    const int nOn = 1;
    setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &nOn, sizeof nOn);
    rbBound = bind(fd, reinterpret_cast<const sockaddr*>(&siAddress), sizeof siAddress) == 0;
    return fd;
}

int nOpenRelaySocket() {
    bool bBound = false;
    const int fd = nOpenUdp(siLoopbackHost(1), bBound);
    EXPECT_TRUE(bBound);
    return fd;
}

}  // namespace

sockaddr_in siLoopbackHost(int nHost, int nPort) {
    sockaddr_in siResult{};
    siResult.sin_family = AF_INET;
    siResult.sin_addr.s_addr = htonl(INADDR_LOOPBACK - 1 + static_cast<unsigned>(nHost));
    siResult.sin_port = htons(static_cast<std::uint16_t>(nPort));
    return siResult;
}

Station::Station(int nHost, int nPort)
    : _fd(nOpenUdp(siLoopbackHost(nHost, nPort), _bBound)),
      _siAddress(siLoopbackHost(nHost, nLocalPort(_fd))) {}

Station::~Station() {
    close(_fd);
}

void Station::send(int fdRelay, const std::string& sBytes) const {
    sendTo(siLoopbackHost(1, nLocalPort(fdRelay)), sBytes);
}

void Station::sendTo(const sockaddr_in& siTo, const std::string& sBytes) const {
    ASSERT_EQ(static_cast<ssize_t>(sBytes.size()),
              sendto(_fd, sBytes.data(), sBytes.size(), 0, reinterpret_cast<const sockaddr*>(&siTo),
                     sizeof siTo));
}

std::vector<std::string> Station::received() const {
    std::vector<std::string> found;
    char achBytes[4096];
    ssize_t nRead = 0;
    while ((nRead = recv(_fd, achBytes, sizeof achBytes, MSG_DONTWAIT)) >= 0) {
        found.emplace_back(achBytes, static_cast<size_t>(nRead));
    }
    return found;
}

int Station::nPortOfNext() const {
    sockaddr_in siFrom{};
    socklen_t nLen = sizeof siFrom;
    char achBytes[4096];
    (void)recvfrom(_fd, achBytes, sizeof achBytes, MSG_DONTWAIT,
                   reinterpret_cast<sockaddr*>(&siFrom), &nLen);
    return nPortOf(siFrom);
}

long long Station::nNanosOfNext() const {
    constexpr long long kNanosPerSec = 1000000000;
    alignas(cmsghdr) char achControl[128];
    msghdr header{};
    header.msg_control = achControl;
    header.msg_controllen = sizeof achControl;
    if (recvmsg(_fd, &header, MSG_DONTWAIT) == -1) {
        return 0;
    }
    timespec arrival{};
    const cmsghdr* const pStamp = CMSG_FIRSTHDR(&header);
    if (pStamp != nullptr && pStamp->cmsg_type == SO_TIMESTAMPNS) {
        std::memcpy(&arrival, CMSG_DATA(pStamp), sizeof arrival);
    }
    return arrival.tv_sec * kNanosPerSec + arrival.tv_nsec;
}

std::string Station::sAddress() const {
    return sDottedAddress(_siAddress);
}

PeerAudio::PeerAudio(int nHost) {
    constexpr int kFirst = 21000;
    constexpr int kLast = 31000;
    for (int nBase = kFirst; nBase < kLast; nBase += 16) {
        if (bBindFrom(nHost, nBase)) {
            return;
        }
    }
    ADD_FAILURE() << "no free ports";
}

bool PeerAudio::bBindFrom(int nHost, int nBasePort) {
    _nBasePort = nBasePort;
    _sockets.clear();
    for (int nChannel = 0; nChannel < kChannels; ++nChannel) {
        for (int i = 0; i < kAudioPrograms; ++i) {
            const int nPort = nBasePort + 2 * i + 100 * nChannel;
            _sockets.push_back(std::make_unique<Station>(nHost, nPort));
            if (!_sockets.back()->bBound()) {
                return false;
            }
        }
    }
    return true;
}

const Station& PeerAudio::of(int nChannel, int nProgram) const {
    return *_sockets.at(static_cast<size_t>(nChannel * kAudioPrograms + nProgram));
}

size_t PeerAudio::nReceived() const {
    size_t nCount = 0;
    for (const auto& pSocket : _sockets) {
        nCount += pSocket->received().size();
    }
    return nCount;
}

AudioTest::AudioTest() {
    makeSessionKey();
    nSenderID = kRelayID;
    bFecEnable = true;
    for (int i = 0; i < kAudioPrograms; ++i) {
        udp_listen_sockfd[i] = nOpenRelaySocket();
        udp_fec1_sockfd[i] = nOpenRelaySocket();
        udp_fec2_sockfd[i] = nOpenRelaySocket();
    }
    watchAudioSockets();
    loggedLines().clear();
}

void AudioTest::receive(int fd) {
    epoll_event epe{};
    epe.events = EPOLLIN;
    epe.data.fd = fd;
    EXPECT_TRUE(bHandleUdpAudio(epe, 0));
}

void AudioTest::exchange(const Station& station, int nProgram, const std::string& sBytes) {
    station.send(udp_listen_sockfd[nProgram], sBytes);
    receive(udp_listen_sockfd[nProgram]);
}

std::string AudioTest::sDatagram(unsigned nMarkedID, const std::string& sRest) {
    std::string sResult(16, '\0');
    std::memcpy(sResult.data() + 12, &nMarkedID, sizeof nMarkedID);
    return sResult + sRest;
}

std::string AudioTest::sRegistration(unsigned nMarkedID, unsigned nClientID,
                                     const std::string& sTicket, unsigned nFlags) {
    std::string sEscaped = sTicket;
    Orvex::NetMessage::AddEscapes(sEscaped);
    return sDatagram(
        nMarkedID, sImage(19, nMarkedID, nFlags, std::to_string(nClientID) + '~' + sEscaped + '~'));
}

std::string AudioTest::sRegistration(unsigned nClientID, unsigned nFlags) {
    return sRegistration(nClientID, nClientID, sEncryptedTicket(nClientID, nowSecs()), nFlags);
}

void AudioTest::setTcpAddress(int nClientID, int nHost) {
    const int fd = fdOf(nClientID);
    authClient(nClientID).SetMessageSocket(
        Orvex::RelayMessageSocket(fd, siLoopbackHost(nHost, 40000)));
}

Peer AudioTest::addRelayPeer(int nClientID, int nHost, const PeerAudio& audio) {
    Peer peer = addAuthClient(nClientID);
    setTcpAddress(nClientID, nHost);
    const unsigned char achTicket[] = "a stored ticket!";
    authClient(nClientID).SetTicket(achTicket, 16);
    setPeerUdpBasePort(authClient(nClientID), audio.nBasePort());
    MarkAsRelay(authClient(nClientID));
    loggedLines().clear();
    return peer;
}

std::string AudioTest::sRouteQuery(unsigned nSource) {
    return string_format("SELECT clientto FROM iopatch WHERE clientfrom='%u' AND msgclass='64'",
                         nSource);
}

void AudioTest::giveAudioRoute(unsigned nSource, std::vector<std::string> destinations) {
    giveRows(sRouteQuery(nSource), std::move(destinations));
}

sockaddr_in AudioTest::siReceives(int nClientID, unsigned nProgram) {
    sockaddr_in siResult{};
    authClient(nClientID).GetAudioRcvAddress(nProgram, siResult);
    return siResult;
}

sockaddr_in AudioTest::siSends(int nClientID, unsigned nProgram) {
    sockaddr_in siResult{};
    authClient(nClientID).GetAudioSrcAddress(nProgram, siResult);
    return siResult;
}
