#include "relayserver/loop/event_loop.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "base/clock.h"
#include "base/string_format.h"
#include "connserver/signal_handling.h"
#include "relayserver/archive/archive_pass.h"
#include "relayserver/clients/client_removal.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/loop/housekeeping.h"
#include "relayserver/settings/settings.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/sockets/listeners.h"
#include "tests/stubs/logging_stub.h"
#include "tests/stubs/tesselsql_stub.h"
#include "tests/unit/relayserver/admission/tls_peer.h"
#include "tests/unit/relayserver/engine_fixture.h"
#include "tests/unit/relayserver/loopback.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class EventLoop : public EngineTest {
  protected:
    static int nReady() { return epoll_wait(ep_fd, ep_events, kMaxEpollEvents, 0); }

    /// Marks the one ready event as `nBits` and offers it as number `nIndex`.
    static void offerAs(unsigned nBits, int nIndex) {
        ASSERT_EQ(1, nReady());
        ep_events[0].events = nBits;
        offerToHandlers(ep_events[0], nIndex);
    }
    static std::string sClosing(int fd, const char* sBits, int nIndex) {
        return string_format(
            "socket %d will be closed, epoll error status 0x%s, event num %d processed in this "
            "loop\n",
            fd, sBits, nIndex);
    }
    static int fdOfLoose() {
        EXPECT_TRUE(ctLooseClientTable.bBeginTraverse());
        return ctLooseClientTable.current().GetMessageSocket()->getMsgSockFileDesc();
    }
};

TEST_F(EventLoop, AnErrorOfAnAdmittedClientIsALoss) {
    Peer peer = addAuthClient(7);
    const int fd = fdOf(7);
    peer.close();
    ASSERT_EQ(1, nReady());
    offerToHandlers(ep_events[0], 3);
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_EQ(1U, vRecentlyLost.size());
    ASSERT_GE(loggedLines().size(), 2U);
    EXPECT_EQ(sClosing(fd, "11", 3), loggedLines()[0]);
    EXPECT_EQ(string_format("cleaning up socket fd %d\n", fd), loggedLines()[1]);
}

TEST_F(EventLoop, ErrorAndHangUpEachEndAConnection) {
    for (const unsigned nBits : {EPOLLERR, EPOLLHUP}) {
        const Peer peer = addLooseClient();
        const int fd = fdOfLoose();
        loggedLines().clear();
        epoll_event epe{};
        offerAgain(fd);
        beginTurns();
        ASSERT_TRUE(bNextTurn(epe));
        epe.events = nBits;
        offerToHandlers(epe, 0);
        EXPECT_EQ(sClosing(fd, nBits == EPOLLERR ? "8" : "10", 0), loggedLines().front());
        EXPECT_EQ(0, ctLooseClientTable.GetSize());
    }
}

TEST_F(EventLoop, WhatAClientSaidBeforeItsEndIsHandledFirst) {
    Peer peer = addAuthClient(7);
    peer.sendBytes(sFrame(sImage(2, 7, 0, "")));  // a log-out
    peer.close();
    ASSERT_EQ(1, nReady());
    offerToHandlers(ep_events[0], 0);
    EXPECT_EQ(1U, nLogged("received logout from client 7\n"));
    EXPECT_EQ(0U, nLoggedContaining("will be closed"));
    EXPECT_THAT(vRecentlyLost, IsEmpty()) << "it went properly";
}

TEST_F(EventLoop, AnErrorOfAnUnknownDescriptorClosesIt) {
    int fds[2] = {-1, -1};
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
    addToEpollForRead(fds[0]);
    close(fds[1]);
    ASSERT_EQ(1, nReady());
    offerToHandlers(ep_events[0], 0);
    EXPECT_EQ("WARNING: could not identify client - closing fd anyway\n", loggedLines().back());
    EXPECT_EQ(0, nReady());
}

TEST_F(EventLoop, AnErrorOfTheLinkIsHandledThere) {
    Peer server = openLink();
    const int fd = connserv_sockfd;
    server.close();
    ASSERT_EQ(1, nReady());
    offerToHandlers(ep_events[0], 0);
    EXPECT_EQ(sClosing(fd, "11", 0), loggedLines().front());
    EXPECT_EQ(1U, nLogged("cleanbadsocket was on connection server\n"));
    EXPECT_EQ(0, connserv_sockfd);
}

TEST_F(EventLoop, AStaleEventIsPassedOver) {
    const Peer first = addAuthClient(1);
    const Peer second = addAuthClient(2);
    first.sendBytes("x");
    second.sendBytes("x");
    ASSERT_EQ(2, nReady());
    DeleteClient(ctAuthClientTable, authClient(1), LeaveReason::kLoggedOut);
    DeleteClient(ctAuthClientTable, authClient(2), LeaveReason::kLoggedOut);
    loggedLines().clear();
    for (int i = 0; i < 2; ++i) {
        ep_events[i].events |= EPOLLHUP;
        offerToHandlers(ep_events[i], i);
    }
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(EventLoop, AStaleErrorDoesNotStrikeTheNewcomerWithTheSameNumber) {
    const Peer old = addAuthClient(1);
    const int fdOld = fdOf(1);
    old.sendBytes("x");
    ASSERT_EQ(1, nReady());
    DeleteClient(ctAuthClientTable, authClient(1), LeaveReason::kLoggedOut);
    const Peer newcomer = addAuthClient(2);
    ASSERT_EQ(fdOld, fdOf(2)) << "the number is used again";
    ep_events[0].events |= EPOLLHUP;
    offerToHandlers(ep_events[0], 0);
    EXPECT_TRUE(bIsAdmitted(2));
}

TEST_F(EventLoop, AnAdmittedClientIsRead) {
    const Peer peer = addAuthClient(7);
    advanceClockForTest(1);
    peer.sendBytes(sFrame(sImage(12, 7, 0, "")));
    offerAs(EPOLLIN, 0);
    long lLastMessage = 0;
    authClient(7).GetLastMessageTime(lLastMessage);
    EXPECT_EQ(kNow + 1, lLastMessage);
}

TEST_F(EventLoop, ALooseClientIsStepped) {
    const Peer peer = addLooseClient();
    peer.sendBytes(sFrame(sImage(3, 0, 0, "")));
    offerAs(EPOLLIN, 0);
    EXPECT_EQ(1U, nLoggedContaining("Message type 0x03 received from unauthorized client"));
}

TEST_F(EventLoop, ThePlainListenerAccepts) {
    connect_listen_sockfd = nOpenLoopbackListener();
    addToEpollForRead(connect_listen_sockfd);
    const Peer peer(nConnectLoopback(nLocalPort(connect_listen_sockfd)));
    ASSERT_TRUE(bWaitReadable(connect_listen_sockfd));
    offerAs(EPOLLIN, 0);
    EXPECT_EQ(1, ctLooseClientTable.GetSize());
}

TEST_F(EventLoop, TheTlsListenerAccepts) {
    prepareServerContext();
    ssl_listen_sockfd = nOpenLoopbackListener();
    addToEpollForRead(ssl_listen_sockfd);
    const Peer peer(nConnectLoopback(nLocalPort(ssl_listen_sockfd)));
    ASSERT_TRUE(bWaitReadable(ssl_listen_sockfd));
    offerAs(EPOLLIN, 0);
    ASSERT_EQ(1, ctSslHandshakingTable.GetSize());
    offerAs(EPOLLOUT, 0);  // the handshake is next
    EXPECT_EQ(1, ctSslHandshakingTable.GetSize());
    EXPECT_EQ(0, nReady()) << "waits for the peer now";
}

TEST_F(EventLoop, AFailedWaitIsLoggedAndThePassGoesOn) {
    const Peer peer = addAuthClient(7);
    setClockForTest(kNow + 19);  // divisible by four
    close(ep_fd);
    ep_fd = -1;
    runOnePass();
    EXPECT_EQ("epoll error - Bad file descriptor\n", loggedLines().front());
    EXPECT_FALSE(bIsAdmitted(7)) << "the timers ran";
}

TEST_F(EventLoop, APassHandlesEveryReadyDescriptor) {
    const Peer first = addAuthClient(1);
    const Peer second = addAuthClient(2);
    const Peer third = addLooseClient();
    first.sendBytes(sFrame(sImage(12, 1, 0, "")));
    second.sendBytes(sFrame(sImage(12, 2, 0, "")));
    third.sendBytes(sFrame(sImage(3, 0, 0, "")));
    runOnePass();
    EXPECT_EQ(9U, authClient(1).GetTcpInputByteCounter());
    EXPECT_EQ(9U, authClient(2).GetTcpInputByteCounter());
    EXPECT_EQ(1U, nLoggedContaining("unauthorized client"));
    EXPECT_DOUBLE_EQ(3, epoll_load_avg_1);
    EXPECT_EQ(0, nReady());
}

TEST_F(EventLoop, APassHasAHeadAWaitAndATail) {
    const Peer peer = addAuthClient(7);
    setDatabaseHealthy(false);
    setClockForTest(kNow + 19);  // divisible by four
    close(ep_fd);
    ep_fd = -1;
    runOnePass();
    const std::vector<std::string> steps = {"PostgreSQL database not connected!", "epoll error - ",
                                            "Dropping connect to client ID 7"};
    EXPECT_EQ(steps, partsInLogOrder(steps));
}

TEST_F(EventLoop, WhatArrivesInAPassCountsForItsTimers) {
    const Peer peer = addAuthClient(7);
    setClockForTest(kNow + 19);
    peer.sendBytes(sFrame(sImage(12, 7, 0, "")));
    runOnePass();
    EXPECT_TRUE(bIsAdmitted(7)) << "it has just spoken";
}

TEST_F(EventLoop, TheReportHasTheLoadOfItsOwnPass) {
    const Peer peer = addAuthClient(7);
    setClockForTest(kNow / 60 * 60 + 60);
    peer.sendBytes(sFrame(sImage(12, 7, 0, "")));
    runOnePass();
    EXPECT_EQ(1U, nLogged("Load reporting: epoll descriptors active per loop : 1 / 0.0 / 0.0 (1 "
                          "loop / 1K avg / 1M avg)\n"));
}

TEST_F(EventLoop, AQuietPassEndsAfterHalfASecond) {
    using std::chrono::milliseconds;
    using std::chrono::steady_clock;
    steady_clock::duration shortest = milliseconds(10000);
    for (int i = 0; i < 5 && shortest > milliseconds(900); ++i) {  // the machine may be slow once
        const auto begin = steady_clock::now();
        runOnePass();
        shortest = std::min(shortest, steady_clock::now() - begin);
    }
    EXPECT_GE(shortest, milliseconds(495));
    EXPECT_LT(shortest, milliseconds(900));
}

TEST_F(EventLoop, AWaitingTurnIsServedWithoutAnEventAndWithoutSleep) {
    const Peer peer = addLooseClient();
    // The pass ends at the old log-in; what follows it has left the kernel.
    peer.sendBytes(sFrame(sImage(1, 0, 0, "")) + sFrame(sImage(3, 0, 0, "")));
    runOnePass();
    EXPECT_EQ(0U, nLoggedContaining("unauthorized client"));
    EXPECT_EQ(0, nReady());
    ASSERT_TRUE(bTurnsWaiting());
    const auto begin = std::chrono::steady_clock::now();
    runOnePass();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500));
    EXPECT_EQ(1U, nLoggedContaining("unauthorized client"));
    EXPECT_DOUBLE_EQ(0, epoll_load_avg_1) << "turns are no load of epoll";
    EXPECT_FALSE(bTurnsWaiting());
}

TEST_F(EventLoop, WhatTheArchiveHasLeftToHandOverKeepsTheLoopAwake) {
    bArchiveEnable = true;
    nArchiveInterval = 1;
    for (unsigned nID = 1; nID <= 1000; ++nID) {
        archiveCaption(nID, "ab");
    }
    advanceClockForTest(15);
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 8; ++i) {
        runOnePass();
        EXPECT_TRUE(bArchiveWaits());
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4))
        << "eight passes that wait take longer";
    for (int i = 0; i < 1000 && bArchiveWaits(); ++i) {
        headOfPass();
    }
    EXPECT_FALSE(bArchiveWaits());
}

TEST_F(EventLoop, EventsAreServedWhileTheArchiveHandsOver) {
    const Peer peer = addAuthClient(7);
    bArchiveEnable = true;
    nArchiveInterval = 1;
    for (unsigned nID = 1; nID <= 2000; ++nID) {
        archiveCaption(nID, "ab");
    }
    advanceClockForTest(16);  // no second in which the counters of clients are reset
    peer.sendBytes(sFrame(sImage(12, 7, 0, "")));
    runOnePass();
    EXPECT_TRUE(bArchiveWaits());
    EXPECT_EQ(9U, authClient(7).GetTcpInputByteCounter());
}

TEST_F(EventLoop, TheLoopEndsWhenExitIsRequested) {
    exitRequested = 1;
    runEventLoop();  // makes no pass
    exitRequested = 0;
    EXPECT_EQ(0, ttThisLoop);
}

TEST_F(EventLoop, ALinkThatBrokeDuringStartUpIsSettledFirst) {
    const Peer server = openLink();
    markLinkBroken();
    exitRequested = 1;
    runEventLoop();
    exitRequested = 0;
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
    EXPECT_EQ(1U, nLogged("Lost connection to CS!\n"));
}

}  // namespace
