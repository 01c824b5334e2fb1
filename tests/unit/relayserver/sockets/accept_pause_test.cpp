#include "relayserver/sockets/accept_pause.h"

#include "base/clock.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/sockets/listeners.h"
#include "tests/unit/relayserver/engine_fixture.h"
#include "tests/unit/relayserver/loopback.h"

namespace {

class AcceptPause : public EngineTest {
  protected:
    AcceptPause() {
        connect_listen_sockfd = nOpenLoopbackListener();
        ssl_listen_sockfd = nOpenLoopbackListener();
        addToEpollForRead(connect_listen_sockfd);
        addToEpollForRead(ssl_listen_sockfd);
    }

    /// Whether both listeners are watched; asks by letting a client wait at each.
    int nWatched() {
        while (_waiting.size() < 2) {
            const int fdListener = _waiting.empty() ? connect_listen_sockfd : ssl_listen_sockfd;
            _waiting.emplace_back(nConnectLoopback(nLocalPort(fdListener)));
            EXPECT_TRUE(bWaitReadable(fdListener));
        }
        return epoll_wait(ep_fd, ep_events, kMaxEpollEvents, 0);
    }

  private:
    std::vector<Peer> _waiting;
};

TEST_F(AcceptPause, APausedListenerIsNotWatched) {
    EXPECT_EQ(2, nWatched());
    EXPECT_TRUE(bPauseAccepting(connect_listen_sockfd));
    EXPECT_EQ(1, nWatched());
}

TEST_F(AcceptPause, TheSameWantIsNewsOnceForEachListener) {
    EXPECT_TRUE(bPauseAccepting(connect_listen_sockfd));
    EXPECT_TRUE(bPauseAccepting(ssl_listen_sockfd));
    EXPECT_EQ(0, nWatched());
    advanceClockForTest(1);
    resumeAccepting();
    EXPECT_FALSE(bPauseAccepting(connect_listen_sockfd));
    EXPECT_FALSE(bPauseAccepting(ssl_listen_sockfd));
}

TEST_F(AcceptPause, ListenersStayPausedWithinTheSecond) {
    (void)bPauseAccepting(connect_listen_sockfd);
    resumeAccepting();
    EXPECT_EQ(1, nWatched());
}

TEST_F(AcceptPause, AllListenersAreWatchedAgainInTheNextSecond) {
    (void)bPauseAccepting(connect_listen_sockfd);
    (void)bPauseAccepting(ssl_listen_sockfd);
    advanceClockForTest(1);
    resumeAccepting();
    EXPECT_EQ(2, nWatched());
    resumeAccepting();  // nothing is left to resume
    EXPECT_EQ(2, nWatched());
}

TEST_F(AcceptPause, AClockSetBackDoesNotKeepThemPaused) {
    (void)bPauseAccepting(connect_listen_sockfd);
    advanceClockForTest(-3600);
    resumeAccepting();
    EXPECT_EQ(2, nWatched());
}

TEST_F(AcceptPause, TheWantIsNewsAgainAfterAnAcceptedConnection) {
    EXPECT_TRUE(bPauseAccepting(connect_listen_sockfd));
    advanceClockForTest(1);
    resumeAccepting();
    EXPECT_FALSE(bPauseAccepting(connect_listen_sockfd));
    advanceClockForTest(1);
    resumeAccepting();
    noteAccepted();
    EXPECT_TRUE(bPauseAccepting(connect_listen_sockfd));
}

}  // namespace
