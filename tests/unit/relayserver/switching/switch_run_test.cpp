/// Messages that travel in a run: what each destination receives, and what happens when one cannot
/// take all of them.
#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "base/printable_str.h"
#include "base/string_format.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/peers/relay_peer.h"
#include "relayserver/routes/RoutingCache.h"
#include "relayserver/switching/switch_packet.h"
#include "tests/stubs/allocation_count.h"
#include "tests/stubs/logging_stub.h"
#include "tests/stubs/send_buffer.h"
#include "tests/stubs/tesselsql_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"

using Tessel_Routing::RouteEntry;
using Tessel_Routing::RoutingCache;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

namespace {

class SwitchRunTest : public EngineTest {
  protected:
    /// Captions of source 7, each with a different text and length.
    explicit SwitchRunTest(unsigned nCount = 100) {
        for (unsigned i = 0; i < nCount; ++i) {
            images.push_back(sImage(kCaption, 7, 0, string_format("%05u", i)));
            images.back().resize(11 + i * 37 % 490 / 2 * 2, 'x');
            sFrames += sFrame(images.back());
        }
        run = {sFrames, nCount, 7, kCaptionPipe, false};
    }

    /// Limits what is accepted for a destination that does not read to about `nBytes`.
    static void limitBuffer(int nClientID, int nBytes) {
        ASSERT_EQ(0, setsockopt(fdOf(nClientID), SOL_SOCKET, SO_SNDBUF, &nBytes, sizeof nBytes));
    }

    /// The number of whole frames in the first `nBytes` bytes.
    size_t nWholeFrames(size_t nBytes) const {
        size_t nWhole = 0;
        for (size_t nAt = 0; nWhole < images.size(); ++nWhole) {
            nAt += images[nWhole].size() + 1;
            if (nAt > nBytes) {
                break;
            }
        }
        return nWhole;
    }

    std::vector<std::string> images;
    std::string sFrames;
    MessageRun run;
};

TEST_F(SwitchRunTest, AnEmptyRunIsNone) {
    EXPECT_TRUE(bSwitchRun(MessageRun()));
    EXPECT_THAT(executedStatements(), IsEmpty());
}

TEST_F(SwitchRunTest, EachDestinationGetsAllInOrder) {
    const Peer peer8 = addAuthClient(8);
    const Peer peer9 = addAuthClient(9);
    route(7, kCaptionPipe, {8, 4711, 9});
    EXPECT_TRUE(bSwitchRun(run));
    EXPECT_EQ(sFrames, peer8.sReceived());
    EXPECT_EQ(sFrames, peer9.sReceived());
    EXPECT_EQ(200, nPacketsSwitched);
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(SwitchRunTest, OneWriteAndOneQueryServeThemAll) {
    const Peer peer8 = addAuthClient(8);
    // A seqpacket socket keeps the writes apart.
    std::array<int, 2> fds{};
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds.data()));
    ASSERT_EQ(fdOf(8), dup2(fds[0], fdOf(8)));
    close(fds[0]);
    const Peer reader(fds[1]);
    giveRows("SELECT clientto FROM iopatch WHERE clientfrom='7' AND msgclass='192'", {"8"});
    EXPECT_TRUE(bSwitchRun(run));
    std::string sFirst(sFrames.size() + 1, '\0');
    EXPECT_EQ(static_cast<ssize_t>(sFrames.size()),
              recv(reader.fd(), sFirst.data(), sFirst.size(), MSG_DONTWAIT));
    EXPECT_EQ("", reader.sReceived());
    EXPECT_THAT(executedStatements(), SizeIs(1));
    EXPECT_THAT(loggedLines(),
                ElementsAre("cache miss for source 7 type 192, now sending to 1 clients\n"));
}

TEST_F(SwitchRunTest, TakesNothingFromTheHeap) {
    const Peer peer8 = addAuthClient(8);
    route(7, kCaptionPipe, {8, 8, 8});
    const size_t nBefore = nAllocations();
    EXPECT_TRUE(bSwitchRun(run));
    EXPECT_EQ(nBefore, nAllocations());
}

TEST_F(SwitchRunTest, TheOrderIsKeptOverRunsAndSingleMessages) {
    const Peer peer8 = addAuthClient(8);
    route(7, kCaptionPipe, {8});
    const std::string sSingle = sImage(kCaption, 7, 0, "between the runs");
    std::vector<std::string> expected;
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(bSwitchRun(run));
        expected.insert(expected.end(), images.begin(), images.end());
        Orvex::NetMessage nmMessage(sSingle.data(), static_cast<int>(sSingle.size()));
        EXPECT_TRUE(SwitchPacket(&nmMessage, 0, false));
        expected.push_back(sSingle);
    }
    EXPECT_EQ(expected, peer8.images());
    EXPECT_EQ(303, nPacketsSwitched);
}

TEST_F(SwitchRunTest, WhoStopsReadingInTheMiddleIsDroppedWithTheFrameThatBroke) {
    const Peer server = openLink();
    const Peer peer8 = addAuthClient(8);
    const std::string sFd = std::to_string(fdOf(8));
    limitBuffer(8, 5000);
    route(7, kCaptionPipe, {8});
    EXPECT_FALSE(bSwitchRun(run));
    EXPECT_FALSE(bIsAdmitted(8));
    const std::string sGot = peer8.sReceived();
    const size_t nWhole = nWholeFrames(sGot.size());
    ASSERT_LT(0U, nWhole);
    ASSERT_LT(nWhole, images.size());
    EXPECT_EQ(sFrames.substr(0, sGot.size()), sGot);
    EXPECT_TRUE(peer8.bClosedByRelay());
    EXPECT_EQ(static_cast<int>(nWhole), nPacketsSwitched);
    const std::string sBroken = sFrame(images[nWhole]);
    EXPECT_THAT(
        loggedLines(),
        ElementsAre(StartsWith("TCP message send failed in SwitchPacket - rc=-1, errno="),
                    printableStr(sBroken.data(), static_cast<int>(sBroken.size()), asciiAndDecimal),
                    "cleaning up socket fd " + sFd + "\n",
                    "removing socket for client 8, and notifying CS\n",
                    "Removing client table entry for address 0.0.0.0(0).\n"));
    EXPECT_THAT(server.images(), SizeIs(1));
    EXPECT_THAT(vRecentlyLost, SizeIs(1));
}

TEST_F(SwitchRunTest, WhoseBufferIsFullBreaksWithTheFirstFrame) {
    const Peer peer8 = addAuthClient(8);
    route(7, kCaptionPipe, {8});
    const std::string sFill(1000, 'f');
    while (send(fdOf(8), sFill.data(), sFill.size(), MSG_DONTWAIT) > 0) {
    }
    EXPECT_FALSE(bSwitchRun(run));
    EXPECT_FALSE(bIsAdmitted(8));
    EXPECT_EQ(0, nPacketsSwitched);
    const std::string sBroken = sFrame(images[0]);
    EXPECT_EQ(1U, nLogged(printableStr(sBroken.data(), static_cast<int>(sBroken.size()),
                                       asciiAndDecimal)));
    EXPECT_EQ(std::string::npos, peer8.sReceived().find_first_not_of('f'));
}

TEST_F(SwitchRunTest, TheOthersGetEverythingWhereverTheyStandInTheRoute) {
    const Peer peer7 = addAuthClient(7);
    const Peer peer8 = addAuthClient(8);
    const Peer peer9 = addAuthClient(9);
    limitBuffer(8, 5000);
    route(7, kCaptionPipe, {7, 8, 9});
    EXPECT_FALSE(bSwitchRun(run));
    EXPECT_FALSE(bIsAdmitted(8));
    EXPECT_EQ(images, peer7.images());
    EXPECT_EQ(images, peer9.images());
    EXPECT_EQ(200 + static_cast<int>(nWholeFrames(peer8.sReceived().size())), nPacketsSwitched);
}

TEST_F(SwitchRunTest, WhoTakesNoMoreCostsOneWaitOfAMillisecond) {
    const Peer peer8 = addAuthClient(8);
    const Peer peer9 = addAuthClient(9);
    limitBuffer(8, 5000);
    route(7, kCaptionPipe, {8, 9, 8});
    const size_t nBefore = nPolls();
    EXPECT_FALSE(bSwitchRun(run));
    EXPECT_EQ(nBefore + 1, nPolls());
    EXPECT_EQ(1, nMillisOfLastPoll());
    EXPECT_TRUE(bSwitchRun(run));
    EXPECT_EQ(nBefore + 1, nPolls());
}

TEST_F(SwitchRunTest, WhoHasGoneGetsNothingAndCountsNothing) {
    const Peer peer8 = addAuthClient(8);
    const Peer peer9 = addAuthClient(9);
    peer8.stopReading();
    route(7, kCaptionPipe, {8, 9, 8});
    EXPECT_FALSE(bSwitchRun(run));
    EXPECT_EQ(100, nPacketsSwitched);
    EXPECT_EQ(images, peer9.images());
    EXPECT_EQ(1U, nLogged("TCP message send failed in SwitchPacket - rc=-1, errno=32\n"));
    const std::string sFirst = sFrame(images[0]);
    EXPECT_EQ(
        1U, nLogged(printableStr(sFirst.data(), static_cast<int>(sFirst.size()), asciiAndDecimal)));
    EXPECT_TRUE(bSwitchRun(run)) << "the one that failed is not there any more";
    EXPECT_EQ(200, nPacketsSwitched);
}

TEST_F(SwitchRunTest, SeveralMayFailInOneRun) {
    const Peer server = openLink();
    const Peer peer8 = addAuthClient(8);
    const Peer peer9 = addAuthClient(9);
    const Peer peer10 = addAuthClient(10);
    peer8.stopReading();
    limitBuffer(10, 5000);
    route(7, kCaptionPipe, {8, 9, 10});
    EXPECT_FALSE(bSwitchRun(run));
    EXPECT_EQ(images, peer9.images());
    EXPECT_EQ(1, ctAuthClientTable.GetSize());
    EXPECT_THAT(server.images(), SizeIs(2));
}

TEST_F(SwitchRunTest, TheTwoHundredThousandthIsToldInTheMiddleOfARun) {
    const Peer peer8 = addAuthClient(8);
    const Peer peer9 = addAuthClient(9);
    route(7, kCaptionPipe, {8, 9});
    resetPacketsSwitchedForTest(200000 - 150);
    EXPECT_TRUE(bSwitchRun(run));
    EXPECT_THAT(loggedLines(), ElementsAre("200000 tcp packets switched and sent, this packet "
                                           "switched from 7 to 9\n"));
    EXPECT_EQ(200050, nPacketsSwitched);
}

TEST_F(SwitchRunTest, TheTwoHundredThousandthIsToldThoughALaterFrameBreaks) {
    const Peer peer8 = addAuthClient(8);
    limitBuffer(8, 5000);
    route(7, kCaptionPipe, {8});
    resetPacketsSwitchedForTest(199999);
    EXPECT_FALSE(bSwitchRun(run));
    EXPECT_EQ("200000 tcp packets switched and sent, this packet switched from 7 to 8\n",
              loggedLines().front());
}

TEST_F(SwitchRunTest, ARunOfARelayPeerNeverGoesOnToAnother) {
    const Peer peer20 = addAuthClient(20);
    const Peer peer8 = addAuthClient(8);
    makePeer(20);
    route(7, kCaptionPipe, {20, 8});
    run.bFromRelayPeer = true;
    EXPECT_TRUE(bSwitchRun(run));
    EXPECT_THAT(peer20.images(), IsEmpty());
    EXPECT_EQ(images, peer8.images()) << "though the route is gone";
    EXPECT_THAT(loggedLines(),
                ElementsAre("WARNING: suppressing possible relay loop to relay peer 20, "
                            "originating client 7. Likely there are old links in our system, will "
                            "try to clean up locally.\n"));
    EXPECT_EQ(dissolvingStatements(7, 20, kCaptionPipe), executedStatements());
    EXPECT_FALSE(bIsRouteCached(7, kCaptionPipe));
    EXPECT_EQ(100, nPacketsSwitched);
}

TEST_F(SwitchRunTest, ARunOfAnOwnClientGoesToARelayPeer) {
    const Peer peer20 = addAuthClient(20);
    makePeer(20);
    route(7, kCaptionPipe, {20});
    EXPECT_TRUE(bSwitchRun(run));
    EXPECT_EQ(images, peer20.images());
}

}  // namespace
