#include "relayserver/admission/tls_accept.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "base/clock.h"
#include "base/string_format.h"
#include "relayserver/admission/connect_limits.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/sockets/listeners.h"
#include "relayserver/sockets/ssl_contexts.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/admission/tls_peer.h"
#include "tests/unit/relayserver/engine_fixture.h"
#include "tests/unit/relayserver/loopback.h"

namespace {

using testing::ElementsAre;

class TlsAccept : public EngineTest {
  protected:
    TlsAccept() {
        prepareServerContext();
        ssl_listen_sockfd = nOpenLoopbackListener();
        loggedLines().clear();
    }

    static Peer connectClient() {
        Peer peer(nConnectLoopback(nLocalPort(ssl_listen_sockfd)));
        EXPECT_TRUE(bWaitReadable(ssl_listen_sockfd));
        return peer;
    }
    static bool bClosedSoon(const Peer& peer) {
        return bWaitReadable(peer.fd()) && peer.bClosedByRelay();
    }
    static Orvex::RelayClient& handshaking() {
        EXPECT_TRUE(ctSslHandshakingTable.bBeginTraverse());
        return ctSslHandshakingTable.current();
    }
    /// What the second registration says, which epoll refuses.
    static constexpr const char* kRefused = "epoll_ctl: File exists\n";
};

TEST_F(TlsAccept, ANewConnectionBeginsItsHandshake) {
    const Peer peer = connectClient();
    advanceClockForTest(5);
    testing::internal::CaptureStderr();
    acceptTlsClient();
    EXPECT_EQ(kRefused, testing::internal::GetCapturedStderr());
    ASSERT_EQ(1, ctSslHandshakingTable.GetSize());
    EXPECT_EQ(0, ctLooseClientTable.GetSize());
    const int fd = handshaking().GetMessageSocket()->getMsgSockFileDesc();
    EXPECT_THAT(loggedLines(),
                ElementsAre(string_format("New SSL client request received from 127.0.0.1(%d)\n",
                                          nLocalPort(peer.fd())),
                            string_format("Starting SSL handshake on socket %d\n", fd)));
    long lLastMessage = 0;
    handshaking().GetLastMessageTime(lLastMessage);
    EXPECT_EQ(kNow + 5, lLastMessage);
}

TEST_F(TlsAccept, ItsSessionIsAServersOverTheSocket) {
    const Peer peer = connectClient();
    acceptTlsClient();
    Orvex::RelayMessageSocket& rSocket = *handshaking().GetMessageSocket();
    ASSERT_TRUE(rSocket.bUseSSL());
    EXPECT_EQ(1, SSL_is_server(rSocket.getSSLPtr()));
    EXPECT_EQ(rSocket.getMsgSockFileDesc(), SSL_get_fd(rSocket.getSSLPtr()));
}

TEST_F(TlsAccept, ItsSocketIsNonBlockingWithoutNagleAndWatchedForRoom) {
    const Peer peer = connectClient();
    acceptTlsClient();
    const int fd = handshaking().GetMessageSocket()->getMsgSockFileDesc();
    EXPECT_NE(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
    int nOn = 0;
    socklen_t nLen = sizeof nOn;
    ASSERT_EQ(0, getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nOn, &nLen));
    EXPECT_NE(0, nOn);
    ASSERT_EQ(1, epoll_wait(ep_fd, ep_events, kMaxEpollEvents, 0));
    EXPECT_EQ(fd, nDescriptorOf(ep_events[0]));
    EXPECT_EQ(static_cast<unsigned>(EPOLLOUT), ep_events[0].events);
}

TEST_F(TlsAccept, WithoutAConnectionServerNoneIsAccepted) {
    bAccepting = false;
    const Peer peer = connectClient();
    acceptTlsClient();
    EXPECT_TRUE(bClosedSoon(peer));
    EXPECT_EQ(0, ctSslHandshakingTable.GetSize());
    EXPECT_THAT(loggedLines(),
                ElementsAre("No connection with CS, not accepting SSL connect from 127.0.0.1\n"));
}

TEST_F(TlsAccept, PlainAndTlsConnectionsShareTheLimit) {
    for (int i = 0; i < 99; ++i) {
        ASSERT_TRUE(CheckIPAddrConnectLimit("127.0.0.1"));
    }
    const Peer peer = connectClient();
    acceptTlsClient();
    EXPECT_TRUE(bClosedSoon(peer));
    EXPECT_THAT(
        loggedLines(),
        ElementsAre("Blocking SSL connection from 127.0.0.1 temporarily, limit exceeded\n"));
}

TEST_F(TlsAccept, AFailedAcceptIsLoggedWithItsErrno) {
    acceptTlsClient();
    EXPECT_THAT(loggedLines(),
                ElementsAre(string_format("Warning ssl socket accept call return -1 with error "
                                          "%d\n",
                                          EAGAIN)));
}

TEST_F(TlsAccept, AConnectionWithoutASessionIsClosed) {
    ASSERT_FALSE(sslctx_server.set_new(nullptr));
    const Peer peer = connectClient();
    acceptTlsClient();
    EXPECT_TRUE(bClosedSoon(peer));
    EXPECT_EQ(0, ctSslHandshakingTable.GetSize());
    EXPECT_EQ(0U, nLoggedContaining("Starting SSL handshake"));
}

}  // namespace
