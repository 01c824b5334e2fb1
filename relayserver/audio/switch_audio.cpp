#include "relayserver/audio/switch_audio.h"

#include <netinet/in.h>
#include <sys/uio.h>

#include <array>
#include <vector>

#include "base/next_multiple.h"
#include "connserver/logging.h"
#include "relayserver/audio/send_batch.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/peer_mark.h"
#include "relayserver/routes/route_store.h"
#include "relayserver/sockets/fec_ports.h"

using Orvex::RelayClient;

unsigned audio_packets_sent = 0;

namespace {

constexpr unsigned kPacketsPerReport = 200000;

/// Consecutive datagrams of one kind that are not routed yet.
struct AudioRun {
    unsigned nSource = 0;
    int fdSend = -1;
    size_t nLength = 0;
    bool bFromRelayPeer = false;
    int nFecChannel = 0;
    unsigned nProgram = 0;
    size_t nCount = 0;
};

AudioRun run;

/// All datagrams switched since the last flush; those of the run come last.
std::array<iovec, 1024> parts;
size_t nPartsUsed = 0;

/// Two relays that route to each other would pass a datagram back and forth for ever, so the route
/// is deleted.
void breakLoop(unsigned nSource, unsigned nDestination) {
    writeToLog(true,
               "WARNING: suppressing possible relay loop to relay peer %u, originating client %u. "
               "Likely there are old audio links in our system, will try to clean up locally.\n",
               nDestination, nSource);
    deleteRoute(nSource, nDestination, kAudioMsgClass);
    forgetRoute(nSource, kAudioMsgClass);
}

/// Where a client receives a channel of a program. The port is 0 if it does not receive it, or if
/// its address is not known yet: a peer may be marked before it has registered. A relay whose base
/// port an order has given receives FEC on its FEC sockets; a station, which registers one address,
/// receives FEC at fixed offsets above that port.
sockaddr_in siReceiverOf(const RelayClient& client, unsigned nProgram, int nFecChannel) {
    sockaddr_in siTo{};
    if (client.bIsRcvAudio(nProgram)) {
        client.GetAudioRcvAddress(nProgram, siTo);
    }
    if (siTo.sin_port != 0) {
        const int nPerChannel =
            client.nRelayUdpBasePort != 0 ? kFecSocketPortOffset : kFecCopyPortOffset;
        siTo.sin_port =
            htons(static_cast<std::uint16_t>(ntohs(siTo.sin_port) + nPerChannel * nFecChannel));
    }
    return siTo;
}

void countSent(const AudioRun& sent, unsigned nDestination) {
    const unsigned nToReport = nStepsToMultiple(audio_packets_sent, kPacketsPerReport);
    if (sent.nCount >= nToReport) {
        writeToLog(true, "Sent %u audio packets, this packet switched from %u to %u\n",
                   audio_packets_sent + nToReport, sent.nSource, nDestination);
    }
    audio_packets_sent += static_cast<unsigned>(sent.nCount);
}

void routeRunTo(unsigned nDestination, const RelayClient& client) {
    if (run.bFromRelayPeer && bIsRelayPeer(client)) {
        breakLoop(run.nSource, nDestination);
        return;
    }
    const sockaddr_in siTo = siReceiverOf(client, run.nProgram, run.nFecChannel);
    if (siTo.sin_port != 0) {
        queueDatagrams(run.fdSend, &parts[nPartsUsed - run.nCount], run.nCount, siTo);
        countSent(run, nDestination);
    }
}

/// Whether a datagram of this kind may follow those of the run.
[[nodiscard]] bool bContinues(const AudioRun& kind) {
    return run.nCount > 0 && run.nSource == kind.nSource && run.fdSend == kind.fdSend &&
           run.bFromRelayPeer == kind.bFromRelayPeer && run.nLength == kind.nLength;
}

}  // namespace

void SwitchAudioPacket(unsigned nSource, int fdSend, const char* achDatagram, int nLength,
                       bool bFromRelayPeer, int nFecChannel, int nProgram) {
    const AudioRun kind{nSource,        fdSend,      static_cast<size_t>(nLength),
                        bFromRelayPeer, nFecChannel, static_cast<unsigned>(nProgram)};
    if (!bContinues(kind)) {
        routeAudio();
        run = kind;
    }
    if (nPartsUsed == parts.size()) {
        flushAudio();
    }
    // The kernel only reads what it sends.
    parts[nPartsUsed++] = {const_cast<char*>(achDatagram), kind.nLength};
    ++run.nCount;
}

void routeAudio() {
    if (run.nCount == 0) {
        return;
    }
    // Held during the walk: breaking a loop removes the entry from the cache.
    const auto pRoute = findRoute(run.nSource, kAudioMsgClass, "AUDIO");
    const std::vector<unsigned>& destinations = pRoute->clientsTo();
    for (size_t i = 0; i < destinations.size(); ++i) {
        if (const RelayClient* const pClient = pRoute->find(i, ctAuthClientTable)) {
            routeRunTo(destinations[i], *pClient);
        }
    }
    run.nCount = 0;
}

void flushAudio() {
    routeAudio();
    flushDatagrams();
    nPartsUsed = 0;
}

void resetSwitchAudioForTest(unsigned nSent) {
    audio_packets_sent = nSent;
    run.nCount = 0;
    nPartsUsed = 0;
}
