#include "relayserver/cslink/client_loss.h"

#include <sys/socket.h>

#include "genner/output/LostConnectionNetMessage.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/cslink/link_state.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kRemoved = "Removing client table entry for address 0.0.0.0(0).\n";

class ClientLoss : public EngineTest {
  protected:
    static std::string sCleaning(int fd) {
        return "cleaning up socket fd " + std::to_string(fd) + "\n";
    }
    static std::string sLossFrame(int nClientID) {
        Orvex::LostConnectionNetMessage lcnm(nClientID);
        return std::string(lcnm.frame());
    }
};

TEST_F(ClientLoss, ABadSocketOfAnAdmittedClientIsALoss) {
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

TEST_F(ClientLoss, ALossIsRememberedWithoutALink) {
    const Peer peer = addAuthClient(7);
    CleanBadSocket(fdOf(7), LeaveReason::kErrorEvent);
    EXPECT_EQ(1U, vRecentlyLost.size());
}

TEST_F(ClientLoss, IdsAboveTheSignedRangeAreLostUnsigned) {
    const Peer peer = addAuthClient(static_cast<int>(4000000000U));
    CleanBadSocket(fdOf(static_cast<int>(4000000000U)), LeaveReason::kErrorEvent);
    EXPECT_EQ(1U, nLogged("removing socket for client 4000000000, and notifying CS\n"));
}

TEST_F(ClientLoss, ABadSocketOfALooseClientIsNoLoss) {
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

TEST_F(ClientLoss, ABadSocketInAHandshakeIsRemoved) {
    int fds[2] = {-1, -1};
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
    const Peer peer(fds[1]);
    ctSslHandshakingTable.Add(Orvex::RelayClient{Orvex::RelayMessageSocket(fds[0], sockaddr_in{})});
    CleanBadSocket(fds[0], LeaveReason::kErrorEvent);
    EXPECT_EQ(0, ctSslHandshakingTable.GetSize());
    EXPECT_TRUE(peer.bClosedByRelay());
    EXPECT_THAT(loggedLines(), ElementsAre(sCleaning(fds[0]), kRemoved));
}

TEST_F(ClientLoss, AnUnknownDescriptorIsClosedAnyway) {
    int fds[2] = {-1, -1};
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
    const Peer peer(fds[1]);
    CleanBadSocket(fds[0], LeaveReason::kErrorEvent);
    EXPECT_TRUE(peer.bClosedByRelay());
    EXPECT_THAT(
        loggedLines(),
        ElementsAre(sCleaning(fds[0]), "WARNING: could not identify client - closing fd anyway\n"));
}

TEST_F(ClientLoss, ABadSocketOfAPendingConnectTakesItsRecordWithIt) {
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

TEST_F(ClientLoss, ABadSocketOfTheLinkIsOnlyMarked) {
    const Peer server = openLink();
    const Peer peer = addAuthClient(7);
    CleanBadSocket(connserv_sockfd, LeaveReason::kErrorEvent);
    EXPECT_TRUE(bLinkMarkedBroken());
    EXPECT_NE(0, connserv_sockfd);
    EXPECT_THAT(loggedLines(), IsEmpty());
    EXPECT_TRUE(bIsAdmitted(7));
}

TEST_F(ClientLoss, ALossThatBreaksTheLinkStillRemovesTheClient) {
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
