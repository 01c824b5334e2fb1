#include "relayserver/audio/udp_receive.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "base/clock.h"
#include "base/ip_utils.h"
#include "connserver/logging.h"
#include "genner/output/message_types.h"
#include "orvex/net_message.h"
#include "relayserver/audio/audio_datagram.h"
#include "relayserver/audio/packet_counts.h"
#include "relayserver/audio/switch_audio.h"
#include "relayserver/audio/udp_registration.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/peers/peer_sources.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/sockets/listeners.h"
#include "relayserver/sockets/socket_options.h"

using Orvex::RelayClient;

namespace {

constexpr size_t kMarkedIDOffset = 12;
constexpr unsigned kDiscardsPerReport = 1000;

/// Indexed by descriptor; `fd` is -1 where there is none.
std::vector<AudioSocket>& audioSockets = *new std::vector<AudioSocket>;

/// Where the datagrams of one batch are received.
struct ReceiveBuffers {
    std::array<mmsghdr, kMaxUdpPktsPerPoll> udpMsgs;
    std::array<iovec, kMaxUdpPktsPerPoll> parts;
    std::array<sockaddr_in, kMaxUdpPktsPerPoll> addresses;
    std::array<std::array<char, kMaxUdpPktBytes>, kMaxUdpPktsPerPoll> udpRxBufs;
};

ReceiveBuffers buffers;

/// Discarded datagrams since the last report.
unsigned nBadPacketDebug = 0;

void watchAudioSocket(const AudioSocket& socket) {
    const auto nIndex = static_cast<size_t>(socket.fd);
    if (nIndex >= audioSockets.size()) {
        audioSockets.resize(nIndex + 1);
    }
    audioSockets[nIndex] = socket;
    makeNonBlocking(socket.fd);
    addToEpollForRead(socket.fd);
}

/// Null if `fd` is not an audio socket.
const AudioSocket* findAudioSocket(int fd) {
    const auto nIndex = static_cast<size_t>(fd);
    const bool bIsOne = nIndex < audioSockets.size() && audioSockets[nIndex].fd == fd;
    return bIsOne ? &audioSockets[nIndex] : nullptr;
}

void prepareBuffers() {
    for (size_t i = 0; i < buffers.udpMsgs.size(); ++i) {
        buffers.parts[i] = {buffers.udpRxBufs[i].data(), kMaxUdpPktBytes};
        msghdr& rHeader = buffers.udpMsgs[i].msg_hdr;
        rHeader = {};
        rHeader.msg_name = &buffers.addresses[i];
        rHeader.msg_namelen = sizeof(sockaddr_in);
        rHeader.msg_iov = &buffers.parts[i];
        rHeader.msg_iovlen = 1;
    }
}

/// Receives the waiting datagrams, up to a full batch; returns how many.
size_t nReceiveBatch(int fd) {
    const int nReceived =
        recvmmsg(fd, buffers.udpMsgs.data(), kMaxUdpPktsPerPoll, MSG_DONTWAIT, nullptr);
    if (nReceived == -1 && errno != EAGAIN) {
        std::perror("relayserver UDP socket recvmmsg()");
    }
    return nReceived == -1 ? 0 : static_cast<size_t>(nReceived);
}

/// The client with the marked id, if it is registered to send the program from the address of the
/// datagram; otherwise null.
RelayClient* findLocalSource(const AudioDatagram& datagram) {
    const auto nProgram = static_cast<unsigned>(datagram.socket.nProgram);
    RelayClient* pClient = nullptr;
    if (!ctAuthClientTable.bLookUp(static_cast<int>(datagram.nMarkedID), &pClient) ||
        !pClient->bIsSrcAudio(nProgram)) {
        return nullptr;
    }
    sockaddr_in siSource{};
    pClient->GetAudioSrcAddress(nProgram, siSource);
    return siSource.sin_addr.s_addr == datagram.siFrom.sin_addr.s_addr ? pClient : nullptr;
}

void forward(const AudioDatagram& datagram, bool bFromRelayPeer) {
    SwitchAudioPacket(datagram.nMarkedID, datagram.socket.fd, datagram.achBytes,
                      static_cast<int>(datagram.nLength), bFromRelayPeer,
                      datagram.socket.nFecChannel, datagram.socket.nProgram);
}

/// A datagram from an unknown sender, or a truncated one: about one in a thousand is reported.
void discard(const AudioDatagram& datagram) {
    if (nBadPacketDebug <= kDiscardsPerReport) {
        ++nBadPacketDebug;
        return;
    }
    nBadPacketDebug = 0;
    writeToLog(true,
               "UDP packets from un-registered source %s(%u) (marked ID=%u) being discarded (audio "
               "program %u).\n",
               sDottedAddress(datagram.siFrom).c_str(),
               static_cast<unsigned>(nPortOf(datagram.siFrom)), datagram.nMarkedID,
               static_cast<unsigned>(datagram.socket.nProgram));
    writeToLog(true, "message contents:\n");
    printchars(datagram.achBytes, static_cast<int>(datagram.nLength));
    writeToLog(false, "\n");
}

/// Returns true if the datagram came from a local source; it is then forwarded, unless it is a
/// registration. May remove clients.
[[nodiscard]] bool bHandleLocalSource(const AudioDatagram& datagram, bool bRegistration) {
    RelayClient* const pSource = findLocalSource(datagram);
    if (pSource == nullptr) {
        return false;
    }
    pSource->SetLastMessageTime(nowSecs());
    if (!bRegistration) {
        forward(datagram, false);
    }
    if (datagram.socket.nFecChannel == 0) {
        countSourcedPacket(*pSource, static_cast<unsigned>(datagram.socket.nProgram));
    }
    return true;
}

[[nodiscard]] bool bIsRegistration(const AudioDatagram& datagram) {
    return datagram.nLength > kDatagramPrefixBytes &&
           Orvex::NetMessageType(datagram.achBytes + kDatagramPrefixBytes, 1) ==
               nmtNetMsgTypeRelayConnect &&
           datagram.achBytes[datagram.nLength - 1] == Orvex::NetMessage::chDELIM;
}

void handleDatagram(const AudioDatagram& datagram) {
    if (bIsRegistration(datagram)) {
        (void)bHandleLocalSource(datagram, true);  // resets the idle timer
        routeAudio();                              // earlier datagrams keep their receivers
        handleRegistration(datagram);
    } else if (bPeerSendsFrom(datagram.siFrom.sin_addr,
                              static_cast<unsigned>(datagram.socket.nProgram))) {
        forward(datagram, true);
    } else if (!bHandleLocalSource(datagram, false)) {
        discard(datagram);
    }
}

/// The datagram in the `i`th buffer.
void handleReceived(const AudioSocket& socket, size_t i) {
    AudioDatagram datagram{socket, buffers.udpRxBufs[i].data(), buffers.udpMsgs[i].msg_len,
                           buffers.addresses[i], 0};
    if (datagram.nLength < kDatagramPrefixBytes) {
        return;
    }
    std::memcpy(&datagram.nMarkedID, datagram.achBytes + kMarkedIDOffset,
                sizeof datagram.nMarkedID);
    const bool bTruncated = (buffers.udpMsgs[i].msg_hdr.msg_flags & MSG_TRUNC) != 0;
    if (bTruncated) {
        discard(datagram);  // it cannot be forwarded unchanged
    } else {
        handleDatagram(datagram);
    }
}

}  // namespace

void watchAudioSockets() {
    prepareBuffers();
    for (int i = 0; i < kAudioPrograms; ++i) {
        watchAudioSocket({udp_listen_sockfd[i], i, 0});
        if (bFecEnable) {
            watchAudioSocket({udp_fec1_sockfd[i], i, 1});
            watchAudioSocket({udp_fec2_sockfd[i], i, 2});
        }
    }
}

bool bClearAudioSocketError(int fd) {
    if (findAudioSocket(fd) == nullptr) {
        return false;
    }
    int nProblem = 0;
    socklen_t nLen = sizeof nProblem;
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &nProblem, &nLen);
    writeToLog(true, "WARNING: error %d on audio socket %d, which stays open\n", nProblem, fd);
    return true;
}

bool bHandleUdpAudio(epoll_event& epe, int /*nIndex*/) {
    const AudioSocket* const pSocket = findAudioSocket(nDescriptorOf(epe));
    if (pSocket == nullptr) {
        return false;
    }
    if ((epe.events & EPOLLIN) != 0) {
        const size_t nReceived = nReceiveBatch(pSocket->fd);
        for (size_t i = 0; i < nReceived; ++i) {
            handleReceived(*pSocket, i);
        }
        flushAudio();
    }
    return true;
}

void resetUdpReceiveForTest() {
    nBadPacketDebug = 0;
    audioSockets.clear();
}
