#include "relayserver/clients/departures.h"

#include <openssl/ssl.h>
#include <sys/socket.h>

#include "base/clock.h"
#include "genner/output/LogOutNetMessage.h"
#include "relayserver/admission/loose_client.h"
#include "relayserver/admission/tls_handshake.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/loop/client_timers.h"
#include "relayserver/loop/event_loop.h"
#include "relayserver/loop/link_timers.h"
#include "relayserver/orders/link_events.h"
#include "relayserver/peers/pending_connects.h"
#include "relayserver/settings/servers.h"
#include "relayserver/settings/session_keys.h"
#include "relayserver/settings/settings.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/sockets/ssl_contexts.h"
#include "relayserver/switching/client_messages.h"
#include "tests/unit/relayserver/admission/ticket_maker.h"
#include "tests/unit/relayserver/peers/peer_fixture.h"

namespace {

/// Each removal counts its own reason, and no other.
class Departures : public PeerTest {
  protected:
    Departures() { makeSessionKey(); }

    static std::uint64_t nAllDepartures() {
        std::uint64_t nAll = 0;
        for (int i = 0; i <= static_cast<int>(LeaveReason::kAlreadyConnected); ++i) {
            nAll += nDepartures(static_cast<LeaveReason>(i));
        }
        return nAll;
    }
    static void expectOnly(LeaveReason reason, std::uint64_t nTimes = 1) {
        EXPECT_EQ(nTimes, nDepartures(reason));
        EXPECT_EQ(nTimes, nAllDepartures());
    }
    static Orvex::RelayClient& first(Orvex::RelayClientTable& table) {
        EXPECT_TRUE(table.bBeginTraverse());
        return table.current();
    }
    /// A loose client presents a ticket for `nClientID` that was made for `nTicketID`.
    static void logIn(const Peer& peer, unsigned nClientID, unsigned nTicketID) {
        peer.sendBytes(sFrame(sLoginImage(nClientID, sEncryptedTicket(nTicketID, kNow))));
        stepLooseClient(first(ctLooseClientTable));
    }
    /// The event of descriptor `fd` that says what `nEvents` says.
    static void offer(int fd, std::uint32_t nEvents) {
        epoll_event epe{};
        const int nReady = epoll_wait(ep_fd, ep_events, kMaxEpollEvents, 5000);
        for (int i = 0; i < nReady; ++i) {
            if (nDescriptorOf(ep_events[i]) == fd) {
                epe = ep_events[i];
                epe.events = nEvents;
            }
        }
        offerToHandlers(epe, 0);
    }
};

TEST_F(Departures, AreCountedByReason) {
    noteDeparture(LeaveReason::kIdle);
    noteDeparture(LeaveReason::kIdle);
    EXPECT_EQ(2U, nDepartures(LeaveReason::kIdle));
    EXPECT_EQ(2U, nAllDepartures());
    resetDeparturesForTest();
    EXPECT_EQ(0U, nAllDepartures());
}

TEST_F(Departures, ALogOut) {
    const Peer peer = addAuthClient(7);
    Orvex::LogOutNetMessage lonm;
    lonm.ChangeSenderID(7);
    peer.send(lonm);
    readAndSwitch(authClient(7));
    expectOnly(LeaveReason::kLoggedOut);
}

TEST_F(Departures, ANewerLoginOfTheSameId) {
    const Peer older = addAuthClient(7);
    const Peer newer = addLooseClient();
    logIn(newer, 7, 7);
    EXPECT_TRUE(bIsAdmitted(7));
    expectOnly(LeaveReason::kNewerLogin);
}

TEST_F(Departures, ALostConnection) {
    Peer admitted = addAuthClient(7);
    Peer loose = addLooseClient();
    admitted.close();
    readAndSwitch(authClient(7));
    expectOnly(LeaveReason::kConnectionLost);
    loose.close();
    stepLooseClient(first(ctLooseClientTable));
    expectOnly(LeaveReason::kConnectionLost, 2);
}

TEST_F(Departures, AnErrorEvent) {
    Peer peer = addAuthClient(7);
    peer.close();
    offer(fdOf(7), EPOLLERR);
    expectOnly(LeaveReason::kErrorEvent);
}

TEST_F(Departures, ASendThatFails) {
    const Peer sender = addAuthClient(7);
    const Peer deaf = addAuthClient(8);
    route(7, kChatPipe, {8});
    deaf.stopReading();
    sender.sendBytes(sFrame(sImage(kChat, 7, 0, "ab")));
    readAndSwitch(authClient(7));
    expectOnly(LeaveReason::kSendFailed);
}

TEST_F(Departures, ADirectSendThatFails) {
    const Peer sender = addAuthClient(7);
    const Peer deaf = addAuthClient(8);
    deaf.stopReading();
    sender.sendBytes(sFrame(sImage(9, 7, 8, "ab")));
    readAndSwitch(authClient(7));
    expectOnly(LeaveReason::kSendFailed);
}

TEST_F(Departures, AHeartbeatThatFails) {
    const Peer deaf = addAuthClient(8);
    deaf.stopReading();
    checkInputAndSendHeartbeats(kNow);
    expectOnly(LeaveReason::kSendFailed);
}

TEST_F(Departures, AWelcomeThatFails) {
    const Peer deaf = addLooseClient();
    deaf.stopReading();
    logIn(deaf, 7, 7);
    expectOnly(LeaveReason::kSendFailed);
}

TEST_F(Departures, Idleness) {
    const Peer peer = addAuthClient(7);
    dropIdleClients(kNow + 16);
    expectOnly(LeaveReason::kIdle);
}

TEST_F(Departures, TooMuchInput) {
    const Peer peer = addAuthClient(7);
    authClient(7).IncrementTcpInputByteCounter(6000001);
    checkInputAndSendHeartbeats(kNow);
    expectOnly(LeaveReason::kOverInputLimit);
}

TEST_F(Departures, ARefusalByAnotherRelay) {
    const Peer peer = addAuthClientAt(8, "127.0.0.7");
    authClient(8).StartRcvAudio(0, siOf("127.0.0.7", 6900));
    authClient(8).StartSrcAudio(0, siOf("127.0.0.7", 6900));
    peer.sendBytes(sFrame(sResponse(8, rcUnauthorized)));
    readAndSwitch(authClient(8));
    expectOnly(LeaveReason::kRefusedByRelay);
}

TEST_F(Departures, Hibernation) {
    nMaxTimeAwayFromCS = 60;
    const Peer admitted = addAuthClient(7);
    const Peer loose = addLooseClient();
    advanceClockForTest(60);
    lookAfterLink(nowSecs());
    expectOnly(LeaveReason::kHibernation, 2);
}

TEST_F(Departures, ANewSession) {
    addServer("first");
    const Peer server = openLink();
    const Peer admitted = addAuthClient(7);
    nConnectionStage = WAITING_FOR_LOGIN_RESPONSE;
    server.sendBytes(sFrame(sResponse(99, rcOK)));
    epoll_event epe{};
    epe.events = EPOLLIN;
    epe.data.fd = connserv_sockfd;
    onLinkEvent(epe);
    expectOnly(LeaveReason::kNewSession);
}

TEST_F(Departures, ATicketThatDoesNotAdmit) {
    const Peer peer = addLooseClient();
    logIn(peer, 7, 8);
    expectOnly(LeaveReason::kTicketRefused);
}

TEST_F(Departures, NoTicketInTime) {
    const Peer peer = addLooseClient();
    dropLooseClients(kNow + 16);
    expectOnly(LeaveReason::kNoTicketInTime);
}

TEST_F(Departures, TooMuchInputBeforeTheLogin) {
    const Peer peer = addLooseClient();
    first(ctLooseClientTable).IncrementTcpInputByteCounter(kPreloginMaxAllowedTcpBytes);
    peer.sendBytes(sFrame(sImage(kChat, 7, 0, "ab")));
    stepLooseClient(first(ctLooseClientTable));
    expectOnly(LeaveReason::kOverLoginBudget);
}

TEST_F(Departures, AHandshakeThatFails) {
    InitializeSSL();
    const Peer peer = addHandshaking();
    Orvex::RelayClient& rClient = first(ctSslHandshakingTable);
    const int fd = rClient.GetMessageSocket()->getMsgSockFileDesc();
    SSL* const pSSL = SSL_new(sslctx_server.get());
    SSL_set_fd(pSSL, fd);
    SSL_set_accept_state(pSSL);
    rClient.SetMessageSocket(Orvex::RelayMessageSocket(fd, sockaddr_in{}, pSSL));
    peer.sendBytes("no TLS at all");
    stepTlsHandshake(rClient);
    expectOnly(LeaveReason::kHandshakeFailed);
}

TEST_F(Departures, AHandshakeThatTakesTooLong) {
    const Peer peer = addHandshaking();
    dropStalledHandshakes(kNow + 16);
    expectOnly(LeaveReason::kHandshakeTimedOut);
}

TEST_F(Departures, AConnectThatTakesTooLong) {
    const OtherRelay other;
    startPeerConnect(orderOf({.nToID = 8, .nTcpPort = other.nPort()}));
    cancelStaleConnects(kNow + 6);
    expectOnly(LeaveReason::kConnectTimedOut);
}

TEST_F(Departures, AConnectThatIsReplaced) {
    const OtherRelay other;
    const OtherRelay moved("127.0.0.2");
    startPeerConnect(orderOf({.nToID = 8, .nTcpPort = other.nPort()}));
    startPeerConnect(orderOf({.nToID = 8, .nTcpPort = moved.nPort(), .sAddress = "127.0.0.2"}));
    expectOnly(LeaveReason::kConnectReplaced);
}

TEST_F(Departures, AConnectToARelayThatHasConnectedMeanwhile) {
    const OtherRelay other;
    startPeerConnect(orderOf({.nToID = 8, .nTcpPort = other.nPort()}));
    const Peer peer = addAuthClientAt(8, "127.0.0.7");
    offerReady();
    expectOnly(LeaveReason::kAlreadyConnected);
}

TEST_F(Departures, ALoginToAnotherRelayThatFails) {
    const OtherRelay other;
    startPeerConnect(orderOf({.nToID = 8, .nTcpPort = other.nPort()}));
    const Peer there = other.acceptRelay();
    ASSERT_EQ(0, shutdown(fdOf(pending(8)), SHUT_WR));  // our own end: the log-in cannot be sent
    offer(fdOf(pending(8)), EPOLLOUT);
    expectOnly(LeaveReason::kSendFailed);
}

TEST_F(Departures, APendingConnectInError) {
    const OtherRelay other;
    startPeerConnect(orderOf({.nToID = 8, .nTcpPort = other.nPort()}));
    offer(fdOf(pending(8)), EPOLLERR);
    expectOnly(LeaveReason::kErrorEvent);
}

}  // namespace
