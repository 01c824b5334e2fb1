#include "relayserver/loop/client_timers.h"

#include <sys/socket.h>

#include "base/string_format.h"
#include "genner/output/ChatNetMessage.h"
#include "genner/output/HeartbeatNetMessage.h"
#include "genner/output/LostConnectionNetMessage.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/peers/relay_peer.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kRemoved = "Removing client table entry for address 0.0.0.0(0).\n";

class ClientTimers : public EngineTest {
  protected:
    static std::string sFarewell() {
        const std::string sText = "Your client has been timed out by its relay\r\n";
        Orvex::ChatNetMessage cnm("SERVER", sText.data(), static_cast<int>(sText.size()));
        return std::string(cnm.frame());
    }
    static std::string sLoss(int nClientID) {
        Orvex::LostConnectionNetMessage lcnm(nClientID);
        return std::string(lcnm.frame());
    }
    static std::string sHeartbeat() {
        Orvex::HeartbeatNetMessage hbnm;
        return std::string(hbnm.frame());
    }
    static int fdOfFirst(Orvex::RelayClientTable& table) {
        EXPECT_TRUE(table.bBeginTraverse());
        return table.current().GetMessageSocket()->getMsgSockFileDesc();
    }
};

TEST_F(ClientTimers, AClientSilentForFifteenSecondsIsKept) {
    const Peer peer = addAuthClient(7);
    dropIdleClients(kNow + 15);
    EXPECT_TRUE(bIsAdmitted(7));
    EXPECT_EQ("", peer.sReceived());
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(ClientTimers, AClientSilentForSixteenSecondsIsToldAndDropped) {
    const Peer server = openLink();
    const Peer peer = addAuthClient(7);
    const int fd = fdOf(7);
    dropIdleClients(kNow + 16);
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_EQ(sFarewell(), peer.sReceived());
    EXPECT_TRUE(peer.bClosedByRelay());
    EXPECT_EQ(sLoss(7), server.sReceived());
    EXPECT_EQ(1U, vRecentlyLost.size());
    EXPECT_THAT(loggedLines(),
                ElementsAre(string_format("Dropping connect to client ID 7, socket %d, 0.0.0.0 - "
                                          "idle for 16 seconds\n",
                                          fd),
                            kRemoved));
}

TEST_F(ClientTimers, TheFarewellHasItsBytes) {
    EXPECT_EQ(std::string("\x20\x03", 2) + std::string(8, '\0') +
                  "SERVER~Your client has been timed out by its relay\r\n~~",
              sFarewell());
}

TEST_F(ClientTimers, IdleClientsAmongOthersAllGo) {
    const Peer first = addAuthClient(1);
    const Peer second = addAuthClient(2);
    const Peer third = addAuthClient(3);
    const Peer fourth = addAuthClient(4);
    authClient(2).SetLastMessageTime(kNow + 10);
    dropIdleClients(kNow + 20);
    EXPECT_FALSE(bIsAdmitted(1));
    EXPECT_TRUE(bIsAdmitted(2));
    EXPECT_FALSE(bIsAdmitted(3));
    EXPECT_FALSE(bIsAdmitted(4));
    EXPECT_EQ(3U, vRecentlyLost.size());
}

TEST_F(ClientTimers, AnIdleClientThatTakesNoNoticeIsDroppedAnyway) {
    const Peer peer = addAuthClient(7);
    peer.stopReading();
    dropIdleClients(kNow + 16);
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_EQ(1U, vRecentlyLost.size());
}

TEST_F(ClientTimers, RelayPeersMayBeIdleNoLonger) {
    const Peer peer = addAuthClient(7);
    MarkAsRelay(authClient(7));
    dropIdleClients(kNow + 16);
    EXPECT_FALSE(bIsAdmitted(7));
}

TEST_F(ClientTimers, ALossThatBreaksTheLinkStillDropsAllIdleClients) {
    const Peer server = openLink();
    server.stopReading();
    const Peer first = addAuthClient(1);
    const Peer second = addAuthClient(2);
    dropIdleClients(kNow + 16);
    EXPECT_EQ(0, ctAuthClientTable.GetSize());
    EXPECT_TRUE(bLinkMarkedBroken());
    EXPECT_EQ(2U, vRecentlyLost.size());
}

TEST_F(ClientTimers, AHandshakeMayTakeFifteenSeconds) {
    const Peer peer = addHandshaking();
    dropStalledHandshakes(kNow + 15);
    EXPECT_EQ(1, ctSslHandshakingTable.GetSize());
    const int fd = fdOfFirst(ctSslHandshakingTable);
    dropStalledHandshakes(kNow + 16);
    EXPECT_EQ(0, ctSslHandshakingTable.GetSize());
    EXPECT_THAT(loggedLines(),
                ElementsAre(string_format("SSL handshake timed out on socket %d, 0.0.0.0\n", fd),
                            kRemoved));
    EXPECT_TRUE(peer.bClosedByRelay());
}

TEST_F(ClientTimers, ALooseClientMayTakeFifteenSeconds) {
    const Peer peer = addLooseClient();
    dropLooseClients(kNow + 15);
    EXPECT_EQ(1, ctLooseClientTable.GetSize());
    const int fd = fdOfFirst(ctLooseClientTable);
    dropLooseClients(kNow + 16);
    EXPECT_EQ(0, ctLooseClientTable.GetSize());
    EXPECT_THAT(loggedLines(),
                ElementsAre(string_format("Dropping client that has sent no login ticket after 16 "
                                          "seconds, socket %d, 0.0.0.0\n",
                                          fd),
                            kRemoved));
    EXPECT_TRUE(peer.bClosedByRelay());
    EXPECT_EQ("", peer.sReceived());
    EXPECT_THAT(vRecentlyLost, IsEmpty());
}

TEST_F(ClientTimers, EachTimerMindsItsOwnTable) {
    const Peer admitted = addAuthClient(7);
    const Peer loose = addLooseClient();
    const Peer handshaking = addHandshaking();
    dropStalledHandshakes(kNow + 100);
    EXPECT_EQ(1, ctLooseClientTable.GetSize());
    dropLooseClients(kNow + 100);
    EXPECT_TRUE(bIsAdmitted(7));
}

TEST_F(ClientTimers, EveryClientGetsAHeartbeat) {
    nSenderID = 4711;
    const Peer first = addAuthClient(1);
    const Peer second = addAuthClient(2);
    const Peer loose = addLooseClient();
    checkInputAndSendHeartbeats(kNow);
    EXPECT_EQ(sHeartbeat(), first.sReceived());
    EXPECT_EQ(sHeartbeat(), second.sReceived());
    EXPECT_EQ("", loose.sReceived());
}

TEST_F(ClientTimers, SixMillionBytesAreWithinTheLimit) {
    const Peer peer = addAuthClient(7);
    authClient(7).IncrementTcpInputByteCounter(6000000);
    checkInputAndSendHeartbeats(kNow);
    ASSERT_TRUE(bIsAdmitted(7));
    EXPECT_EQ(0U, authClient(7).GetTcpInputByteCounter());
    EXPECT_EQ(sHeartbeat(), peer.sReceived());
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(ClientTimers, OneByteMoreEndsTheClient) {
    const Peer server = openLink();
    const Peer peer = addAuthClient(7);
    const Peer other = addAuthClient(8);
    const int fd = fdOf(7);
    authClient(7).IncrementTcpInputByteCounter(6000001);
    checkInputAndSendHeartbeats(kNow);
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_EQ("", peer.sReceived()) << "no heartbeat";
    EXPECT_EQ(sLoss(7), server.sReceived());
    EXPECT_EQ(sHeartbeat(), other.sReceived()) << "the others are served";
    EXPECT_THAT(loggedLines(),
                ElementsAre("WARNING: input TCP count on client 7 over limit : 6000001 bytes in "
                            "3.0 seconds\n",
                            string_format("cleaning up socket fd %d\n", fd),
                            "removing socket for client 7, and notifying CS\n", kRemoved));
}

TEST_F(ClientTimers, EachBurstRestartsTheMeasurement) {
    const Peer peer = addAuthClient(7);
    for (int nBurst = 0; nBurst < 3; ++nBurst) {
        authClient(7).IncrementTcpInputByteCounter(6000000);
        checkInputAndSendHeartbeats(kNow + 4 * nBurst);
    }
    EXPECT_TRUE(bIsAdmitted(7));
}

TEST_F(ClientTimers, RelayPeersHaveNoInputLimit) {
    const Peer peer = addAuthClient(7);
    MarkAsRelay(authClient(7));
    loggedLines().clear();
    authClient(7).IncrementTcpInputByteCounter(6000001);
    checkInputAndSendHeartbeats(kNow);
    ASSERT_TRUE(bIsAdmitted(7));
    EXPECT_EQ(0U, authClient(7).GetTcpInputByteCounter());
    EXPECT_EQ(sHeartbeat(), peer.sReceived());
    EXPECT_THAT(loggedLines(), IsEmpty());
}

/// A second at which rates are reported: 900 s after a half hour.
constexpr std::time_t kReportTime = 1800 * 1000 + 900;

TEST_F(ClientTimers, HighRatesAreReportedOnceInAHalfHour) {
    const Peer peer = addAuthClient(7);
    authClient(7).IncrementTcpInputByteCounter(37501);
    checkInputAndSendHeartbeats(kReportTime);
    EXPECT_THAT(loggedLines(), ElementsAre("DEBUG: input TCP bandwidth check on client 7, rate is "
                                           "12500 bytes per second\n"));
    authClient(7).IncrementTcpInputByteCounter(6000000);
    checkInputAndSendHeartbeats(kReportTime + 4);
    checkInputAndSendHeartbeats(kReportTime - 900);
    EXPECT_EQ(1U, loggedLines().size());
}

TEST_F(ClientTimers, RatesAreReportedInEveryHalfHour) {
    const Peer peer = addAuthClient(7);
    for (const std::time_t ttReport : {kReportTime, kReportTime + 1800, kReportTime + 3600}) {
        authClient(7).IncrementTcpInputByteCounter(60000);
        checkInputAndSendHeartbeats(ttReport);
    }
    EXPECT_EQ(3U, nLogged("DEBUG: input TCP bandwidth check on client 7, rate is 20000 bytes per "
                          "second\n"));
}

TEST_F(ClientTimers, ARateAtTheThresholdIsNotReported) {
    const Peer peer = addAuthClient(7);
    authClient(7).IncrementTcpInputByteCounter(37500);
    checkInputAndSendHeartbeats(kReportTime);
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(ClientTimers, TheRateOfAPeerIsNotReported) {
    const Peer peer = addAuthClient(7);
    MarkAsRelay(authClient(7));
    loggedLines().clear();
    authClient(7).IncrementTcpInputByteCounter(1000000);
    checkInputAndSendHeartbeats(kReportTime);
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(ClientTimers, AClientWhoseSocketIsFullIsLost) {
    const Peer peer = addAuthClient(7);
    const Peer other = addAuthClient(8);
    const std::string sMuch(65536, 'x');
    while (send(fdOf(7), sMuch.data(), sMuch.size(), MSG_DONTWAIT) > 0) {
    }
    checkInputAndSendHeartbeats(kNow);
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_EQ(1U, nLogged("removing socket for client 7, and notifying CS\n"));
    EXPECT_EQ(sHeartbeat(), other.sReceived());
}

TEST_F(ClientTimers, AClientThatTakesNoHeartbeatIsLost) {
    const Peer first = addAuthClient(1);
    const Peer second = addAuthClient(2);
    const Peer third = addAuthClient(3);
    second.stopReading();
    checkInputAndSendHeartbeats(kNow);
    EXPECT_FALSE(bIsAdmitted(2));
    ASSERT_EQ(1U, vRecentlyLost.size());
    EXPECT_EQ(2, vRecentlyLost.front()->GetClientID());
    EXPECT_EQ(sHeartbeat(), first.sReceived());
    EXPECT_EQ(sHeartbeat(), third.sReceived());
}

}  // namespace
