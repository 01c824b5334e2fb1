#include "bench/instructions/datagram.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "bench/instructions/engine_harness.h"
#include "bench/instructions/give_up.h"
#include "relayserver/audio/audio_datagram.h"
#include "relayserver/audio/switch_audio.h"
#include "relayserver/audio/udp_receive.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/sockets/listeners.h"

using Orvex::RelayClient;

namespace {

constexpr int kSourceID = 1001;
constexpr int kFirstReceiverID = 2001;
constexpr std::size_t kDatagramBytes = 200;
constexpr std::size_t kMarkedIDOffset = 12;
constexpr unsigned kProgram = 0;

int fdOpenUdp() {
    sockaddr_in siOwn{};
    siOwn.sin_family = AF_INET;
    siOwn.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    require(bind(fd, reinterpret_cast<const sockaddr*>(&siOwn), sizeof siOwn) == 0, "bind");
    boundReads(fd);
    return fd;
}

sockaddr_in siAddressOf(int fd) {
    sockaddr_in siOwn{};
    socklen_t nLen = sizeof siOwn;
    require(getsockname(fd, reinterpret_cast<sockaddr*>(&siOwn), &nLen) == 0, "getsockname");
    return siOwn;
}

void openAudioSockets() {
    bFecEnable = false;
    for (int& rfd : udp_listen_sockfd) {
        rfd = fdOpenUdp();
    }
    watchAudioSockets();
}

/// Admits a client, and returns its audio socket.
int fdJoin(int nClientID, bool bSends) {
    (void)fdAdmitClient(nClientID);  // stays open; nothing relevant is sent over it
    RelayClient* pClient = nullptr;
    require(ctAuthClientTable.bLookUp(nClientID, &pClient), "the client that was just admitted");
    const int fd = fdOpenUdp();
    if (bSends) {
        pClient->StartSrcAudio(kProgram, siAddressOf(fd));
    } else {
        pClient->StartRcvAudio(kProgram, siAddressOf(fd));
    }
    return fd;
}

std::string sMakeDatagram() {
    std::string sDatagram(kDatagramPrefixBytes, '\0');
    const unsigned nMarkedID = kSourceID;
    std::memcpy(sDatagram.data() + kMarkedIDOffset, &nMarkedID, sizeof nMarkedID);
    return sDatagram + std::string(kDatagramBytes - kDatagramPrefixBytes, 'a');
}

}  // namespace

Datagram::Datagram(int nReceivers) : sBytes(sMakeDatagram()), fdSource(fdJoin(kSourceID, true)) {
    openAudioSockets();
    const sockaddr_in siRelay = siAddressOf(udp_listen_sockfd[kProgram]);
    require(connect(fdSource, reinterpret_cast<const sockaddr*>(&siRelay), sizeof siRelay) == 0,
            "connect");
    for (int i = 0; i < nReceivers; ++i) {
        receivers.push_back(fdJoin(kFirstReceiverID + i, false));
    }
    addRoute(kSourceID, kAudioMsgClass, kFirstReceiverID, static_cast<unsigned>(nReceivers));
}

void Datagram::send(int nMessages) {
    for (int i = 0; i < nMessages; ++i) {
        require(::send(fdSource, sBytes.data(), sBytes.size(), 0) ==
                    static_cast<ssize_t>(sBytes.size()),
                "sending datagrams");
    }
}

bool Datagram::bAllReceived(int nMessages) {
    return std::all_of(receivers.begin(), receivers.end(), [&](int fd) {
        for (int i = 0; i < nMessages; ++i) {
            if (!bReceives(fd, sBytes)) {
                return false;
            }
        }
        return true;
    });
}
