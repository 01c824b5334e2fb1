#include "relayserver/peers/pending_connects.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include "base/clock.h"
#include "base/string_format.h"
#include "genner/output/LostConnectionNetMessage.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/settings/settings.h"
#include "relayserver/sockets/epoll_set.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/peers/peer_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* kCannotBind =
    "WARNING: continuing with connection despite bind sock opt errors!\n";

class PendingConnects : public PeerTest {
  protected:
    static void start(const Order& order) { startPeerConnect(orderOf(order)); }
    static void lose(int nClientID) {
        const Orvex::LostConnectionNetMessage lcnm(nClientID);
        AddToRecentlyLost(&lcnm);
    }

    const OtherRelay other;
};

TEST_F(PendingConnects, HaveAllThatTheOrderSays) {
    advanceClockForTest(3);
    start({.nToID = 8, .nTcpPort = other.nPort(), .nUdpPort = 6900, .sTicket = "a"});
    EXPECT_EQ("a", sTicketOf(pending(8)));
    EXPECT_EQ(htons(6900), pending(8).nRelayUdpBasePort);
    sockaddr_in siPeer{};
    pending(8).GetAddress(siPeer);
    EXPECT_EQ(siOf("127.0.0.1", 0).sin_addr.s_addr, siPeer.sin_addr.s_addr);
    EXPECT_EQ(htons(static_cast<std::uint16_t>(other.nPort())), siPeer.sin_port);
    long lCreated = 0;
    pending(8).GetLastMessageTime(lCreated);
    EXPECT_EQ(kNow + 3, lCreated);
    EXPECT_EQ(0, ctAuthClientTable.GetSize());
}

TEST_F(PendingConnects, NeitherBlockNorWaitForFullPackets) {
    start({.nTcpPort = other.nPort()});
    const int fd = fdOf(pending(8));
    EXPECT_NE(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
    int nNoDelay = 0;
    socklen_t nLen = sizeof nNoDelay;
    ASSERT_EQ(0, getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nNoDelay, &nLen));
    EXPECT_NE(0, nNoDelay);
}

TEST_F(PendingConnects, AreWatchedForWritability) {
    start({.nTcpPort = other.nPort()});
    ASSERT_EQ(1, epoll_wait(ep_fd, ep_events, kMaxEpollEvents, 5000));
    EXPECT_EQ(static_cast<unsigned>(EPOLLOUT), ep_events[0].events);
    EXPECT_EQ(fdOf(pending(8)), nDescriptorOf(ep_events[0]));
}

TEST_F(PendingConnects, AreNoLongerLosses) {
    lose(8);
    lose(9);
    start({.nToID = 8, .nTcpPort = other.nPort()});
    ASSERT_EQ(1U, vRecentlyLost.size());
    EXPECT_EQ(9, vRecentlyLost.front()->GetClientID());
    EXPECT_EQ("Removed recently lost message on client 8 from re-send list (1 instances)\n",
              loggedLines().back());
}

TEST_F(PendingConnects, OrderedAgainToTheSamePlaceGoOnWithTheNewTicket) {
    start({.nTcpPort = other.nPort(), .nUdpPort = 6900, .sTicket = "first"});
    const int fd = fdOf(pending(8));
    const int nBefore = nOpenDescriptors();
    loggedLines().clear();
    lose(8);
    start({.nTcpPort = other.nPort(), .nUdpPort = 7000, .sTicket = "second"});
    EXPECT_EQ(1, ctOutboundConnectsPending.GetSize());
    EXPECT_EQ(fd, fdOf(pending(8)));
    EXPECT_EQ("second", sTicketOf(pending(8)));
    EXPECT_EQ(htons(7000), pending(8).nRelayUdpBasePort);
    EXPECT_EQ(nBefore, nOpenDescriptors());
    EXPECT_EQ(0U, nLoggedContaining("connecting with relay peer"));
    EXPECT_THAT(vRecentlyLost, IsEmpty());
}

TEST_F(PendingConnects, OrderedToAnotherPlaceAreGivenUpForIt) {
    const OtherRelay moved("127.0.0.2");
    start({.nTcpPort = other.nPort(), .sTicket = "first"});
    const Peer atOldPlace = other.acceptRelay();
    const int nBefore = nOpenDescriptors();
    start({.nTcpPort = moved.nPort(), .sTicket = "second", .sAddress = "127.0.0.2"});
    EXPECT_EQ(1, ctOutboundConnectsPending.GetSize());
    EXPECT_EQ("second", sTicketOf(pending(8)));
    EXPECT_EQ(nBefore, nOpenDescriptors());
    EXPECT_TRUE(atOldPlace.bClosedByRelay());
    EXPECT_TRUE(moved.bHasCaller());
    EXPECT_EQ(1U, nLogged(string_format("Removing client table entry for address 127.0.0.1(%d).\n",
                                        other.nPort())));
}

TEST_F(PendingConnects, OrderedToAnotherPortAreGivenUpForIt) {
    const OtherRelay moved;
    start({.nTcpPort = other.nPort()});
    const Peer atOldPlace = other.acceptRelay();
    start({.nTcpPort = moved.nPort()});
    EXPECT_EQ(1, ctOutboundConnectsPending.GetSize());
    EXPECT_TRUE(atOldPlace.bClosedByRelay());
    EXPECT_TRUE(moved.bHasCaller());
}

TEST_F(PendingConnects, OfOneRelayDoNotTouchThoseOfAnother) {
    start({.nToID = 8, .nTcpPort = other.nPort(), .sTicket = "for 8"});
    start({.nToID = 9, .nTcpPort = other.nPort(), .sTicket = "for 9"});
    EXPECT_EQ("for 8", sTicketOf(pending(8)));
    EXPECT_EQ("for 9", sTicketOf(pending(9)));
}

TEST_F(PendingConnects, WithoutADescriptorEndInTheLog) {
    rlimit before{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    start({.nTcpPort = other.nPort()});
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
    EXPECT_THAT(loggedLines(), ElementsAre("new relay connection: socket create failure"));
    EXPECT_EQ(0, ctOutboundConnectsPending.GetSize());
}

TEST_F(PendingConnects, ThatFailAtOnceEndInTheLog) {
    lose(8);
    const int nBefore = nOpenDescriptors();
    start({.nTcpPort = 9, .sAddress = "255.255.255.255"});
    EXPECT_EQ("could not start a connect to relay 255.255.255.255\n", loggedLines().back());
    EXPECT_EQ(0, ctOutboundConnectsPending.GetSize());
    EXPECT_EQ(nBefore, nOpenDescriptors());
    EXPECT_EQ(1U, vRecentlyLost.size()) << "the order was not followed";
}

TEST_F(PendingConnects, GoOnWithoutTheInterfaceThatIsConfigured) {
    sBindDev = "no-such-device";
    start({.nTcpPort = other.nPort()});
    EXPECT_EQ(1U, nLogged(kCannotBind));
    EXPECT_TRUE(bIsPending(8));
    EXPECT_TRUE(other.bHasCaller());
}

TEST_F(PendingConnects, GoOnWithoutTheAddressThatIsConfigured) {
    sBindAddr = "203.0.113.1";  // not an address of this host
    start({.nTcpPort = other.nPort()});
    EXPECT_EQ(1U, nLogged(kCannotBind));
    EXPECT_TRUE(bIsPending(8));
    EXPECT_TRUE(other.bHasCaller());
}

TEST_F(PendingConnects, ComeFromTheAddressThatIsConfigured) {
    sBindAddr = "127.0.0.5";
    start({.nTcpPort = other.nPort()});
    sockaddr_in siLocal{};
    socklen_t nLen = sizeof siLocal;
    ASSERT_EQ(0, getsockname(fdOf(pending(8)), reinterpret_cast<sockaddr*>(&siLocal), &nLen));
    EXPECT_EQ(siOf("127.0.0.5", 0).sin_addr.s_addr, siLocal.sin_addr.s_addr);
    EXPECT_EQ(0U, nLogged(kCannotBind));
}

TEST_F(PendingConnects, MayHaveAnyIdAndAnyTicket) {
    const std::string sLongest(64, '\xFF');
    start({.nToID = 0, .nTcpPort = other.nPort(), .sTicket = ""});
    start({.nToID = -5, .nTcpPort = other.nPort(), .sTicket = sLongest});
    EXPECT_EQ("", sTicketOf(pending(0)));
    EXPECT_EQ(sLongest, sTicketOf(pending(-5)));
    EXPECT_EQ(1U, nLoggedContaining("connecting with relay peer 4294967291 on tcp port"));
}

TEST_F(PendingConnects, ToPort0AreLeftToTheKernel) {
    const int nBefore = nOpenDescriptors();
    start({.nTcpPort = 0});
    if (bIsPending(8)) {
        offerReady();  // refused
    }
    EXPECT_EQ(0, ctOutboundConnectsPending.GetSize());
    EXPECT_EQ(0, ctAuthClientTable.GetSize());
    EXPECT_EQ(nBefore, nOpenDescriptors());
}

TEST_F(PendingConnects, ToAPortThatDoesNotExistGoToItsLower16Bits) {
    start({.nTcpPort = 65536 + other.nPort()});
    EXPECT_TRUE(other.bHasCaller());
    EXPECT_EQ(1U, nLogged(string_format("debug: connecting with relay peer 8 on tcp port %d\n",
                                        65536 + other.nPort())));
}

}  // namespace
