#include "relayserver/admission/tls_handshake.h"

#include <fcntl.h>
#include <sys/socket.h>

#include "base/clock.h"
#include "base/string_format.h"
#include "genner/output/ResponseNetMessage.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/loop/event_loop.h"
#include "relayserver/settings/session_keys.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/sockets/ssl_contexts.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/admission/ticket_maker.h"
#include "tests/unit/relayserver/admission/tls_peer.h"
#include "tests/unit/relayserver/engine_fixture.h"
#include "tests/unit/relayserver/loopback.h"

namespace {

using testing::ElementsAre;

class TlsHandshake : public EngineTest {
  protected:
    TlsHandshake() {
        makeSessionKey();
        prepareServerContext();
        int fds[2] = {-1, -1};
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
        fcntl(fds[0], F_SETFL, O_NONBLOCK);
        fdRelay = fds[0];
        pPeer = std::make_unique<Peer>(fds[1]);
        pTls = std::make_unique<TlsPeer>(fds[1]);
        SSL* const pSSL = SSL_new(sslctx_server.get());
        SSL_set_fd(pSSL, fdRelay);
        SSL_set_accept_state(pSSL);
        Orvex::RelayClient client{Orvex::RelayMessageSocket(fdRelay, sockaddr_in{}, pSSL)};
        client.SetLastMessageTime(nowSecs());
        ctSslHandshakingTable.Add(client);
        addToEpollForWrite(fdRelay);
        loggedLines().clear();
    }

    void step() const {
        Orvex::RelayClient* pClient = nullptr;
        ASSERT_TRUE(ctSslHandshakingTable.bFileDescLookUp(fdRelay, &pClient));
        stepTlsHandshake(*pClient);
    }

    /// Steps on both sides until the relay's is finished.
    void shakeHands() const {
        for (int i = 0; i < 10 && ctSslHandshakingTable.GetSize() == 1; ++i) {
            pTls->bStepHandshake();
            step();
        }
    }

    /// The interest that is registered, by what is ready.
    static unsigned nReadyEvents() {
        return epoll_wait(ep_fd, ep_events, kMaxEpollEvents, 0) == 1 ? ep_events[0].events : 0;
    }

    int fdRelay = -1;
    std::unique_ptr<Peer> pPeer;
    std::unique_ptr<TlsPeer> pTls;
};

TEST_F(TlsHandshake, WaitsForInputWhenThePeerIsToSpeak) {
    EXPECT_EQ(static_cast<unsigned>(EPOLLOUT), nReadyEvents());
    step();
    EXPECT_EQ(0U, nReadyEvents()) << "no longer watched for room";
    pTls->bStepHandshake();
    EXPECT_EQ(static_cast<unsigned>(EPOLLIN), nReadyEvents());
    EXPECT_TRUE(loggedLines().empty());
    EXPECT_EQ(1, ctSslHandshakingTable.GetSize());
}

TEST_F(TlsHandshake, WaitsForRoomWhenTheRelayIsToSpeak) {
    const std::string sFill(4096, 'x');
    while (send(fdRelay, sFill.data(), sFill.size(), MSG_DONTWAIT) > 0) {
    }
    pTls->bStepHandshake();
    step();
    EXPECT_EQ(0U, nReadyEvents()) << "watched for room, of which there is none";
    EXPECT_EQ(1, ctSslHandshakingTable.GetSize());
    (void)pPeer->sReceived();
    EXPECT_EQ(static_cast<unsigned>(EPOLLOUT), nReadyEvents());
}

TEST_F(TlsHandshake, AFinishedOneMakesALooseClient) {
    shakeHands();
    EXPECT_EQ(0, ctSslHandshakingTable.GetSize());
    Orvex::RelayClient* pClient = nullptr;
    ASSERT_TRUE(ctLooseClientTable.bFileDescLookUp(fdRelay, &pClient));
    EXPECT_TRUE(pClient->GetMessageSocket()->bUseSSL());
    EXPECT_THAT(loggedLines(),
                ElementsAre(string_format("Completed SSL handshake on socket %d\n", fdRelay)));
    EXPECT_TRUE(bTurnsWaiting()) << "the peer may have said more already";
}

TEST_F(TlsHandshake, TheAgeStillCountsFromAccept) {
    advanceClockForTest(9);
    shakeHands();
    Orvex::RelayClient* pClient = nullptr;
    ASSERT_TRUE(ctLooseClientTable.bFileDescLookUp(fdRelay, &pClient));
    long lLastMessage = 0;
    pClient->GetLastMessageTime(lLastMessage);
    EXPECT_EQ(kNow, lLastMessage);
}

TEST_F(TlsHandshake, AnEventFromBeforeItsEndIsStale) {
    pTls->bStepHandshake();
    ASSERT_EQ(static_cast<unsigned>(EPOLLOUT), nReadyEvents());
    const epoll_event epeOld = ep_events[0];
    shakeHands();
    EXPECT_FALSE(bIsCurrent(epeOld));
}

TEST_F(TlsHandshake, GarbageEndsItWithTheLibrarysReason) {
    pPeer->sendBytes("GET / HTTP/1.0\r\n\r\n");
    step();
    EXPECT_EQ(0, ctSslHandshakingTable.GetSize());
    EXPECT_EQ(0, ctLooseClientTable.GetSize());
    ASSERT_EQ(3U, loggedLines().size());
    EXPECT_NE(std::string::npos, loggedLines()[0].find(":http request:"));
    EXPECT_EQ(string_format("SSL handshake failed on socket %d: SSL_ERROR_SSL, see callback "
                            "above\n",
                            fdRelay),
              loggedLines()[1]);
    EXPECT_EQ("Removing client table entry for address 0.0.0.0(0).\n", loggedLines()[2]);
}

TEST_F(TlsHandshake, ABrokenConnectionEndsIt) {
    step();
    pPeer->close();
    step();
    EXPECT_EQ(0, ctSslHandshakingTable.GetSize());
    EXPECT_EQ(1U, nLoggedContaining(
                      string_format("SSL handshake failed on socket %d: SSL_ERROR_S", fdRelay)));
    EXPECT_EQ(-1, fcntl(fdRelay, F_GETFD));
}

TEST_F(TlsHandshake, AFailedOneIsNotRedoneByALaterEventOfItsPass) {
    pPeer->sendBytes("garbage garbage garbage");
    ASSERT_EQ(static_cast<unsigned>(EPOLLOUT), nReadyEvents());
    epoll_event epe = ep_events[0];
    offerToHandlers(epe, 0);
    const size_t nLines = loggedLines().size();
    offerToHandlers(epe, 1);
    EXPECT_EQ(nLines, loggedLines().size());
}

TEST_F(TlsHandshake, ALoginThatCameWithItsEndAdmitsWithoutFurtherEvents) {
    // The peer finishes first and sends at once: the relay reads both in one go.
    pTls->bStepHandshake();
    step();
    ASSERT_TRUE(pTls->bStepHandshake());
    pTls->sendBytes(sFrame(sLoginImage(7, sEncryptedTicket(7, kNow))));
    for (int i = 0; i < 5 && !bIsAdmitted(7); ++i) {
        runOnePass();
    }
    ASSERT_TRUE(bIsAdmitted(7));
    Orvex::ResponseNetMessage rnm(0, rcOK);
    EXPECT_EQ(rnm.frame(), pTls->sReceive());
}

}  // namespace
