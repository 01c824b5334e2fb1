#include "relayserver/clients/client_removal.h"

#include <fcntl.h>
#include <sys/socket.h>

#include "base/clock.h"
#include "genner/output/LostConnectionNetMessage.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/clients/video_gate.h"
#include "relayserver/cslink/client_loss.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/sockets/epoll_set.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kRemoved = "Removing client table entry for address 0.0.0.0(0).\n";

class ClientRemoval : public EngineTest {
  protected:
    static std::string sCleaning(int fd) {
        return "cleaning up socket fd " + std::to_string(fd) + "\n";
    }
    static bool bIsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }
    static std::string sLossFrame(int nClientID) {
        Orvex::LostConnectionNetMessage lcnm(nClientID);
        return std::string(lcnm.frame());
    }
};

TEST_F(ClientRemoval, DeleteClientClosesAndForgets) {
    const Peer server = openLink();
    const Peer peer = addAuthClient(7);
    const int fd = fdOf(7);
    DeleteClient(ctAuthClientTable, authClient(7), LeaveReason::kLoggedOut);
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_TRUE(peer.bClosedByRelay());
    EXPECT_FALSE(bIsOpen(fd));
    EXPECT_THAT(loggedLines(), ElementsAre(kRemoved));
    EXPECT_EQ("", server.sReceived()) << "nobody is told";
    EXPECT_THAT(vRecentlyLost, IsEmpty());
}

TEST_F(ClientRemoval, DeleteClientNamesTheAddressAndPort) {
    int fds[2] = {-1, -1};
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
    const Peer peer(fds[1]);
    sockaddr_in siPeer{};
    siPeer.sin_addr.s_addr = htonl(0x0A010203);
    siPeer.sin_port = htons(4321);
    Orvex::RelayClient& rClient =
        ctLooseClientTable.Add(Orvex::RelayClient{Orvex::RelayMessageSocket(fds[0], siPeer)});
    DeleteClient(ctLooseClientTable, rClient, LeaveReason::kLoggedOut);
    EXPECT_THAT(loggedLines(),
                ElementsAre("Removing client table entry for address 10.1.2.3(4321).\n"));
}

TEST_F(ClientRemoval, DeleteClientForgetsTheVideoPermissionsOfTheId) {
    const Peer peer = addAuthClient(7);
    videoPermissions.Grant(7, 9);
    videoPermissions.Grant(9, 7);
    videoPermissions.Grant(9, 11);
    DeleteClient(ctAuthClientTable, authClient(7), LeaveReason::kLoggedOut);
    using Tessel_Routing::PermissionsCache;
    EXPECT_EQ(PermissionsCache::kAskAgain, videoPermissions.getCode(7, 9));
    EXPECT_EQ(PermissionsCache::kAskAgain, videoPermissions.getCode(9, 7));
    EXPECT_EQ(PermissionsCache::kGranted, videoPermissions.getCode(9, 11));
}

TEST_F(ClientRemoval, DeleteClientWithoutAnIdLeavesThePermissions) {
    const Peer peer = addLooseClient();
    videoPermissions.Grant(0, 9);
    ASSERT_TRUE(ctLooseClientTable.bBeginTraverse());
    DeleteClient(ctLooseClientTable, ctLooseClientTable.current(), LeaveReason::kLoggedOut);
    EXPECT_EQ(Tessel_Routing::PermissionsCache::kGranted, videoPermissions.getCode(0, 9));
}

TEST_F(ClientRemoval, ABadSocketOfAnAdmittedClientIsALoss) {
    const Peer server = openLink();
    const Peer peer = addAuthClient(7);
    const int fd = fdOf(7);
    CleanBadSocket(fd, LeaveReason::kErrorEvent);
    EXPECT_THAT(
        loggedLines(),
        ElementsAre(sCleaning(fd), "removing socket for client 7, and notifying CS\n", kRemoved));
    EXPECT_EQ(sLossFrame(7), server.sReceived());
    ASSERT_EQ(1U, vRecentlyLost.size());
    EXPECT_EQ(7, vRecentlyLost.front()->GetClientID());
    EXPECT_TRUE(peer.bClosedByRelay());
}

TEST_F(ClientRemoval, ALossIsRememberedWithoutALink) {
    const Peer peer = addAuthClient(7);
    CleanBadSocket(fdOf(7), LeaveReason::kErrorEvent);
    EXPECT_EQ(1U, vRecentlyLost.size());
}

TEST_F(ClientRemoval, IdsAboveTheSignedRangeAreLostUnsigned) {
    const Peer peer = addAuthClient(static_cast<int>(4000000000U));
    CleanBadSocket(fdOf(static_cast<int>(4000000000U)), LeaveReason::kErrorEvent);
    EXPECT_EQ(1U, nLogged("removing socket for client 4000000000, and notifying CS\n"));
}

TEST_F(ClientRemoval, ABadSocketOfALooseClientIsNoLoss) {
    const Peer server = openLink();
    const Peer peer = addLooseClient();
    ASSERT_TRUE(ctLooseClientTable.bBeginTraverse());
    const int fd = ctLooseClientTable.current().GetMessageSocket()->getMsgSockFileDesc();
    CleanBadSocket(fd, LeaveReason::kErrorEvent);
    EXPECT_EQ(0, ctLooseClientTable.GetSize());
    EXPECT_THAT(loggedLines(), ElementsAre(sCleaning(fd), kRemoved));
    EXPECT_EQ("", server.sReceived());
    EXPECT_THAT(vRecentlyLost, IsEmpty());
}

TEST_F(ClientRemoval, ABadSocketInAHandshakeIsRemoved) {
    int fds[2] = {-1, -1};
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
    const Peer peer(fds[1]);
    ctSslHandshakingTable.Add(Orvex::RelayClient{Orvex::RelayMessageSocket(fds[0], sockaddr_in{})});
    CleanBadSocket(fds[0], LeaveReason::kErrorEvent);
    EXPECT_EQ(0, ctSslHandshakingTable.GetSize());
    EXPECT_TRUE(peer.bClosedByRelay());
    EXPECT_THAT(loggedLines(), ElementsAre(sCleaning(fds[0]), kRemoved));
}

TEST_F(ClientRemoval, ABadSocketOfNobodyIsClosedAnyway) {
    int fds[2] = {-1, -1};
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
    const Peer peer(fds[1]);
    CleanBadSocket(fds[0], LeaveReason::kErrorEvent);
    EXPECT_TRUE(peer.bClosedByRelay());
    EXPECT_THAT(
        loggedLines(),
        ElementsAre(sCleaning(fds[0]), "WARNING: could not identify client - closing fd anyway\n"));
}

TEST_F(ClientRemoval, ABadSocketOfAPendingConnectTakesItsRecordWithIt) {
    const Peer server = openLink();
    int fds[2] = {-1, -1};
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
    const Peer peer(fds[1]);
    Orvex::RelayClient client{Orvex::RelayMessageSocket(fds[0], sockaddr_in{})};
    client.SetClientID(8);
    ctOutboundConnectsPending.Add(client);
    CleanBadSocket(fds[0], LeaveReason::kErrorEvent);
    EXPECT_EQ(0, ctOutboundConnectsPending.GetSize());
    EXPECT_TRUE(peer.bClosedByRelay());
    EXPECT_THAT(loggedLines(), ElementsAre(sCleaning(fds[0]),
                                           "WARNING: could not identify client - closing fd "
                                           "anyway\n"));
    EXPECT_EQ("", server.sReceived()) << "the server has not heard of it yet";
    EXPECT_THAT(vRecentlyLost, IsEmpty());
}

TEST_F(ClientRemoval, ABadSocketOfTheLinkIsOnlyMarked) {
    const Peer server = openLink();
    const Peer peer = addAuthClient(7);
    CleanBadSocket(connserv_sockfd, LeaveReason::kErrorEvent);
    EXPECT_TRUE(bLinkMarkedBroken());
    EXPECT_NE(0, connserv_sockfd);
    EXPECT_THAT(loggedLines(), IsEmpty());
    EXPECT_TRUE(bIsAdmitted(7));
}

TEST_F(ClientRemoval, ALossThatBreaksTheLinkStillRemovesTheClient) {
    const Peer server = openLink();
    server.stopReading();
    const Peer peer = addAuthClient(7);
    const int fd = fdOf(7);
    CleanBadSocket(fd, LeaveReason::kErrorEvent);
    EXPECT_THAT(loggedLines(),
                ElementsAre(sCleaning(fd), "removing socket for client 7, and notifying CS\n",
                            "socket broken sending message to connection server!\n", kRemoved));
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_TRUE(bLinkMarkedBroken());
    EXPECT_EQ(1U, vRecentlyLost.size());
}

}  // namespace
