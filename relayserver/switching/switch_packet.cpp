#include "relayserver/switching/switch_packet.h"

#include <cerrno>
#include <vector>

#include "base/next_multiple.h"
#include "connserver/logging.h"
#include "genner/output/VideoFeedbackNetMessage.h"
#include "genner/output/message_types.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/peer_mark.h"
#include "relayserver/clients/video_gate.h"
#include "relayserver/cslink/client_loss.h"
#include "relayserver/cslink/forward_queue.h"
#include "relayserver/routes/route_store.h"

using Orvex::NetMessage;
using Orvex::RelayClient;

int nPacketsSwitched = 0;

namespace {

constexpr int kDirectDeliveryFlag = 1;
constexpr unsigned kPacketsPerReport = 200000;

/// Messages for their routed destinations, with what the video rules need to know.
struct RoutedMessages {
    MessageRun run;
    bool bVideo = false;
    int nPage = 0;
};

unsigned char nTypeByteOf(NetMessage& nmMessage) {
    return static_cast<unsigned char>(nmMessage.frame()[1]);
}

/// Sends to the destination in the header; one that is not connected here is not a failure.
[[nodiscard]] bool bDeliverDirect(NetMessage& nmMessage) {
    unsigned nDestination = 0;
    nmMessage.GetDestID(nDestination);
    RelayClient* pDestination = nullptr;
    if (!ctAuthClientTable.bLookUp(static_cast<int>(nDestination), &pDestination)) {
        return true;
    }
    const int nSent = nmMessage.Send(true, *pDestination->GetMessageSocket());
    if (nSent >= 1) {
        return true;
    }
    const int nProblem = errno;
    const int fd = pDestination->GetMessageSocket()->getMsgSockFileDesc();
    writeToLog(true,
               "TCP message down send failed in SwitchPacket with returncode %d, errno=%u, send to "
               "socket %u\n",
               nSent, static_cast<unsigned>(nProblem), static_cast<unsigned>(fd));
    CleanBadSocket(fd, LeaveReason::kSendFailed);
    return false;
}

/// Two relays that route to each other would pass a message back and forth for ever, so the route
/// is deleted.
void breakLoop(const MessageRun& run, unsigned nDestination) {
    writeToLog(true,
               "WARNING: suppressing possible relay loop to relay peer %u, originating client %u. "
               "Likely there are old links in our system, will try to clean up locally.\n",
               nDestination, run.nSource);
    deleteRoute(run.nSource, nDestination, run.nPipe);
    forgetRoute(run.nSource, run.nPipe);
}

/// Whether the video rules let the message pass; messages other than video always pass.
[[nodiscard]] bool bVideoRulesPass(const RoutedMessages& routed, RelayClient& destination) {
    if (!routed.bVideo) {
        return true;
    }
    if (!bVideoPermitted(routed.run.nSource, destination)) {
        return false;
    }
    return bIsRelayPeer(destination) || bVideoPageFits(routed.nPage, destination);
}

void countPackets(unsigned nCount, unsigned nSource, unsigned nDestination) {
    const auto nBefore = static_cast<unsigned>(nPacketsSwitched);
    const unsigned nToReport = nStepsToMultiple(nPacketsSwitched, kPacketsPerReport);
    nPacketsSwitched = static_cast<int>(nBefore + nCount);
    if (nCount >= nToReport) {
        writeToLog(true, "%u tcp packets switched and sent, this packet switched from %u to %u\n",
                   nBefore + nToReport, nSource, nDestination);
    }
}

std::size_t nFrameSizeAt(std::string_view svFrames, std::size_t nAt) {
    return std::size_t{2} * static_cast<unsigned char>(svFrames[nAt]);
}

/// Only part of the frames was written: counts those written completely, logs the one cut off and
/// drops the destination.
void dropDestination(const MessageRun& run, unsigned nDestination, RelayClient& destination) {
    const int nProblem = errno;
    const auto nWritten = static_cast<std::size_t>(destination.GetMessageSocket()->nLastWritten());
    std::size_t nBroken = 0;
    while (nBroken + nFrameSizeAt(run.svFrames, nBroken) <= nWritten) {
        nBroken += nFrameSizeAt(run.svFrames, nBroken);
        countPackets(1, run.nSource, nDestination);
    }
    writeToLog(true, "TCP message send failed in SwitchPacket - rc=%d, errno=%u\n", -1,
               static_cast<unsigned>(nProblem));
    printchars(run.svFrames.data() + nBroken,
               static_cast<int>(nFrameSizeAt(run.svFrames, nBroken)));
    CleanBadSocket(destination.GetMessageSocket()->getMsgSockFileDesc(), LeaveReason::kSendFailed);
}

[[nodiscard]] bool bWriteFrames(std::string_view svFrames, Orvex::RelayMessageSocket& rSocket) {
    const int nSize = static_cast<int>(svFrames.size());
    return rSocket.write_n_with_timeout(rSocket.getMsgSockFileDesc(), svFrames.data(), nSize, 0,
                                        NetMessage::nSEND_TIMEOUT_MICROSECS) == nSize;
}

/// Delivers to one destination of the route; false if the send failed and the destination was
/// removed.
[[nodiscard]] bool bDeliverTo(const RoutedMessages& routed, unsigned nDestination,
                              RelayClient& destination) {
    const MessageRun& run = routed.run;
    if (run.bFromRelayPeer && bIsRelayPeer(destination)) {
        breakLoop(run, nDestination);
        return true;
    }
    if (!bVideoRulesPass(routed, destination)) {
        return true;
    }
    if (bWriteFrames(run.svFrames, *destination.GetMessageSocket())) {
        countPackets(run.nCount, run.nSource, nDestination);
        return true;
    }
    dropDestination(run, nDestination, destination);
    return false;
}

[[nodiscard]] bool bDeliverRouted(const RoutedMessages& routed) {
    // Held during the walk: breaking a loop removes the entry from the cache.
    const std::shared_ptr<const Tessel_Routing::RouteEntry> pRoute =
        findRoute(routed.run.nSource, routed.run.nPipe);
    bool bSuccess = true;
    const std::vector<unsigned>& destinations = pRoute->clientsTo();
    for (size_t i = 0; i < destinations.size(); ++i) {
        RelayClient* const pDestination = pRoute->find(i, ctAuthClientTable);
        if (pDestination != nullptr) {
            bSuccess = bDeliverTo(routed, destinations[i], *pDestination) && bSuccess;
        }
    }
    return bSuccess;
}

}  // namespace

bool SwitchPacket(NetMessage* nmpMsg, int nFlags, bool bFromRelayPeer) {
    if (nmpMsg->frame().empty()) {
        return true;
    }
    const unsigned char nTypeByte = nTypeByteOf(*nmpMsg);
    const int nPipe = nPipeType(nTypeByte);
    if (nPipe == kPipeNone) {
        return true;
    }
    if (nFlags == 0 && nPipe == kPipeConnServer) {
        ForwardToCS(*nmpMsg);
        return true;
    }
    if ((nFlags == 0 && nPipe == kPipeDirect) || (nFlags & kDirectDeliveryFlag) != 0) {
        return bDeliverDirect(*nmpMsg);
    }
    unsigned nSource = 0;
    nmpMsg->GetSenderID(nSource);
    const bool bVideo = nTypeByte == Orvex::VideoFeedbackNetMessage::nTYPE;
    return bDeliverRouted({{nmpMsg->frame(), 1, nSource, nPipe, bFromRelayPeer},
                           bVideo,
                           bVideo ? nVideoPage(*nmpMsg) : 0});
}

bool bSwitchRun(const MessageRun& run) {
    return run.bEmpty() || bDeliverRouted({run});
}

void resetPacketsSwitchedForTest(int nPackets) {
    nPacketsSwitched = nPackets;
}
