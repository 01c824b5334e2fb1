/// Which handler a ready descriptor is offered to first. A descriptor belongs to one of them only;
/// here it is made to belong to two, which shows who is asked before whom.
#include <sys/socket.h>

#include "base/clock.h"
#include "relayserver/audio/udp_receive.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/loop/event_loop.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/sockets/listeners.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/loopback.h"
#include "tests/unit/relayserver/peers/peer_fixture.h"

using Orvex::RelayClient;

namespace {

class HandlerOrder : public PeerTest {
  protected:
    static RelayClient& addTo(Orvex::RelayClientTable& table, int fd, int nClientID) {
        RelayClient client{Orvex::RelayMessageSocket(fd, sockaddr_in{})};
        client.SetClientID(nClientID);
        client.SetLastMessageTime(nowSecs());
        return table.Add(client);
    }
    static void removeAgain(Orvex::RelayClientTable& table, int fd) {
        EXPECT_TRUE(table.bDelete(fd));  // its other record closes the descriptor
    }
    /// Offers the one ready event as `nBits`.
    static void offerAs(unsigned nBits) {
        ASSERT_EQ(1, epoll_wait(ep_fd, ep_events, kMaxEpollEvents, 5000));
        ep_events[0].events = nBits;
        offerToHandlers(ep_events[0], 0);
    }
};

TEST_F(HandlerOrder, AnErrorIsSeenBeforeAnyRead) {
    const Peer peer = addAuthClient(7);
    peer.sendBytes("x");
    char chByte = 0;
    ASSERT_EQ(1, recv(fdOf(7), &chByte, 1, MSG_PEEK));
    ASSERT_EQ(1, epoll_wait(ep_fd, ep_events, kMaxEpollEvents, 5000));
    ASSERT_EQ(1, recv(fdOf(7), &chByte, 1, 0));  // nothing is left to read
    ep_events[0].events = EPOLLIN | EPOLLERR;
    offerToHandlers(ep_events[0], 0);
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_EQ(1U, nLoggedContaining("will be closed, epoll error status 0x9"));
}

TEST_F(HandlerOrder, AnErrorOfAPendingConnectIsSeenBeforeItsCompletion) {
    Peer there = addLooseClient();
    ASSERT_TRUE(ctLooseClientTable.bBeginTraverse());
    const int fd = fdOf(ctLooseClientTable.current());
    addTo(ctOutboundConnectsPending, fd, 8);
    removeAgain(ctLooseClientTable, fd);
    there.sendBytes("x");
    offerAs(EPOLLOUT | EPOLLERR | EPOLLHUP);
    EXPECT_EQ(0, ctOutboundConnectsPending.GetSize());
    EXPECT_EQ(0, ctAuthClientTable.GetSize());
    EXPECT_EQ("", there.sReceived());
}

TEST_F(HandlerOrder, AudioComesBeforeTheConnectionServer) {
    openOwnAudio();
    watchAudioSockets();
    const int fd = udp_listen_sockfd[2];
    const sockaddr_in siTo = siOf("127.0.0.1", nLocalPort(fd));
    // As audio too little known to be forwarded, as input of the link two heartbeats.
    const std::string sBytes = sFrame(sImage(12, 0, 0, "")) + sFrame(sImage(12, 0, 0, ""));
    ASSERT_LT(0, sendto(udp_listen_sockfd[0], sBytes.data(), sBytes.size(), 0,
                        reinterpret_cast<const sockaddr*>(&siTo), sizeof siTo));
    connserv_sockfd = fd;
    nConnectionStage = CONNECTION_FINISHED;
    msConnServMsgSock = Orvex::RelayMessageSocket(fd, sockaddr_in{});
    advanceClockForTest(5);
    offerAs(EPOLLIN);
    EXPECT_EQ(kNow, ttLastConnServMsg);
    char achBytes[32];
    EXPECT_EQ(-1, recv(fd, achBytes, sizeof achBytes, MSG_DONTWAIT)) << "taken as audio";
    connserv_sockfd = 0;
}

TEST_F(HandlerOrder, TheConnectionServerComesBeforePendingConnects) {
    const Peer server = openLink();
    addTo(ctOutboundConnectsPending, connserv_sockfd, 8);
    server.sendBytes(sFrame(sImage(12, 0, 0, "")));
    advanceClockForTest(5);
    offerAs(EPOLLIN);
    EXPECT_EQ(kNow + 5, ttLastConnServMsg);
    EXPECT_TRUE(bIsPending(8));
    removeAgain(ctOutboundConnectsPending, connserv_sockfd);
}

TEST_F(HandlerOrder, PendingConnectsComeBeforeAdmittedClients) {
    const Peer peer = addAuthClient(7);
    const int fd = fdOf(7);
    addTo(ctOutboundConnectsPending, fd, 8);
    peer.sendBytes(sFrame(sImage(12, 7, 0, "")));
    offerAs(EPOLLOUT);
    EXPECT_EQ(1U, nLoggedContaining("successfully initiated"));
    EXPECT_EQ(0U, authClient(7).GetTcpInputByteCounter());
    EXPECT_TRUE(bIsAdmitted(8));
    removeAgain(ctAuthClientTable, fd);  // one of its two records
}

TEST_F(HandlerOrder, AdmittedClientsComeBeforeLooseOnes) {
    const Peer peer = addAuthClient(7);
    addTo(ctLooseClientTable, fdOf(7), 0);
    peer.sendBytes(sFrame(sImage(12, 7, 0, "")));
    offerAs(EPOLLIN);
    EXPECT_EQ(9U, authClient(7).GetTcpInputByteCounter());
    EXPECT_EQ(0U, nLoggedContaining("unauthorized client"));
    removeAgain(ctLooseClientTable, fdOf(7));
}

TEST_F(HandlerOrder, LooseClientsComeBeforeHandshakes) {
    const Peer peer = addLooseClient();
    ASSERT_TRUE(ctLooseClientTable.bBeginTraverse());
    const int fd = fdOf(ctLooseClientTable.current());
    addTo(ctSslHandshakingTable, fd, 0);
    peer.sendBytes(sFrame(sImage(3, 0, 0, "")));
    offerAs(EPOLLIN);
    EXPECT_EQ(1U, nLoggedContaining("unauthorized client"));
    removeAgain(ctSslHandshakingTable, fd);
}

TEST_F(HandlerOrder, ClientsComeBeforeListeners) {
    const Peer peer = addAuthClient(7);
    connect_listen_sockfd = fdOf(7);
    peer.sendBytes(sFrame(sImage(12, 7, 0, "")));
    offerAs(EPOLLIN);
    EXPECT_EQ(9U, authClient(7).GetTcpInputByteCounter());
    EXPECT_EQ(0U, nLoggedContaining("accept call"));
    connect_listen_sockfd = 0;
}

TEST_F(HandlerOrder, TheTlsListenerComesBeforeThePlainOne) {
    connect_listen_sockfd = ssl_listen_sockfd = nOpenLoopbackListener();
    bAccepting = false;
    addToEpollForRead(ssl_listen_sockfd);
    const Peer peer(nConnectLoopback(nLocalPort(ssl_listen_sockfd)));
    offerAs(EPOLLIN);
    EXPECT_EQ(1U, nLoggedContaining("No connection with CS, not accepting SSL connect from"));
    EXPECT_EQ(1U, loggedLines().size());
    connect_listen_sockfd = 0;
}

}  // namespace
