#include "relayserver/admission/loose_client.h"

#include "base/clock.h"
#include "base/ip_utils.h"
#include "connserver/logging.h"
#include "genner/output/ConnectConfirmNetMessage.h"
#include "genner/output/RelayConnectNetMessage.h"
#include "genner/output/ResponseNetMessage.h"
#include "genner/output/StatusKeyPostNetMessage.h"
#include "genner/output/message_types.h"
#include "relayserver/admission/ticket_check.h"
#include "relayserver/clients/client_removal.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/cslink/forward_queue.h"
#include "relayserver/peers/pending_connects.h"
#include "relayserver/settings/settings.h"
#include "relayserver/sockets/epoll_set.h"

using Orvex::NetMessageType;
using Orvex::RelayClient;
using Orvex::ResponseNetMessage;

namespace {

/// The result of handling a message, for the client that sent it.
enum class LooseOutcome {
    kContinue,  ///< still loose, next message
    kEndPass,   ///< still loose, the rest waits for the next pass
    kNotLoose,  ///< admitted or gone
};

sockaddr_in siAddressOf(const RelayClient& client) {
    sockaddr_in siAddress{};
    client.GetAddress(siAddress);
    return siAddress;
}

/// The newest connection of an id wins.
void closeOlderConnection(unsigned nClientID) {
    RelayClient* pOlder = nullptr;
    if (ctAuthClientTable.bLookUp(static_cast<int>(nClientID), &pOlder)) {
        writeToLog(true, "closing older connection with ID %d\n", static_cast<int>(nClientID));
        DeleteClient(ctAuthClientTable, *pOlder, LeaveReason::kNewerLogin);
    }
}

/// Answers an accepted log-in; false if the send failed.
[[nodiscard]] bool bSendWelcome(RelayClient& client) {
    Orvex::RelayMessageSocket& rSocket = *client.GetMessageSocket();
    ResponseNetMessage rnm(nSenderID, rcOK);
    if (rnm.Send(true, rSocket) <= 0) {
        return false;
    }
    if (!bWavecastServer) {
        return true;
    }
    Orvex::StatusKeyPostNetMessage skpnm;
    skpnm.SetKey("WavecastServer");
    skpnm.SetValue("true");
    return skpnm.Send(true, rSocket) > 0;
}

void admit(RelayClient& client, unsigned nClientID) {
    const int fd = client.GetMessageSocket()->getMsgSockFileDesc();
    client.SetClientID(static_cast<int>(nClientID));
    client.SetLastMessageTime(nowSecs());
    ctAuthClientTable.Add(client);
    (void)ctLooseClientTable.bDelete(client);  // moved, not closed
    RemoveFromRecentlyLost(nClientID);
    Orvex::ConnectConfirmNetMessage ccnm(static_cast<int>(nClientID));
    ForwardToCS(ccnm);
    RelayClient* pAdmitted = nullptr;
    if (ctAuthClientTable.bFileDescLookUp(fd, &pAdmitted) &&
        pAdmitted->GetMessageSocket()->bHasMoreInput()) {
        offerAgain(fd);  // messages after the log-in were read with it
    }
}

void acceptLogin(RelayClient& client, unsigned nClientID) {
    writeToLog(true, "authenticated ticket for client %d\n", static_cast<int>(nClientID));
    closeOlderConnection(nClientID);
    if (bSendWelcome(client)) {
        admit(client, nClientID);
        return;
    }
    writeToLog(true, "error sending OK response\n");
    DeleteClient(ctLooseClientTable, client, LeaveReason::kSendFailed);
}

void refuseLogin(RelayClient& client, unsigned nClientID) {
    ResponseNetMessage rnm(nSenderID, rcUnauthorized);
    if (rnm.Send(true, *client.GetMessageSocket()) <= 0) {
        writeToLog(true,
                   "WARNING: error sending authorization failed msg to client - was closing "
                   "anyway\n");
    }
    writeToLog(true, "client ID %d sent invalid ticket\n", static_cast<int>(nClientID));
    DeleteClient(ctLooseClientTable, client, LeaveReason::kTicketRefused);
}

LooseOutcome onTicketLogin(RelayClient& client, const char* achMsg, int nMsgLen) {
    const Orvex::RelayConnectNetMessage rcnm(achMsg, nMsgLen);
    const unsigned nClientID = rcnm.GetClientID();
    if (!CheckTicket(rcnm, siAddressOf(client).sin_addr)) {
        refuseLogin(client, nClientID);
        return LooseOutcome::kNotLoose;
    }
    if (bOwnLoginTakesPrecedence(nClientID)) {
        writeToLog(true, "INFO: relay %u connects to us while we connect to it, ours is to stand\n",
                   nClientID);
        return LooseOutcome::kContinue;  // the other relay closes this connection for ours
    }
    acceptLogin(client, nClientID);
    return LooseOutcome::kNotLoose;
}

LooseOutcome onLooseMessage(RelayClient& client, const char* achMsg, int nMsgLen) {
    client.IncrementTcpInputByteCounter(static_cast<unsigned>(nMsgLen));
    const NetMessageType nmtType(achMsg, nMsgLen);
    if (nmtType == nmtNetMsgTypeLogIn) {
        writeToLog(true, "log in net message recieved from tessel1 client\n");
        return LooseOutcome::kEndPass;
    }
    if (nmtType == nmtNetMsgTypeRelayConnect) {
        return onTicketLogin(client, achMsg, nMsgLen);
    }
    const sockaddr_in siAddress = siAddressOf(client);
    writeToLog(true, "Message type 0x%02x received from unauthorized client at %s(%d)- discarded\n",
               static_cast<unsigned>(static_cast<unsigned char>(achMsg[0])),
               sDottedAddress(siAddress).c_str(), nPortOf(siAddress));
    return LooseOutcome::kContinue;
}

LooseOutcome handleLooseMessages(RelayClient& client) {
    char achMsg[Orvex::NetMessage::nMAX_PADDED_MSG_LEN];
    int nMsgLen = 0;
    LooseOutcome outcome = LooseOutcome::kContinue;
    while (outcome == LooseOutcome::kContinue &&
           client.GetMessageSocket()->bDequeueNetMessage(achMsg, &nMsgLen)) {
        outcome = onLooseMessage(client, achMsg, nMsgLen);
    }
    return outcome;
}

void dropBrokenClient(RelayClient& client, const std::string& sProblem) {
    const sockaddr_in siAddress = siAddressOf(client);
    writeToLog(true, "Socket connection broken fd %u, with client %s(%d) : %s\n",
               static_cast<unsigned>(client.GetMessageSocket()->getMsgSockFileDesc()),
               sDottedAddress(siAddress).c_str(), nPortOf(siAddress), sProblem.c_str());
    DeleteClient(ctLooseClientTable, client, LeaveReason::kConnectionLost);
}

/// Drops a client that sent too much before its log-in; true if it was dropped.
[[nodiscard]] bool bDropIfOverLoginBudget(RelayClient& client) {
    const unsigned nBytes = client.GetTcpInputByteCounter();
    if (nBytes <= kPreloginMaxAllowedTcpBytes) {
        return false;
    }
    const sockaddr_in siAddress = siAddressOf(client);
    writeToLog(true,
               "WARNING: input TCP count on pre-log-in client at %s(%d)  over limit : %u bytes\n",
               sDottedAddress(siAddress).c_str(), nPortOf(siAddress), nBytes);
    DeleteClient(ctLooseClientTable, client, LeaveReason::kOverLoginBudget);
    return true;
}

}  // namespace

void stepLooseClient(RelayClient& client) {
    const int fd = client.GetMessageSocket()->getMsgSockFileDesc();
    const bool bBroken = client.GetMessageSocket()->nReadNonBlockingSocket() < 0;
    const std::string sProblem = bBroken ? client.GetMessageSocket()->getErrorString() : "";
    const LooseOutcome outcome = handleLooseMessages(client);
    if (outcome == LooseOutcome::kNotLoose) {
        return;
    }
    if (outcome == LooseOutcome::kContinue && bDropIfOverLoginBudget(client)) {
        return;
    }
    if (outcome == LooseOutcome::kContinue && bBroken) {
        dropBrokenClient(client, sProblem);
        return;
    }
    // A broken connection whose pass ended early is read to its end, and dropped, in a later pass.
    if (bBroken || client.GetMessageSocket()->bHasMoreInput()) {
        offerAgain(fd);
    }
}
