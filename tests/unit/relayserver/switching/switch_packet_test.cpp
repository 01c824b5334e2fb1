#include "relayserver/switching/switch_packet.h"

#include <cerrno>

#include "base/clock.h"
#include "base/printable_str.h"
#include "genner/output/LostConnectionNetMessage.h"
#include "genner/output/VideoFeedbackNetMessage.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/clients/video_gate.h"
#include "relayserver/cslink/forward_queue.h"
#include "relayserver/peers/relay_peer.h"
#include "relayserver/routes/RoutingCache.h"
#include "tests/stubs/allocation_count.h"
#include "tests/stubs/logging_stub.h"
#include "tests/stubs/tesselsql_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"

using Orvex::NetMessage;
using Tessel_Routing::RouteEntry;
using Tessel_Routing::RoutingCache;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class SwitchPacketTest : public EngineTest {
  protected:
    static bool bSwitch(const std::string& sImage, int nFlags = 0, bool bFromRelayPeer = false) {
        NetMessage nmMessage(sImage.data(), static_cast<int>(sImage.size()));
        return SwitchPacket(&nmMessage, nFlags, bFromRelayPeer);
    }

    static std::string sVideo(unsigned nFrom, unsigned char nPage, unsigned char nTotal) {
        Orvex::VideoFeedbackNetMessage vfnm;
        vfnm.SetPageMarker(nPage, nTotal);
        vfnm.SetPayload("picture", 7);
        vfnm.ChangeSenderID(nFrom);
        return std::string(vfnm.frame().substr(1));
    }
};

TEST_F(SwitchPacketTest, ALoginGoesNowhere) {
    const Peer server = openLink();
    const Peer peer = addAuthClient(8);
    route(7, 0, {8});
    route(7, -1, {8});
    EXPECT_TRUE(bSwitch(sImage(1, 7, 8, "a~")));
    EXPECT_TRUE(bSwitch(sImage(1, 7, 8, "a~"), 1));
    EXPECT_THAT(peer.images(), IsEmpty());
    EXPECT_THAT(server.images(), IsEmpty());
    EXPECT_THAT(executedStatements(), IsEmpty());
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(SwitchPacketTest, Pipe224GoesToTheConnectionServer) {
    const Peer server = openLink();
    const Peer peer = addAuthClient(8);
    route(7, 224, {8});
    for (const int nType : {2, 8, 10, 13, 232}) {
        const std::string sMessage = sImage(nType, 7, 8, "ab");
        EXPECT_TRUE(bSwitch(sMessage));
        EXPECT_THAT(server.images(), ElementsAre(sMessage));
    }
    EXPECT_THAT(peer.images(), IsEmpty());
}

TEST_F(SwitchPacketTest, Pipe224WaitsForTheConnectionServerWhileItIsAway) {
    EXPECT_TRUE(bSwitch(sImage(232, 7, 0, "ab")));
    EXPECT_EQ(1U, csForwardQueue.size());
}

TEST_F(SwitchPacketTest, Pipe96GoesToTheHeadersDestinationOnly) {
    const Peer peer8 = addAuthClient(8);
    const Peer peer9 = addAuthClient(9);
    route(7, 96, {9});
    for (const int nType : {9, 11, 96, 106, 127}) {
        const std::string sMessage = sImage(nType, 7, 8, "ab");
        EXPECT_TRUE(bSwitch(sMessage));
        EXPECT_THAT(peer8.images(), ElementsAre(sMessage));
    }
    EXPECT_THAT(peer9.images(), IsEmpty());
    EXPECT_EQ(0, nPacketsSwitched) << "only routed sends are counted";
}

TEST_F(SwitchPacketTest, AnAbsentDestinationIsSkippedSilently) {
    EXPECT_TRUE(bSwitch(sImage(9, 7, 8, "ab")));
    EXPECT_TRUE(bSwitch(sImage(kChat, 7, 8, "ab"), 1));
    EXPECT_THAT(loggedLines(), IsEmpty());
    EXPECT_THAT(executedStatements(), IsEmpty());
}

TEST_F(SwitchPacketTest, FlagBit0DeliversAnyTypeToTheHeadersDestination) {
    const Peer server = openLink();
    const Peer peer8 = addAuthClient(8);
    const Peer peer9 = addAuthClient(9);
    route(7, kChatPipe, {9});
    EXPECT_TRUE(bSwitch(sImage(kChat, 7, 8, "ab"), 1));
    EXPECT_TRUE(bSwitch(sImage(232, 7, 8, "ab"), 3));
    EXPECT_THAT(peer8.images(), ElementsAre(sImage(kChat, 7, 8, "ab"), sImage(232, 7, 8, "ab")));
    EXPECT_THAT(peer9.images(), IsEmpty());
    EXPECT_THAT(server.images(), IsEmpty());
}

TEST_F(SwitchPacketTest, FlagsWithoutBit0RouteEvenWhatConcernsTheConnectionServer) {
    const Peer server = openLink();
    const Peer peer = addAuthClient(9);
    route(7, 224, {9});
    route(7, 96, {9});
    EXPECT_TRUE(bSwitch(sImage(232, 7, 8, "ab"), 2));
    EXPECT_TRUE(bSwitch(sImage(9, 7, 8, "ab"), 2));
    EXPECT_EQ(2U, peer.images().size());
    EXPECT_THAT(server.images(), IsEmpty());
}

TEST_F(SwitchPacketTest, AFailedDirectDeliveryDropsTheDestination) {
    const Peer server = openLink();
    const Peer peer = addAuthClient(8);
    const int fd = fdOf(8);
    peer.stopReading();
    EXPECT_FALSE(bSwitch(sImage(9, 7, 8, "ab")));
    EXPECT_FALSE(bIsAdmitted(8));
    const std::string sFd = std::to_string(fd);
    EXPECT_THAT(loggedLines(),
                ElementsAre("TCP message down send failed in SwitchPacket with returncode -1, "
                            "errno=32, send to socket " +
                                sFd + "\n",
                            "cleaning up socket fd " + sFd + "\n",
                            "removing socket for client 8, and notifying CS\n",
                            "Removing client table entry for address 0.0.0.0(0).\n"));
    EXPECT_EQ(1U, server.images().size());
}

TEST_F(SwitchPacketTest, AMissReadsTheRoutesAndAHitDoesNot) {
    const Peer peer = addAuthClient(8);
    giveRows("SELECT clientto FROM iopatch WHERE clientfrom='7' AND msgclass='128'", {"8"});
    EXPECT_TRUE(bSwitch(sImage(kChat, 7, 0, "ab")));
    EXPECT_TRUE(bSwitch(sImage(kChat, 7, 0, "ab")));
    EXPECT_EQ(2U, peer.images().size());
    EXPECT_EQ(1U, executedStatements().size());
    EXPECT_THAT(loggedLines(),
                ElementsAre("cache miss for source 7 type 128, now sending to 1 clients\n"));
}

TEST_F(SwitchPacketTest, AFailedQueryDropsLaterMessagesWithoutAnyQuery) {
    const Peer peer = addAuthClient(8);
    const std::string sQuery =
        "SELECT clientto FROM iopatch WHERE clientfrom='7' AND msgclass='128'";
    letFail(sQuery);
    EXPECT_TRUE(bSwitch(sImage(kChat, 7, 0, "ab")));
    giveRows(sQuery, {"8"});
    EXPECT_TRUE(bSwitch(sImage(kChat, 7, 0, "ab")));
    EXPECT_EQ(1U, executedStatements().size());
    EXPECT_THAT(peer.images(), IsEmpty());
}

TEST_F(SwitchPacketTest, ARoutedMessageReachesEveryConnectedDestinationUnchanged) {
    const Peer peer8 = addAuthClient(8);
    const Peer peer9 = addAuthClient(9);
    route(7, kChatPipe, {8, 4711, 9});
    const std::string sMessage = sImage(kChat, 7, 12345, "ab");
    EXPECT_TRUE(bSwitch(sMessage));
    EXPECT_THAT(peer8.images(), ElementsAre(sMessage));
    EXPECT_THAT(peer9.images(), ElementsAre(sMessage));
    EXPECT_EQ(2, nPacketsSwitched);
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(SwitchPacketTest, ALargestFrameIsForwardedUnchangedToMany) {
    std::vector<Peer> peers;
    std::vector<unsigned> destinations;
    for (int nID = 100; nID < 120; ++nID) {
        peers.push_back(addAuthClient(nID));
        destinations.push_back(static_cast<unsigned>(nID));
    }
    route(7, kChatPipe, destinations);
    const std::string sMessage = sImage(kChat, 7, 0, std::string(498, 'x') + "~~");
    ASSERT_EQ(509U, sMessage.size());
    EXPECT_TRUE(bSwitch(sMessage));
    for (const Peer& rPeer : peers) {
        EXPECT_EQ(sFrame(sMessage), rPeer.sReceived());
    }
}

TEST_F(SwitchPacketTest, AnOversizeMessageCostsNobodyItsConnection) {
    const Peer server = openLink();
    const Peer peer = addAuthClient(8);
    route(7, kChatPipe, {8});
    for (const int nType : {kChat, 9, 232}) {
        const std::string sMessage = sImage(nType, 7, 8, std::string(500, 'x'));
        EXPECT_TRUE(bSwitch(sMessage));
        EXPECT_TRUE(bSwitch(sMessage, 1));
    }
    EXPECT_TRUE(bIsAdmitted(8));
    EXPECT_THAT(peer.images(), IsEmpty());
    EXPECT_THAT(server.images(), IsEmpty());
    EXPECT_FALSE(server.bClosedByRelay());
    EXPECT_THAT(csForwardQueue, testing::SizeIs(0));
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(SwitchPacketTest, RoutedDeliveryTakesNothingFromTheHeap) {
    std::vector<Peer> peers;
    std::vector<unsigned> destinations;
    for (int nID = 100; nID < 110; ++nID) {
        peers.push_back(addAuthClient(nID));
        destinations.push_back(static_cast<unsigned>(nID));
    }
    route(7, kChatPipe, destinations);
    const std::string sMessage = sImage(kChat, 7, 0, "ab");
    NetMessage nmMessage(sMessage.data(), static_cast<int>(sMessage.size()));
    const size_t nBefore = nAllocations();
    const bool bSent = SwitchPacket(&nmMessage, 0, false);
    EXPECT_EQ(nBefore, nAllocations());
    EXPECT_TRUE(bSent);
    EXPECT_EQ(10, nPacketsSwitched);
}

TEST_F(SwitchPacketTest, VideoTakesTheSameFromTheHeapForManyDestinationsAsForOne) {
    std::vector<Peer> peers;
    std::vector<unsigned> destinations;
    for (int nID = 100; nID < 110; ++nID) {
        peers.push_back(addAuthClient(nID));
        destinations.push_back(static_cast<unsigned>(nID));
        videoPermissions.Grant(7, nID);
        videoPermissions.Grant(8, nID);
    }
    route(7, kVideoPipe, destinations);
    route(8, kVideoPipe, {100});
    const std::string sToMany = sVideo(7, 1, 1);
    const std::string sToOne = sVideo(8, 1, 1);
    size_t nBefore = nAllocations();
    EXPECT_TRUE(bSwitch(sToOne));
    const size_t nForOne = nAllocations() - nBefore;
    nBefore = nAllocations();
    EXPECT_TRUE(bSwitch(sToMany));
    EXPECT_EQ(nForOne, nAllocations() - nBefore);
    EXPECT_EQ(11, nPacketsSwitched);
}

TEST_F(SwitchPacketTest, EveryTwoHundredThousandthSendIsLogged) {
    const Peer peer8 = addAuthClient(8);
    const Peer peer9 = addAuthClient(9);
    route(7, kChatPipe, {8, 9});
    resetPacketsSwitchedForTest(199998);
    EXPECT_TRUE(bSwitch(sImage(kChat, 7, 0, "ab")));
    EXPECT_THAT(loggedLines(), ElementsAre("200000 tcp packets switched and sent, this packet "
                                           "switched from 7 to 9\n"));
    EXPECT_EQ(200000, nPacketsSwitched);
    EXPECT_TRUE(bSwitch(sImage(kChat, 7, 0, "ab")));
    EXPECT_EQ(1U, loggedLines().size());
}

TEST_F(SwitchPacketTest, The199999thSendIsNotLogged) {
    const Peer peer = addAuthClient(8);
    route(7, kChatPipe, {8});
    resetPacketsSwitchedForTest(199998);
    EXPECT_TRUE(bSwitch(sImage(kChat, 7, 0, "ab")));
    EXPECT_EQ(199999, nPacketsSwitched);
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(SwitchPacketTest, TheCounterWrapsInsteadOfOverflowing) {
    const Peer peer = addAuthClient(8);
    route(7, kChatPipe, {8});
    resetPacketsSwitchedForTest(2147483647);
    EXPECT_TRUE(bSwitch(sImage(kChat, 7, 0, "ab")));
    EXPECT_EQ(-2147483647 - 1, nPacketsSwitched);
}

TEST_F(SwitchPacketTest, FailedSendsAreNotCounted) {
    const Peer peer = addAuthClient(8);
    peer.stopReading();
    route(7, kChatPipe, {8});
    EXPECT_FALSE(bSwitch(sImage(kChat, 7, 0, "ab")));
    EXPECT_EQ(0, nPacketsSwitched);
}

TEST_F(SwitchPacketTest, AFailedDestinationIsDroppedAndTheOthersAreServed) {
    const Peer server = openLink();
    const Peer peer8 = addAuthClient(8);
    const Peer peer9 = addAuthClient(9);
    const std::string sFd = std::to_string(fdOf(8));
    peer8.stopReading();
    route(7, kChatPipe, {8, 9});
    const std::string sMessage = sImage(kChat, 7, 0, "ab");
    EXPECT_FALSE(bSwitch(sMessage));
    EXPECT_THAT(peer9.images(), ElementsAre(sMessage));
    EXPECT_FALSE(bIsAdmitted(8));
    const std::string sFrameSent = sFrame(sMessage);
    EXPECT_THAT(loggedLines(),
                ElementsAre("TCP message send failed in SwitchPacket - rc=-1, errno=32\n",
                            printableStr(sFrameSent.data(), static_cast<int>(sFrameSent.size()),
                                         asciiAndDecimal),
                            "cleaning up socket fd " + sFd + "\n",
                            "removing socket for client 8, and notifying CS\n",
                            "Removing client table entry for address 0.0.0.0(0).\n"));
    EXPECT_EQ(1U, server.images().size());
    EXPECT_EQ(1U, vRecentlyLost.size());
}

TEST_F(SwitchPacketTest, ADestinationThatTakesNoMoreIsDropped) {
    const Peer peer8 = addAuthClient(8);
    const Peer peer9 = addAuthClient(9);
    route(7, kChatPipe, {8, 9});
    const std::string sFill(65536, 'x');
    while (send(fdOf(8), sFill.data(), sFill.size(), MSG_DONTWAIT) > 0) {
    }
    EXPECT_FALSE(bSwitch(sImage(kChat, 7, 0, "ab")));
    EXPECT_FALSE(bIsAdmitted(8));
    EXPECT_EQ(1U, peer9.images().size());
}

TEST_F(SwitchPacketTest, TwoFailingDestinationsAreBothDropped) {
    const Peer server = openLink();
    const Peer peer8 = addAuthClient(8);
    const Peer peer9 = addAuthClient(9);
    const Peer peer10 = addAuthClient(10);
    peer8.stopReading();
    peer9.stopReading();
    route(7, kChatPipe, {8, 9, 10, 8});
    EXPECT_FALSE(bSwitch(sImage(kChat, 7, 0, "ab")));
    EXPECT_EQ(1, ctAuthClientTable.GetSize());
    EXPECT_EQ(1U, peer10.images().size());
    EXPECT_EQ(2U, server.images().size());
    EXPECT_EQ(2U, vRecentlyLost.size());
}

TEST_F(SwitchPacketTest, AMessageFromARelayPeerNeverGoesOnToAnother) {
    const Peer peer20 = addAuthClient(20);
    const Peer peer8 = addAuthClient(8);
    makePeer(20);
    route(7, kChatPipe, {20, 8});
    EXPECT_TRUE(bSwitch(sImage(kChat, 7, 0, "ab"), 0, true));
    EXPECT_THAT(peer20.images(), IsEmpty());
    EXPECT_EQ(1U, peer8.images().size()) << "the rest of the route is walked although it is gone";
    EXPECT_THAT(loggedLines(),
                ElementsAre("WARNING: suppressing possible relay loop to relay peer 20, "
                            "originating client 7. Likely there are old links in our system, will "
                            "try to clean up locally.\n"));
    EXPECT_EQ(dissolvingStatements(7, 20, kChatPipe), executedStatements());
    EXPECT_FALSE(bIsRouteCached(7, kChatPipe));
    EXPECT_EQ(1, nPacketsSwitched);
}

TEST_F(SwitchPacketTest, SeveralLoopsOfOneRouteAreAllDissolved) {
    const Peer peer20 = addAuthClient(20);
    const Peer peer21 = addAuthClient(21);
    makePeer(20);
    makePeer(21);
    route(7, kChatPipe, {20, 21});
    EXPECT_TRUE(bSwitch(sImage(kChat, 7, 0, "ab"), 0, true));
    EXPECT_EQ(2U, loggedLines().size());
    EXPECT_EQ(4U, executedStatements().size());
}

TEST_F(SwitchPacketTest, AMessageOfAnOwnClientGoesToARelayPeer) {
    const Peer peer = addAuthClient(20);
    makePeer(20);
    route(7, kChatPipe, {20});
    EXPECT_TRUE(bSwitch(sImage(kChat, 7, 0, "ab")));
    EXPECT_EQ(1U, peer.images().size());
}

TEST_F(SwitchPacketTest, TheFirstVideoMessageOfAPairIsDroppedAndTheFollowingPass) {
    const Peer peer = addAuthClient(8);
    route(7, kVideoPipe, {8});
    EXPECT_TRUE(bSwitch(sVideo(7, 1, 1)));
    EXPECT_THAT(peer.images(), IsEmpty());
    EXPECT_EQ(1U, nLoggedContaining("(of 2097152 requested)"));
    EXPECT_TRUE(bSwitch(sVideo(7, 1, 1)));
    EXPECT_TRUE(bSwitch(sVideo(7, 1, 1)));
    EXPECT_THAT(peer.images(), ElementsAre(sVideo(7, 1, 1), sVideo(7, 1, 1)));
    EXPECT_EQ(1U, nLoggedContaining("(of 2097152 requested)"));
}

TEST_F(SwitchPacketTest, DeniedVideoIsDroppedUntilTheDenialIsStale) {
    const Peer peer = addAuthClient(8);
    route(7, kVideoPipe, {8});
    videoPermissions.Deny(7, 8);
    EXPECT_TRUE(bSwitch(sVideo(7, 1, 1)));
    EXPECT_TRUE(bSwitch(sVideo(7, 1, 1)));
    EXPECT_THAT(peer.images(), IsEmpty());
    advanceClockForTest(3601);
    EXPECT_TRUE(bSwitch(sVideo(7, 1, 1)));
    EXPECT_THAT(peer.images(), IsEmpty()) << "the code from before the grant counts";
    EXPECT_TRUE(bSwitch(sVideo(7, 1, 1)));
    EXPECT_EQ(1U, peer.images().size());
}

TEST_F(SwitchPacketTest, AStaleGrantLetsVideoPass) {
    const Peer peer = addAuthClient(8);
    route(7, kVideoPipe, {8});
    videoPermissions.Grant(7, 8);
    advanceClockForTest(3601);
    EXPECT_TRUE(bSwitch(sVideo(7, 1, 1)));
    EXPECT_EQ(1U, peer.images().size());
    EXPECT_EQ(2, videoPermissions.getCode(7, 8));
}

TEST_F(SwitchPacketTest, OtherTypesOfTheVideoPipeNeedNoPermission) {
    const Peer peer = addAuthClient(8);
    route(7, kVideoPipe, {8});
    authClient(8).SetVideoThrottle(true);
    EXPECT_TRUE(bSwitch(sImage(0x42, 7, 0, "257~")));
    EXPECT_EQ(1U, peer.images().size());
}

TEST_F(SwitchPacketTest, AThrottledDestinationGetsNoLaterPages) {
    const Peer peer = addAuthClient(8);
    route(7, kVideoPipe, {8});
    videoPermissions.Grant(7, 8);
    authClient(8).SetVideoThrottle(true);
    EXPECT_TRUE(bSwitch(sVideo(7, 2, 3)));
    EXPECT_THAT(peer.images(), IsEmpty());
    EXPECT_TRUE(bSwitch(sVideo(7, 1, 3)));
    EXPECT_TRUE(bSwitch(sVideo(7, 2, 3)));
    EXPECT_THAT(peer.images(), ElementsAre(sVideo(7, 1, 3), sVideo(7, 2, 3)));
}

TEST_F(SwitchPacketTest, RelayPeersAreNeverThrottledButNeedPermission) {
    const Peer peer = addAuthClient(20);
    makePeer(20);
    route(7, kVideoPipe, {20});
    authClient(20).SetVideoThrottle(true);
    EXPECT_TRUE(bSwitch(sVideo(7, 2, 3)));
    EXPECT_THAT(peer.images(), IsEmpty());
    EXPECT_TRUE(bSwitch(sVideo(7, 2, 3)));
    EXPECT_EQ(1U, peer.images().size());
}

}  // namespace
