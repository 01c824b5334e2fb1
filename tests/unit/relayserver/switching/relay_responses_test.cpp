/// How responses of other relays are handled.
#include "base/clock.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/peer_mark.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/orders/link_events.h"
#include "relayserver/peers/relay_peer.h"
#include "relayserver/sockets/listeners.h"
#include "relayserver/switching/client_messages.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/peers/peer_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class RelayResponses : public PeerTest {
  protected:
    RelayResponses() {
        openOwnAudio();
        setPeerUdpBasePort(authClient(8), ports.nBase());
    }

    void receive(const std::vector<std::string>& images) const {
        for (const std::string& sMessage : images) {
            peer.sendBytes(sFrame(sMessage));
        }
        readAndSwitch(authClient(8));
    }
    static void giveTicket() {
        const unsigned char achTicket[] = {'a', 'b', 'c'};
        authClient(8).SetTicket(achTicket, sizeof achTicket);
    }
    /// Everything that has arrived at the peer's audio sockets.
    std::vector<std::string> registrations() const {
        std::vector<std::string> all;
        for (int nProgram = 0; nProgram < kAudioPrograms; ++nProgram) {
            for (const std::string& sDatagram : ports.received(nProgram)) {
                all.push_back(sDatagram);
            }
        }
        return all;
    }

    const Peer server = openLink();
    const AudioPorts ports;
    const Peer peer = addAuthClientAt(8, "127.0.0.1");
};

TEST_F(RelayResponses, AnOkMakesAPeerAndRegistersAllPrograms) {
    giveTicket();
    receive({sResponse(8, rcOK)});
    EXPECT_TRUE(bIsRelayPeer(authClient(8)));
    const std::vector<std::string> datagrams = registrations();
    ASSERT_EQ(6U, datagrams.size());
    for (const std::string& sDatagram : datagrams) {
        EXPECT_EQ(std::string(12, '\0') + std::string("\xE8\x03\0\0", 4) +
                      std::string("\x13\xE8\x03\0\0\x07\0\0\0", 9) + "1000~abc~",
                  sDatagram);
    }
    EXPECT_EQ("received OK message from relay 8\n", loggedLines()[0]);
    EXPECT_EQ("debug: sending udp reg to other relay 8\n", loggedLines()[loggedLines().size() - 2]);
    EXPECT_EQ(1U, nLoggedContaining("debug: registering udp with relay peer 8 on udp ports"));
    EXPECT_THAT(server.images(), IsEmpty());
}

TEST_F(RelayResponses, AnOkUnderAnOldTicketAsksForANewOne) {
    giveTicket();
    advanceClockForTest(300);
    receive({sResponse(8, rcOK)});
    EXPECT_TRUE(bIsRelayPeer(authClient(8)));
    EXPECT_THAT(registrations(), IsEmpty());
    EXPECT_THAT(server.images(), ElementsAre(sTicketRequest(8)));
}

TEST_F(RelayResponses, ARejectedTicketIsReplaced) {
    MarkAsRelay(authClient(8));
    giveTicket();
    loggedLines().clear();
    receive({sResponse(8, rcUdpUnauthorized)});
    EXPECT_EQ("", sTicketOf(authClient(8)));
    EXPECT_TRUE(bIsAdmitted(8));
    EXPECT_TRUE(bIsRelayPeer(authClient(8)));
    EXPECT_THAT(registrations(), IsEmpty());
    EXPECT_THAT(server.images(), ElementsAre(sTicketRequest(8)));
    EXPECT_THAT(loggedLines(), ElementsAre("relay-to-relay ticket rejected by 8\n",
                                           "retrieving a new ticket for udp registration to client "
                                           "8 at 127.0.0.1\n"));
}

TEST_F(RelayResponses, ManyRejectionsMakeOneRequest) {
    MarkAsRelay(authClient(8));
    receive(std::vector<std::string>(18, sResponse(8, rcUdpUnauthorized)));
    EXPECT_THAT(server.images(), ElementsAre(sTicketRequest(8)));
}

TEST_F(RelayResponses, ARejectionMakesNoPeer) {
    receive({sResponse(8, rcUdpUnauthorized)});
    EXPECT_FALSE(bIsRelayPeer(authClient(8)));
}

TEST_F(RelayResponses, AnyOtherCodeEndsAPeerAndTheServerIsTold) {
    MarkAsRelay(authClient(8));
    receive({sResponse(8, rcUnauthorized), sResponse(8, rcOK)});
    EXPECT_FALSE(bIsAdmitted(8));
    EXPECT_TRUE(peer.bClosedByRelay());
    EXPECT_THAT(server.images(), ElementsAre(sLoss(8)));
    EXPECT_EQ(1U, vRecentlyLost.size());
    EXPECT_EQ(1U, nLogged("recieved response message with code UNAUTHORIZED from client 8\n"));
    EXPECT_EQ(0U, nLoggedContaining("received OK")) << "what stood behind it went with the peer";
}

TEST_F(RelayResponses, ARefusedLoginLeavesTheConnectionToTheOtherRelay) {
    giveTicket();
    receive({sResponse(8, rcUnauthorized)});
    EXPECT_TRUE(bIsAdmitted(8));
    EXPECT_EQ("abc", sTicketOf(authClient(8)));
    EXPECT_THAT(registrations(), IsEmpty());
    EXPECT_THAT(server.images(), IsEmpty());
}

TEST_F(RelayResponses, AnAnswerInAnothersNameIsIgnored) {
    receive({sResponse(9, rcOK)});
    EXPECT_FALSE(bIsRelayPeer(authClient(8)));
    EXPECT_EQ(1U, nLoggedContaining("Message with invalid sender id string 9"));
}

TEST_F(RelayResponses, ARequestThatBreaksTheLinkLeavesThePeerUntilItsMessagesAreHandled) {
    // The server's last message is for the peer, to which nothing can be sent any more.
    server.sendBytes(sFrame(sImage(3, 7, 8, "ab")));
    server.stopReading();
    peer.sendBytes(sFrame(sResponse(8, rcOK)) + sFrame(sResponse(8, rcOK)));
    peer.stopReading();
    readAndSwitch(authClient(8));
    EXPECT_EQ(2U, nLogged("received OK message from relay 8\n"));
    EXPECT_TRUE(bIsAdmitted(8));
    settleBrokenLink();
    EXPECT_FALSE(bIsAdmitted(8));
    EXPECT_EQ(1U, vRecentlyLost.size());
}

}  // namespace
