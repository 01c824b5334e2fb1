#include "relayserver/switching/client_messages.h"

#include <optional>
#include <string_view>

#include "base/clock.h"
#include "base/ip_utils.h"
#include "connserver/logging.h"
#include "genner/output/CaptionNetMessage.h"
#include "genner/output/LogOutNetMessage.h"
#include "genner/output/ResponseNetMessage.h"
#include "relayserver/archive_pass.h"
#include "relayserver/audio/register_udp.h"
#include "relayserver/clients/client_removal.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/loop/epoll_set.h"
#include "relayserver/peers/relay_peer.h"
#include "relayserver/startup/settings.h"
#include "relayserver/switching/message_types.h"
#include "relayserver/switching/switch_packet.h"

using Orvex::NetMessage;
using Orvex::RelayClient;

namespace {

const Orvex::ReturnCode rcOK(0);
const Orvex::ReturnCode rcUdpUnauthorized(4);

/// Only relay peers carry messages of others.
bool bMayCarry(const RelayClient& client, const char* achMsg, int nMsgLen) {
    const int nSender = static_cast<int>(GetNetMessageSenderID(achMsg, nMsgLen));
    if (nSender >= 0 && (nSender == client.GetClientID() || bIsRelayPeer(client))) {
        return true;
    }
    writeToLog(
        true,
        "Message with invalid sender id string %d and len %d passed from client %d, ignoring "
        "message\n",
        nSender, nMsgLen, client.GetClientID());
    return false;
}

void endPeer(RelayClient& client) {
    const auto nClientID = static_cast<unsigned>(client.GetClientID());
    DeleteClient(ctAuthClientTable, client);
    reportLostClient(nClientID);
}

/// The answer of another relay to our log-in or to our audio registration.
void onResponse(RelayClient& client, const char* achMsg, int nMsgLen) {
    const Orvex::ResponseNetMessage rnm(achMsg, nMsgLen);
    const int nClientID = client.GetClientID();
    if (rnm.GetReturnCode() == rcOK) {
        writeToLog(true, "received OK message from relay %d\n", nClientID);
        MarkAsRelay(client);
        writeToLog(true, "debug: sending udp reg to other relay %d\n", nClientID);
        RegisterUdp(client, true, true, true, kAllPrograms);
        return;
    }
    if (rnm.GetReturnCode() == rcUdpUnauthorized) {
        writeToLog(true, "relay-to-relay ticket rejected by %d\n", nClientID);
        client.SetTicket(nullptr, 0);
        RegisterUdp(client, true, true, true, kAllPrograms);
        return;
    }
    std::string sCode;
    rnm.GetReturnCode().ToString(sCode);
    writeToLog(true, "recieved response message with code %s from client %d\n", sCode.c_str(),
               nClientID);
    if (bIsRelayPeer(client)) {
        endPeer(client);
    }
}

/// The client goes first; its log-out then tells the connection server.
void onLogOut(RelayClient& client, const char* achMsg, int nMsgLen) {
    const int nClientID = client.GetClientID();
    Orvex::LogOutNetMessage lonm(achMsg, nMsgLen);  // a copy: the bytes go with the client
    DeleteClient(ctAuthClientTable, client);
    writeToLog(true, "received logout from client %d\n", nClientID);
    (void)SwitchPacket(&lonm, 0, false);  // goes to the connection server, which cannot fail
}

/// What a relay peer sends was archived where it was captioned.
void archiveUnlessCarried(const RelayClient& client, const char* achMsg, int nMsgLen) {
    if (bArchiveEnable && !bIsRelayPeer(client)) {
        const Orvex::CaptionNetMessage cnm(achMsg, nMsgLen);
        archiveCaption(GetNetMessageSenderID(achMsg, nMsgLen), cnm.GetCaption());
    }
}

/// The client's connection is over.
void loseClient(RelayClient& client) {
    sockaddr_in siAddress{};
    client.GetAddress(siAddress);
    const auto nClientID = static_cast<unsigned>(client.GetClientID());
    writeToLog(true, "Connection lost to user %u at %s(%d) : %s\n", nClientID,
               sDottedAddress(siAddress).c_str(), nPortOf(siAddress),
               client.GetMessageSocket()->getErrorString().c_str());
    reportAndDelete(ctAuthClientTable, client);
}

}  // namespace

bool bHandleClientMessage(RelayClient& client, const char* achMsg, int nMsgLen) {
    client.SetLastMessageTime(nowSecs());
    client.IncrementTcpInputByteCounter(static_cast<unsigned>(nMsgLen));
    if (!bMayCarry(client, achMsg, nMsgLen)) {
        return true;
    }
    const Orvex::NetMessageType nmtType(achMsg, nMsgLen);
    if (nmtType == nmtNetMsgTypeHeartbeat) {
        return true;  // the time of the client's last message is its whole effect
    }
    if (nmtType == nmtNetMsgTypeResp) {
        onResponse(client, achMsg, nMsgLen);
        return true;
    }
    if (nmtType == nmtNetMsgTypeLogOut) {
        onLogOut(client, achMsg, nMsgLen);
        return true;
    }
    if (nmtType == nmtNetMsgTypeCaption) {
        archiveUnlessCarried(client, achMsg, nMsgLen);
    }
    NetMessage nmMessage(achMsg, nMsgLen);
    return SwitchPacket(&nmMessage, 0, bIsRelayPeer(client));
}

void readAndSwitch(RelayClient& client) {
    const int fd = client.GetMessageSocket()->getMsgSockFileDesc();
    const std::uint64_t nSerial = client.nSerial();
    const bool bBroken = client.GetMessageSocket()->nReadNonBlockingSocket() < 0;
    bool bOK = true;
    RelayClient* pClient = &client;
    while (bOK && pClient != nullptr) {
        const std::optional<std::string_view> svImage = pClient->GetMessageSocket()->dequeueView();
        if (!svImage) {
            break;
        }
        bOK = bHandleClientMessage(*pClient, svImage->data(), static_cast<int>(svImage->size()));
        pClient = ctAuthClientTable.findBySerial(fd, nSerial);
    }
    if (pClient == nullptr) {
        return;
    }
    if (bBroken && bOK) {
        loseClient(*pClient);
    } else if (bBroken || pClient->GetMessageSocket()->bHasMoreInput()) {
        offerAgain(fd);
    }
}
