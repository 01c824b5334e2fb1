#include "relayserver/cslink/login.h"

#include <netinet/in.h>

#include "base/ip_utils.h"
#include "connserver/logging.h"
#include "genner/output/ChallengeNetMessage.h"
#include "genner/output/LogInNetMessage.h"
#include "genner/output/RelayPortNetMessage.h"
#include "genner/output/ResponseNetMessage.h"
#include "genner/output/message_types.h"
#include "orvex/rsa_encrypter_impl.h"
#include "relayserver/cslink/client_report.h"
#include "relayserver/cslink/forward_queue.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/settings/servers.h"
#include "relayserver/settings/session_keys.h"
#include "relayserver/settings/settings.h"

using Orvex::NetMessageType;

namespace {

constexpr int kFailed = -1;
/// The role requested by a login that does not continue a session.
constexpr Orvex::Function fMyFunction = fRelay;

int nDropLink() {
    LostConnectionToCS();
    return kFailed;
}

/// The configured address as it is sent, in network byte order; 0 if there is none. `sWhich` and
/// `sWhichIP` name it in the log line about an address that does not parse.
unsigned nAddressToReport(const std::string& sAddress, const char* sWhich, const char* sWhichIP) {
    in_addr iaAddress{};
    if (sAddress.empty() || bParseIPv4(sAddress, iaAddress)) {
        return iaAddress.s_addr;
    }
    writeToLog(true,
               "ERROR: Failed to parse %s listen address '%s' - invalid IP format. %s IP will not "
               "be sent to connserver.\n",
               sWhich, sAddress.c_str(), sWhichIP);
    return 0;
}

/// Reports to the server where this relay listens; false if the send failed.
[[nodiscard]] bool bSendRelayPort() {
    const unsigned nPublic = nAddressToReport(sRequestedListenAddr, "public", "Public");
    const unsigned nPrivate = nAddressToReport(sRequestedPrivateListenAddr, "private", "Private");
    writeToLog(true,
               "sending relay port message with numeric network-order public IP %u, private IP %u, "
               "and ports plain tcp=%d, udp=%d, and ssl tcp=%d\n",
               nPublic, nPrivate, msg_port, rtp_listen_port[0], ssl_msg_port);
    Orvex::RelayPortNetMessage rpnm(nPublic, msg_port, rtp_listen_port[0], ssl_msg_port, nPrivate);
    return rpnm.Send(true, msConnServMsgSock) > 0;
}

/// The server knows this relay's session: reports the clients that have left in the meantime and
/// those that are connected.
[[nodiscard]] bool bContinueSession() {
    writeToLog(true, "Successful continuation with server %s\n", sLastServer.c_str());
    if (IdentifyLosses() != 0) {
        writeToLog(true, "error sending client loss identify messages to new server\n");
        return false;
    }
    if (IdentifyClients() != 0) {
        writeToLog(true, "error sending client identify messages to new server\n");
        return false;
    }
    return true;
}

/// A new session: nothing from the old one is valid any longer.
void beginSession() {
    writeToLog(true, "Switched from server %s to server %s\n", sLastServer.c_str(),
               serverQ.front().c_str());
    writeToLog(true, "Need to ask clients to re-initiate\n");
    MopupCS(LeaveReason::kNewSession);
    ClearCSQueue();
    noteSessionWith(serverQ.front());
}

int onLoginAccepted() {
    setAccepting(true);
    if (!bLoginContinue) {
        beginSession();
    } else if (!bContinueSession()) {
        return nDropLink();
    }
    noteLoggedIn();
    writeToLog(true, "assigned id number %u\n", nSenderID);
    if (!bSendRelayPort()) {
        writeToLog(true, "error sending port message\n");
        LostConnectionToCS();
        SwitchServers();
        return kFailed;
    }
    enterStage(CONNECTION_FINISHED);
    return nConnectionStage;
}

int onLoginResponse(const char* achMsg, int nMsgLen) {
    writeToLog(true, "debug: got response\n");
    const Orvex::ResponseNetMessage rnm(achMsg, nMsgLen);
    assignSenderID(rnm.GetClientID());
    std::string sCode;
    rnm.GetReturnCode().ToString(sCode);
    writeToLog(true, "Server response: %s.\n", sCode.c_str());
    if (rnm.GetReturnCode() == rcOK) {
        return onLoginAccepted();
    }
    if (rnm.GetReturnCode() == rcNoContinue) {
        forgetSession();
        writeToLog(true, "server didn't recognize our continue id\n");
        enterStage(WAITING_FOR_CHALLENGE);
        return nConnectionStage;
    }
    return nDropLink();
}

int onUnexpected(const char* achMsg, int nMsgLen) {
    writeToLog(true, "E401: unexpected response to login from connection server\n");
    writeToLog(true, "Message contents: ");
    printchars(achMsg, nMsgLen);
    writeToLog(false, "\n");
    return nDropLink();
}

}  // namespace

int SendLogin() {
    Orvex::LogInNetMessage linm(sMyName, sMyPassword, bLoginContinue ? fContinue : fMyFunction,
                                sMyCompany, achMyDESKey, nLastChallenge);
    Orvex::RSAEncrypterImpl encrypter(rsaPublicKey);
    if (!linm.RSAEncrypt(&encrypter) || linm.Send(true, msConnServMsgSock) <= 0) {
        writeToLog(true, "error sending log in message\n");
        LostConnectionToCS();
        SwitchServers();
        return kFailed;
    }
    writeToLog(true, "sent login- waiting for response\n");
    enterStage(WAITING_FOR_LOGIN_RESPONSE);
    return nConnectionStage;
}

int onChallenge(const char* achMsg, int nMsgLen) {
    if (nConnectionStage != WAITING_FOR_CHALLENGE) {
        writeToLog(true, "INFO: challenge number recieved out of place, re-sending login\n");
    }
    noteChallenge(Orvex::ChallengeNetMessage(achMsg, nMsgLen).GetLoginNumber());
    return SendLogin() < 0 ? nDropLink() : nConnectionStage;
}

int onLoginMessage(const char* achMsg, int nMsgLen) {
    const NetMessageType nmtType(achMsg, nMsgLen);
    if (nmtType == nmtNetMsgTypeChallenge) {
        return onChallenge(achMsg, nMsgLen);
    }
    if (nmtType == nmtNetMsgTypeResp && nConnectionStage == WAITING_FOR_LOGIN_RESPONSE) {
        return onLoginResponse(achMsg, nMsgLen);
    }
    if (nmtType == nmtNetMsgTypeHeartbeat) {
        return nConnectionStage;
    }
    return onUnexpected(achMsg, nMsgLen);
}
