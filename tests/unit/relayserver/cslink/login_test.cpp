#include "relayserver/cslink/login.h"

#include "base/clock.h"
#include "base/printable_str.h"
#include "genner/output/ChallengeNetMessage.h"
#include "genner/output/HeartbeatNetMessage.h"
#include "genner/output/LogOutNetMessage.h"
#include "genner/output/LostConnectionNetMessage.h"
#include "genner/output/RelayPortNetMessage.h"
#include "genner/output/ResponseNetMessage.h"
#include "genner/output/RoutingUpdateNetMessage.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/cslink/forward_queue.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/orders/link_messages.h"
#include "relayserver/settings/servers.h"
#include "relayserver/settings/session_keys.h"
#include "relayserver/settings/settings.h"
#include "tests/stubs/logging_stub.h"
#include "tests/stubs/tesselsql_stub.h"
#include "tests/unit/relayserver/cslink/test_keys.h"
#include "tests/unit/relayserver/engine_fixture.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class Login : public EngineTest {
  protected:
    Login() : server(openLink()) {
        nConnectionStage = WAITING_FOR_CHALLENGE;
        rsaPublicKey = testRsaKey();
        serverQ.emplace("first");
        serverQ.emplace("second");
        sMyName = "name";
        sMyPassword = "pass~word";
        sMyCompany = "company";
        for (size_t i = 0; i < kDESKeyLen; ++i) {
            achMyDESKey[i] = static_cast<unsigned char>(i * 36);
        }
    }
    ~Login() override { rsaPublicKey = nullptr; }

    /// The server has sent all this at once; returns what handling it came to.
    int nReceive(const std::vector<std::string>& images) const {
        for (const std::string& sMessage : images) {
            server.sendBytes(sFrame(sMessage));
        }
        EXPECT_LE(0, msConnServMsgSock.nReadNonBlockingSocket());
        return handleLinkMessages();
    }

    static std::string sOf(Orvex::NetMessage&& nmMessage) {
        return std::string(nmMessage.frame().substr(1));
    }
    static std::string sChallenge(int nNumber) { return sOf(Orvex::ChallengeNetMessage(nNumber)); }
    static std::string sResponse(long lCode) {
        return sOf(Orvex::ResponseNetMessage(99, Orvex::ReturnCode(lCode)));
    }
    static std::string sDisconnect(unsigned nFrom) {
        return sOf(Orvex::RoutingUpdateNetMessage(rcDisconnect, nFrom, 0, 128));
    }

    /// Logged in before, lost the link since, and asked to continue.
    static void awaitContinuation() {
        bLoginContinue = true;
        sLastServer = "first";
        nConnectionStage = WAITING_FOR_LOGIN_RESPONSE;
    }

    static void lose(int nClientID) {
        const Orvex::LostConnectionNetMessage lcnm(nClientID);
        AddToRecentlyLost(&lcnm);
    }

    const Peer server;
};

TEST_F(Login, AnswersAChallengeWithAnEncryptedLogin) {
    EXPECT_EQ(4, nReceive({sChallenge(-12345)}));
    EXPECT_EQ(WAITING_FOR_LOGIN_RESPONSE, nConnectionStage);
    EXPECT_EQ(-12345, nLastChallenge);
    EXPECT_EQ(kNow, ttLastConnServMsg);
    EXPECT_THAT(loggedLines(), ElementsAre("sent login- waiting for response\n"));
    const auto images = server.images();
    ASSERT_EQ(1U, images.size());
    EXPECT_EQ(9U + 256U, images[0].size());
    EXPECT_EQ(std::string::npos, images[0].find("company"));
    const Orvex::LogInNetMessage linm = openLogin(images[0]);
    EXPECT_TRUE(linm.GetNetMsgType() == 1);
    EXPECT_EQ("name", linm.GetName());
    EXPECT_EQ("pass~word", linm.GetPassword());
    EXPECT_EQ("company", linm.GetAgency());
    EXPECT_TRUE(linm.GetFunction() == Orvex::Function(5));
    EXPECT_EQ(-12345, linm.GetLoginNumber());
    EXPECT_EQ(0, memcmp(achMyDESKey, linm.GetClientDESKey().data(), kDESKeyLen));
}

TEST_F(Login, ALaterLoginAsksToContinue) {
    bLoginContinue = true;
    EXPECT_EQ(4, nReceive({sChallenge(1)}));
    EXPECT_TRUE(openLogin(server.images()[0]).GetFunction() == Orvex::Function(6));
}

TEST_F(Login, ALoginThatCannotBeEncryptedLosesTheLinkAndTheServersTurn) {
    rsaPublicKey = tooLongRsaKey();
    EXPECT_EQ(-1, nReceive({sChallenge(1)}));
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
    EXPECT_EQ("second", serverQ.front());
    EXPECT_TRUE(server.bClosedByRelay());
    EXPECT_THAT(loggedLines(),
                ElementsAre("error sending log in message\n", "Lost connection to CS!\n"));
}

TEST_F(Login, ALoginThatCannotBeSentLosesTheLinkAndTheServersTurn) {
    server.stopReading();
    EXPECT_EQ(-1, nReceive({sChallenge(1)}));
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
    EXPECT_EQ("second", serverQ.front());
    EXPECT_THAT(loggedLines(),
                ElementsAre("error sending log in message\n", "Lost connection to CS!\n"));
}

TEST_F(Login, AChallengeOutOfPlaceIsAnsweredAnyway) {
    EXPECT_EQ(4, nReceive({sChallenge(1), sChallenge(2)}));
    EXPECT_EQ(2, nLastChallenge);
    EXPECT_THAT(loggedLines(),
                ElementsAre("sent login- waiting for response\n",
                            "INFO: challenge number recieved out of place, re-sending login\n",
                            "sent login- waiting for response\n"));
    EXPECT_EQ(2, openLogin(server.images()[1]).GetLoginNumber());
}

TEST_F(Login, AChallengeWhileLoggedInTriggersANewLogin) {
    nConnectionStage = CONNECTION_FINISHED;
    bLoginContinue = true;
    sLastServer = "first";
    EXPECT_EQ(4, nReceive({sChallenge(7)}));
    EXPECT_EQ("INFO: challenge number recieved out of place, re-sending login\n",
              loggedLines().front());
    EXPECT_TRUE(openLogin(server.images()[0]).GetFunction() == Orvex::Function(6));
    EXPECT_EQ(353, nReceive({sResponse(0)}));
}

TEST_F(Login, TheFirstOkStartsCleanAndTellsThePorts) {
    sRequestedListenAddr = "203.0.113.5";
    sRequestedPrivateListenAddr = "10.1.2.3";
    msg_port = 9737;
    ssl_msg_port = 9738;
    nConnectionStage = WAITING_FOR_LOGIN_RESPONSE;
    bAccepting = false;
    EXPECT_EQ(353, nReceive({sResponse(0)}));
    EXPECT_EQ(CONNECTION_FINISHED, nConnectionStage);
    EXPECT_TRUE(bAccepting);
    EXPECT_TRUE(bLoginContinue);
    EXPECT_EQ("first", sLastServer);
    EXPECT_EQ(99U, nSenderID);
    EXPECT_THAT(
        loggedLines(),
        ElementsAre("debug: got response\n", "Server response: OK.\n",
                    "Switched from server  to server first\n",
                    "Need to ask clients to re-initiate\n",
                    "Mopping up CS! Client connections being cancelled\n",
                    "Cancelled 0 client connections\n", "assigned id number 99\n",
                    "sending relay port message with numeric network-order public IP 91291851, "
                    "private IP 50462986, and ports plain tcp=9737, udp=6900, and ssl tcp=9738\n"));
    const auto images = server.images();
    ASSERT_EQ(1U, images.size());
    const Orvex::RelayPortNetMessage rpnm(images[0].data(), static_cast<int>(images[0].size()));
    EXPECT_TRUE(rpnm.GetNetMsgType() == 225);
    EXPECT_EQ(99U, rpnm.GetSenderID());
    EXPECT_EQ("9737~6900~91291851~9738~50462986~", images[0].substr(9, 33));
}

TEST_F(Login, NoAddressesAreToldAsZero) {
    nConnectionStage = WAITING_FOR_LOGIN_RESPONSE;
    EXPECT_EQ(353, nReceive({sResponse(0)}));
    EXPECT_EQ("9736~6900~0~0~0~", server.images()[0].substr(9, 16));
    EXPECT_EQ(0U, nLoggedContaining("ERROR"));
}

TEST_F(Login, AddressesThatDoNotParseAreLoggedAndToldAsZero) {
    sRequestedListenAddr = "1.2.3";
    sRequestedPrivateListenAddr = "10.0.0.256";
    nConnectionStage = WAITING_FOR_LOGIN_RESPONSE;
    EXPECT_EQ(353, nReceive({sResponse(0)}));
    EXPECT_EQ(1U, nLogged("ERROR: Failed to parse public listen address '1.2.3' - invalid IP "
                          "format. Public IP will not be sent to connserver.\n"));
    EXPECT_EQ(1U, nLogged("ERROR: Failed to parse private listen address '10.0.0.256' - invalid IP "
                          "format. Private IP will not be sent to connserver.\n"));
    EXPECT_EQ("9736~6900~0~0~0~", server.images()[0].substr(9, 16));
}

TEST_F(Login, AFirstOkDropsClientsRoutesAndWhatWaits) {
    const Peer client = addAuthClient(7);
    const Peer loose = addLooseClient();
    Orvex::HeartbeatNetMessage hbnm;
    EXPECT_EQ(0, ForwardToCS(hbnm));
    sLastServer = "old";
    nConnectionStage = WAITING_FOR_LOGIN_RESPONSE;
    EXPECT_EQ(353, nReceive({sResponse(0)}));
    EXPECT_TRUE(client.bClosedByRelay());
    EXPECT_TRUE(loose.bClosedByRelay());
    EXPECT_TRUE(csForwardQueue.empty());
    EXPECT_THAT(executedStatements(), ElementsAre("DELETE FROM iopatch"));
    EXPECT_EQ(1U, nLogged("Switched from server old to server first\n"));
    EXPECT_EQ(1U, server.images().size());
}

TEST_F(Login, AContinuationKeepsClientsAndReportsLossesThenClients) {
    awaitContinuation();
    const Peer client = addAuthClient(7);
    lose(8);
    Orvex::HeartbeatNetMessage hbnm;
    EXPECT_EQ(0, ForwardToCS(hbnm));
    EXPECT_EQ(353, nReceive({sResponse(0)}));
    EXPECT_TRUE(bIsAdmitted(7));
    EXPECT_EQ(1U, csForwardQueue.size()) << "sent after the link's event";
    EXPECT_THAT(executedStatements(), IsEmpty());
    EXPECT_EQ(1U, nLogged("Successful continuation with server first\n"));
    const auto images = server.images();
    ASSERT_EQ(3U, images.size());
    EXPECT_EQ(18, images[0][0]);
    EXPECT_EQ(16, images[1][0]);
    EXPECT_EQ(225, static_cast<unsigned char>(images[2][0]));
    EXPECT_TRUE(vRecentlyLost.empty());
}

TEST_F(Login, ALossReportThatFailsLosesTheLinkButNotTheServersTurn) {
    awaitContinuation();
    lose(8);
    server.stopReading();
    EXPECT_EQ(-1, nReceive({sResponse(0)}));
    EXPECT_EQ(1U, nLogged("error sending client loss identify messages to new server\n"));
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
    EXPECT_EQ("first", serverQ.front());
    EXPECT_EQ(1U, vRecentlyLost.size());
}

TEST_F(Login, AClientReportThatFailsLosesTheLinkButNotTheServersTurn) {
    awaitContinuation();
    const Peer client = addAuthClient(7);
    server.stopReading();
    EXPECT_EQ(-1, nReceive({sResponse(0)}));
    EXPECT_EQ(1U, nLogged("error sending client identify messages to new server\n"));
    EXPECT_EQ("Lost connection to CS!\n", loggedLines().back());
    EXPECT_EQ("first", serverQ.front());
    EXPECT_TRUE(bIsAdmitted(7));
}

TEST_F(Login, APortMessageThatFailsLosesTheLinkAndTheServersTurn) {
    awaitContinuation();
    server.stopReading();
    EXPECT_EQ(-1, nReceive({sResponse(0)}));
    EXPECT_EQ(1U, nLogged("error sending port message\n"));
    EXPECT_EQ("Lost connection to CS!\n", loggedLines().back());
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
    EXPECT_EQ("second", serverQ.front());
}

TEST_F(Login, NoContinueLeadsToAFreshLoginThatStartsClean) {
    awaitContinuation();
    sLastServer = "old";
    const Peer client = addAuthClient(7);
    EXPECT_EQ(3, nReceive({sResponse(3)}));
    EXPECT_EQ(WAITING_FOR_CHALLENGE, nConnectionStage);
    EXPECT_FALSE(bLoginContinue);
    EXPECT_TRUE(bIsAdmitted(7));
    EXPECT_EQ("first", serverQ.front());
    EXPECT_THAT(loggedLines(),
                ElementsAre("debug: got response\n", "Server response: NO CONTINUE.\n",
                            "server didn't recognize our continue id\n"));
    EXPECT_EQ(4, nReceive({sChallenge(5)}));
    EXPECT_EQ(0U, nLoggedContaining("out of place"));
    EXPECT_TRUE(openLogin(server.images()[0]).GetFunction() == Orvex::Function(5));
    EXPECT_EQ(353, nReceive({sResponse(0)}));
    EXPECT_EQ(1U, nLogged("Switched from server old to server first\n"));
    EXPECT_FALSE(bIsAdmitted(7));
}

TEST_F(Login, AnyOtherCodeLosesTheLinkButNotTheServersTurn) {
    nConnectionStage = WAITING_FOR_LOGIN_RESPONSE;
    EXPECT_EQ(-1, nReceive({sResponse(2)}));
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
    EXPECT_EQ("first", serverQ.front());
    EXPECT_FALSE(bLoginContinue);
    EXPECT_THAT(loggedLines(),
                ElementsAre("debug: got response\n", "Server response: UNAUTHORIZED.\n",
                            "Lost connection to CS!\n"));
}

TEST_F(Login, AHeartbeatBeforeTheLoginOnlyRenewsTheTime) {
    advanceClockForTest(4);
    EXPECT_EQ(3, nReceive({sOf(Orvex::HeartbeatNetMessage())}));
    EXPECT_EQ(kNow + 4, ttLastConnServMsg);
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(Login, AnythingElseBeforeTheLoginLosesTheLinkButNotTheServersTurn) {
    const std::string sUnexpected = sDisconnect(7);
    EXPECT_EQ(-1, nReceive({sUnexpected}));
    EXPECT_THAT(
        loggedLines(),
        ElementsAre(
            "E401: unexpected response to login from connection server\n", "Message contents: ",
            printableStr(sUnexpected.data(), static_cast<int>(sUnexpected.size()), asciiAndDecimal),
            "\n", "Lost connection to CS!\n"));
    EXPECT_EQ("first", serverQ.front());
    EXPECT_THAT(executedStatements(), IsEmpty());
}

TEST_F(Login, AResponseBeforeTheLoginIsUnexpected) {
    EXPECT_EQ(-1, nReceive({sResponse(0)}));
    EXPECT_EQ(1U, nLoggedContaining("E401"));
    EXPECT_EQ(0U, nSenderID);
}

TEST_F(Login, AWholeLoginMayComeInOneBatchWithOrdersBehindIt) {
    EXPECT_EQ(353, nReceive({sChallenge(1), sResponse(0), sDisconnect(7)}));
    EXPECT_THAT(executedStatements(),
                Contains("DELETE FROM iopatch WHERE clientfrom='7' AND msgclass='128'"));
}

}  // namespace
