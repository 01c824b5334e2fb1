#include "relayserver/audio/udp_registration.h"

#include "base/clock.h"
#include "base/ip_utils.h"
#include "connserver/logging.h"
#include "genner/output/RelayConnectNetMessage.h"
#include "genner/output/ResponseNetMessage.h"
#include "genner/output/message_types.h"
#include "relayserver/admission/ticket_check.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/peer_mark.h"
#include "relayserver/cslink/client_loss.h"
#include "relayserver/peers/peer_sources.h"
#include "relayserver/peers/register_udp.h"
#include "relayserver/peers/relay_peer.h"
#include "relayserver/settings/time_limits.h"
#include "relayserver/settings/timers.h"

using Orvex::RelayClient;
using Orvex::RelayConnectNetMessage;

namespace {

constexpr unsigned kFirstIllFormedFlags = 8;

/// The most refused registrations that are logged and answered within one second. A flood of them
/// must fill neither the disk nor the connection of the client whose id it carries.
constexpr unsigned kRefusalsReportedPerSec = 200;

std::time_t ttRefusalSecond = 0;
unsigned nRefusedThisSecond = 0;

unsigned nProgramOf(const AudioDatagram& datagram) {
    return static_cast<unsigned>(datagram.socket.nProgram);
}

void startRefusalSecond(std::time_t ttNow) {
    if (nRefusedThisSecond > kRefusalsReportedPerSec) {
        writeToLog(true,
                   "WARNING: %u more UDP registrations were refused within one second, neither "
                   "logged nor answered\n",
                   nRefusedThisSecond - kRefusalsReportedPerSec);
    }
    ttRefusalSecond = ttNow;
    nRefusedThisSecond = 0;
}

/// Whether a refusal in this second would still be logged and answered.
[[nodiscard]] bool bReportRefusal() {
    const std::time_t ttNow = nowSecs();
    if (ttNow != ttRefusalSecond) {
        startRefusalSecond(ttNow);
    }
    return nRefusedThisSecond < kRefusalsReportedPerSec;
}

void logZeroID(const AudioDatagram& datagram) {
    constexpr unsigned kOneInTen = 10;
    static unsigned nZeroIDs = 0;
    writeToLog(true, "client ID in relay connect message came back as zero\n");
    if (++nZeroIDs % kOneInTen == 0) {
        writeToLog(true, "full udp message contents:\n");
        printchars(datagram.achBytes, static_cast<int>(datagram.nLength));
    }
}

/// `bZeroID`: the message does not name its client.
void logArrival(const AudioDatagram& datagram, bool bZeroID) {
    writeToLog(true, "UDP registration messages from source %u, program_idx %u, addr %s\n",
               datagram.nMarkedID, nProgramOf(datagram), sDottedAddress(datagram.siFrom).c_str());
    if (bZeroID) {
        logZeroID(datagram);
    }
}

/// `rcnm` carries the id of the client to register.
[[nodiscard]] bool bTicketAccepted(const RelayConnectNetMessage& rcnm,
                                   const AudioDatagram& datagram, bool bReport) {
    const TicketLog log = bReport ? TicketLog::kTell : TicketLog::kQuiet;
    if (rcnm.GetDestID() < kFirstIllFormedFlags) {
        return CheckTicket(rcnm, datagram.siFrom.sin_addr, log);
    }
    if (bReport) {
        writeToLog(true, "ticket rejected for ill-formed flags - %u. Listed client ID was %u\n",
                   rcnm.GetDestID(), rcnm.GetClientID());
    }
    return false;
}

void refuse(const AudioDatagram& datagram) {
    writeToLog(true, "udp registration ticket not accepted from ID %u, addr %s(%u)\n",
               datagram.nMarkedID, sDottedAddress(datagram.siFrom).c_str(),
               static_cast<unsigned>(nPortOf(datagram.siFrom)));
    RelayClient* pClient = nullptr;
    if (!ctAuthClientTable.bLookUp(static_cast<int>(datagram.nMarkedID), &pClient)) {
        return;
    }
    Orvex::ResponseNetMessage rnm(datagram.nMarkedID, rcUdpUnauthorized);
    if (rnm.Send(true, *pClient->GetMessageSocket()) <= 0) {
        CleanBadSocket(pClient->GetMessageSocket()->getMsgSockFileDesc(), LeaveReason::kSendFailed);
    }
}

/// The address at which the client wants to receive. A relay whose base port an order has given
/// also registers from its FEC sockets, which does not change where its audio goes.
sockaddr_in siReceiveAddress(const RelayClient& client, const AudioDatagram& datagram) {
    const bool bFecOfRelay = datagram.socket.nFecChannel != 0 && client.nRelayUdpBasePort != 0;
    return bFecOfRelay ? siPeerAudioAddress(client, nProgramOf(datagram)) : datagram.siFrom;
}

/// A client that registers again may have a new address, and peers may have one too.
void reregisterPeersAfter(const RelayClient& client, const AudioDatagram& datagram) {
    if (std::difftime(nowSecs(), ttLastUdpReregister) <= kUdpReregisterPeriod ||
        bIsRelayPeer(client)) {
        return;
    }
    noteUdpReregister(nowSecs());
    writeToLog(true, "Notice: Client %d re-registering to rx audio program %u at %s(%d)\n",
               client.GetClientID(), nProgramOf(datagram), sDottedAddress(datagram.siFrom).c_str(),
               nPortOf(datagram.siFrom));
    (void)ReregisterRelayPeers();  // logged there
}

void startReceiving(RelayClient& client, const AudioDatagram& datagram) {
    const unsigned nProgram = nProgramOf(datagram);
    const bool bBefore = client.bIsRcvAudio(nProgram);
    client.StartRcvAudio(nProgram, siReceiveAddress(client, datagram));
    if (bBefore) {
        reregisterPeersAfter(client, datagram);
        return;
    }
    writeToLog(true, "Client %u registered to rx audio program %u at %s(%d)\n",
               static_cast<unsigned>(client.GetClientID()), nProgram,
               sDottedAddress(datagram.siFrom).c_str(), nPortOf(datagram.siFrom));
}

void startSending(RelayClient& client, const AudioDatagram& datagram) {
    const unsigned nProgram = nProgramOf(datagram);
    const bool bBefore = client.bIsSrcAudio(nProgram);
    client.StartSrcAudio(nProgram, datagram.siFrom);
    if (!bBefore) {
        writeToLog(true, "Client %u registered to send audio program %u at %s(%u)\n",
                   static_cast<unsigned>(client.GetClientID()), nProgram,
                   sDottedAddress(datagram.siFrom).c_str(),
                   static_cast<unsigned>(nPortOf(datagram.siFrom)));
    }
}

void callBack(RelayClient& client, const AudioDatagram& datagram) {
    writeToLog(true, "debug: performing udp registration callback to client %d\n",
               client.GetClientID());
    MarkAsRelay(client);
    RegisterUdp(client, true, true, false, datagram.socket.nProgram);
}

/// Registers the client as the flags request.
void registerClient(RelayClient& client, unsigned nFlags, const AudioDatagram& datagram) {
    if ((nFlags & kFlagReceives) != 0) {
        startReceiving(client, datagram);
    }
    if ((nFlags & kFlagSends) != 0) {
        startSending(client, datagram);
    }
    notePeerSources(client);
    if ((nFlags & kFlagCallback) != 0) {
        callBack(client, datagram);
    }
}

void accept(const RelayConnectNetMessage& rcnm, const AudioDatagram& datagram) {
    RelayClient* pClient = nullptr;
    if (ctAuthClientTable.bLookUp(static_cast<int>(rcnm.GetClientID()), &pClient)) {
        registerClient(*pClient, rcnm.GetDestID(), datagram);
        return;
    }
    writeToLog(true,
               "UDP registration marked as from client %u, but that ID not found in TCP "
               "registration table\n",
               rcnm.GetClientID());
}

}  // namespace

void handleRegistration(const AudioDatagram& datagram) {
    const bool bReport = bReportRefusal();
    RelayConnectNetMessage rcnm(datagram.achBytes + kDatagramPrefixBytes,
                                static_cast<int>(datagram.nLength - kDatagramPrefixBytes));
    const bool bZeroID = rcnm.GetClientID() == 0;
    if (bReport) {
        logArrival(datagram, bZeroID);
    }
    if (bZeroID) {
        rcnm.SetClientID(datagram.nMarkedID);
    }
    if (!bTicketAccepted(rcnm, datagram, bReport)) {
        ++nRefusedThisSecond;
        if (bReport) {
            refuse(datagram);
        }
        return;
    }
    if (!bReport) {
        logArrival(datagram, bZeroID);
    }
    accept(rcnm, datagram);
}

void resetUdpRegistrationForTest() {
    ttRefusalSecond = 0;
    nRefusedThisSecond = 0;
}
