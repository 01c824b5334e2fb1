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
    static bool bIsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }
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

}  // namespace
