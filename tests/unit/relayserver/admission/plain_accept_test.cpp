#include "relayserver/admission/plain_accept.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <vector>

#include "base/clock.h"
#include "base/string_format.h"
#include "relayserver/admission/connect_limits.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/sockets/accept_pause.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/sockets/listeners.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"
#include "tests/unit/relayserver/loopback.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class PlainAccept : public EngineTest {
  protected:
    PlainAccept() {
        connect_listen_sockfd = nOpenLoopbackListener();
        addToEpollForRead(connect_listen_sockfd);
    }

    static Peer connectClient(const std::string& sFrom = "127.0.0.1") {
        Peer peer(nConnectLoopback(nLocalPort(connect_listen_sockfd), sFrom));
        EXPECT_TRUE(bWaitReadable(connect_listen_sockfd));
        return peer;
    }

    static bool bClosedSoon(const Peer& peer) {
        return bWaitReadable(peer.fd()) && peer.bClosedByRelay();
    }

    static Orvex::RelayClient& loose() {
        EXPECT_TRUE(ctLooseClientTable.bBeginTraverse());
        return ctLooseClientTable.current();
    }
};

TEST_F(PlainAccept, ANewConnectionIsALooseClient) {
    const Peer peer = connectClient("127.0.0.9");
    advanceClockForTest(5);
    bAcceptPlainClient();
    ASSERT_EQ(1, ctLooseClientTable.GetSize());
    EXPECT_THAT(loggedLines(),
                ElementsAre(string_format("New client request received from 127.0.0.9(%d)\n",
                                          nLocalPort(peer.fd()))));
    EXPECT_EQ(0, loose().GetClientID());
    EXPECT_FALSE(loose().GetMessageSocket()->bUseSSL());
    long lLastMessage = 0;
    loose().GetLastMessageTime(lLastMessage);
    EXPECT_EQ(kNow + 5, lLastMessage);
}

TEST_F(PlainAccept, ItsSocketIsNonBlockingAndWithoutNagle) {
    const Peer peer = connectClient();
    bAcceptPlainClient();
    const int fd = loose().GetMessageSocket()->getMsgSockFileDesc();
    EXPECT_NE(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
    int nOn = 0;
    socklen_t nLen = sizeof nOn;
    ASSERT_EQ(0, getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nOn, &nLen));
    EXPECT_NE(0, nOn);
}

TEST_F(PlainAccept, ItsSocketIsWatchedForInput) {
    const Peer peer = connectClient();
    bAcceptPlainClient();
    peer.sendBytes("x");
    const int fd = loose().GetMessageSocket()->getMsgSockFileDesc();
    ASSERT_TRUE(bWaitReadable(fd));
    ASSERT_EQ(1, epoll_wait(ep_fd, ep_events, kMaxEpollEvents, 0));
    EXPECT_EQ(fd, nDescriptorOf(ep_events[0]));
}

TEST_F(PlainAccept, AConnectionWithoutNaglesAlgorithmIsServedWhateverTheLogSays) {
    // A local listener: its connections have no TCP options.
    sockaddr_un suListener{};
    suListener.sun_family = AF_UNIX;
    resetListenersForTest();
    connect_listen_sockfd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    ASSERT_EQ(0, bind(connect_listen_sockfd, reinterpret_cast<const sockaddr*>(&suListener),
                      sizeof suListener.sun_family));  // the system finds a name
    ASSERT_EQ(0, listen(connect_listen_sockfd, 1));
    socklen_t nLen = sizeof suListener;
    getsockname(connect_listen_sockfd, reinterpret_cast<sockaddr*>(&suListener), &nLen);
    const Peer peer(socket(AF_UNIX, SOCK_STREAM, 0));
    ASSERT_EQ(0, connect(peer.fd(), reinterpret_cast<const sockaddr*>(&suListener), nLen));
    testing::internal::CaptureStderr();
    bAcceptPlainClient();
    EXPECT_EQ("disable Nagle algorithm for send socket: Operation not supported\n",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(1, ctLooseClientTable.GetSize());
    EXPECT_EQ(
        "Error: Couldn't disable Nagle algorithm for send socket. Operation not supported. "
        "relayserver quitting.\n",
        loggedLines().back());
}

TEST_F(PlainAccept, OneCallTakesOneConnection) {
    const Peer first = connectClient();
    const Peer second = connectClient();
    bAcceptPlainClient();
    EXPECT_EQ(1, ctLooseClientTable.GetSize());
    bAcceptPlainClient();
    EXPECT_EQ(2, ctLooseClientTable.GetSize());
}

TEST_F(PlainAccept, AHandlingTakesWhatWaitsUpTo64Connections) {
    std::vector<Peer> peers;
    for (int i = 0; i < 65; ++i) {
        peers.push_back(connectClient());
    }
    acceptWaitingPlainClients();
    EXPECT_EQ(64, ctLooseClientTable.GetSize());
    acceptWaitingPlainClients();
    EXPECT_EQ(65, ctLooseClientTable.GetSize());
    EXPECT_EQ(65U, loggedLines().size()) << "no accept has failed";
}

TEST_F(PlainAccept, ARefusedConnectionEndsTheHandling) {
    for (int i = 0; i < 99; ++i) {
        ASSERT_TRUE(CheckIPAddrConnectLimit("127.0.0.1"));
    }
    const Peer refused = connectClient();
    const Peer other = connectClient("127.0.0.2");
    acceptWaitingPlainClients();
    EXPECT_EQ(0, ctLooseClientTable.GetSize());
    acceptWaitingPlainClients();
    EXPECT_EQ(1, ctLooseClientTable.GetSize());
}

TEST_F(PlainAccept, WithoutAConnectionServerNoneIsAccepted) {
    bAccepting = false;
    const Peer peer = connectClient();
    bAcceptPlainClient();
    EXPECT_TRUE(bClosedSoon(peer));
    EXPECT_EQ(0, ctLooseClientTable.GetSize());
    EXPECT_THAT(loggedLines(),
                ElementsAre("No connection to CS, not accepting connection from 127.0.0.1\n"));
    EXPECT_THAT(ipAcceptHistory, IsEmpty()) << "a refused connection does not count";
}

TEST_F(PlainAccept, TheHundredthConnectionOfAnAddressIsClosed) {
    for (int i = 0; i < 99; ++i) {
        ASSERT_TRUE(CheckIPAddrConnectLimit("127.0.0.1"));
    }
    const Peer peer = connectClient();
    const Peer other = connectClient("127.0.0.2");
    bAcceptPlainClient();
    bAcceptPlainClient();
    EXPECT_TRUE(bClosedSoon(peer));
    EXPECT_EQ(1, ctLooseClientTable.GetSize());
    ASSERT_EQ(2U, loggedLines().size());
    EXPECT_EQ("Blocking connection from 127.0.0.1 temporarily, limit exceeded\n",
              loggedLines().front());
}

TEST_F(PlainAccept, AFailedAcceptIsLoggedWithItsErrno) {
    bAcceptPlainClient();  // nobody waits
    EXPECT_THAT(loggedLines(),
                ElementsAre(string_format("Warning: socket accept call returned -1 with error %d\n",
                                          EAGAIN)));
    EXPECT_EQ(0, ctLooseClientTable.GetSize());
}

/// Takes away the process's remaining descriptors while it lives.
class NoDescriptors {
  public:
    NoDescriptors() {
        getrlimit(RLIMIT_NOFILE, &_before);
        const int fdFree = dup(STDERR_FILENO);
        close(fdFree);
        rlimit rlNone = _before;
        rlNone.rlim_cur = static_cast<rlim_t>(fdFree);
        setrlimit(RLIMIT_NOFILE, &rlNone);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &_before); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

  private:
    rlimit _before{};
};

TEST_F(PlainAccept, WantOfDescriptorsPausesTheListener) {
    const Peer peer = connectClient();
    {
        const NoDescriptors noDescriptors;
        bAcceptPlainClient();
    }
    EXPECT_THAT(loggedLines(),
                ElementsAre(string_format("Warning: socket accept call returned -1 with error %d\n",
                                          EMFILE)));
    EXPECT_EQ(0, epoll_wait(ep_fd, ep_events, kMaxEpollEvents, 0)) << "not watched";
    advanceClockForTest(1);
    resumeAccepting();
    EXPECT_EQ(1, epoll_wait(ep_fd, ep_events, kMaxEpollEvents, 0));
    bAcceptPlainClient();
    EXPECT_EQ(1, ctLooseClientTable.GetSize());
}

TEST_F(PlainAccept, WantOfDescriptorsIsLoggedOnceUntilAConnectionIsAccepted) {
    const Peer peer = connectClient();
    for (int i = 0; i < 3; ++i) {
        const NoDescriptors noDescriptors;
        bAcceptPlainClient();
        advanceClockForTest(1);
        resumeAccepting();
    }
    EXPECT_EQ(1U, loggedLines().size());
    bAcceptPlainClient();
    const Peer next = connectClient();
    const NoDescriptors noDescriptors;
    bAcceptPlainClient();
    EXPECT_EQ(2U, nLoggedContaining("Warning: socket accept call returned -1"));
}

}  // namespace
