#include "relayserver/switching/client_messages.h"

#include <optional>
#include <string_view>

#include "base/clock.h"
#include "base/ip_utils.h"
#include "connserver/logging.h"
#include "genner/output/CaptionNetMessage.h"
#include "genner/output/LogOutNetMessage.h"
#include "genner/output/ResponseNetMessage.h"
#include "genner/output/message_types.h"
#include "relayserver/archive/archive_pass.h"
#include "relayserver/clients/client_removal.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/peer_mark.h"
#include "relayserver/cslink/client_loss.h"
#include "relayserver/peers/register_udp.h"
#include "relayserver/peers/relay_peer.h"
#include "relayserver/settings/settings.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/switching/switch_packet.h"

using Orvex::NetMessage;
using Orvex::RelayClient;

namespace {

/// Only relay peers may carry messages of other senders.
[[nodiscard]] bool bMayCarry(const RelayClient& client, const char* achMsg, int nMsgLen) {
    const int nSender = static_cast<int>(GetNetMessageSenderID(achMsg, nMsgLen));
    return nSender >= 0 && (nSender == client.GetClientID() || bIsRelayPeer(client));
}

void logInvalidSender(const RelayClient& client, const char* achMsg, int nMsgLen) {
    const int nSender = static_cast<int>(GetNetMessageSenderID(achMsg, nMsgLen));
    writeToLog(
        true,
        "Message with invalid sender id string %d and len %d passed from client %d, ignoring "
        "message\n",
        nSender, nMsgLen, client.GetClientID());
}

void dropPeer(RelayClient& client) {
    const auto nClientID = static_cast<unsigned>(client.GetClientID());
    DeleteClient(ctAuthClientTable, client, LeaveReason::kRefusedByRelay);
    reportLostClient(nClientID);
}

/// Another relay's response to our log-in or to our audio registration.
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
        dropPeer(client);
    }
}

/// The client is removed first; forwarding its log-out then informs the connection server.
void onLogOut(RelayClient& client, const char* achMsg, int nMsgLen) {
    const int nClientID = client.GetClientID();
    Orvex::LogOutNetMessage lonm(achMsg, nMsgLen);  // a copy: the original is freed with the client
    DeleteClient(ctAuthClientTable, client, LeaveReason::kLoggedOut);
    writeToLog(true, "received logout from client %d\n", nClientID);
    (void)SwitchPacket(&lonm, 0, false);  // to the connection server, which cannot fail
}

/// Captions from a relay peer were archived by the relay that received them first.
void archiveIfCaption(const RelayClient& client, const char* achMsg, int nMsgLen) {
    if (bArchiveEnable && achMsg[0] == Orvex::CaptionNetMessage::nTYPE && !bIsRelayPeer(client)) {
        const Orvex::CaptionNetMessage cnm(achMsg, nMsgLen);
        archiveCaption(GetNetMessageSenderID(achMsg, nMsgLen), cnm.GetCaption());
    }
}

/// The client's connection has ended.
void dropBrokenClient(RelayClient& client) {
    sockaddr_in siAddress{};
    client.GetAddress(siAddress);
    const auto nClientID = static_cast<unsigned>(client.GetClientID());
    writeToLog(true, "Connection lost to user %u at %s(%d) : %s\n", nClientID,
               sDottedAddress(siAddress).c_str(), nPortOf(siAddress),
               client.GetMessageSocket()->getErrorString().c_str());
    reportLostClient(nClientID);
    DeleteClient(ctAuthClientTable, client, LeaveReason::kConnectionLost);
}

/// Adds a message to the current run if its type may travel in one and its sender is valid.
[[nodiscard]] bool bJoinRun(RelayClient& client, std::string_view svImage, MessageRun& rRun) {
    const int nMsgLen = static_cast<int>(svImage.size());
    if (!bMayCarry(client, svImage.data(), nMsgLen) || !bTravelsInRuns(svImage) ||
        !bAddToRun(rRun, svImage)) {
        return false;
    }
    archiveIfCaption(client, svImage.data(), nMsgLen);
    if (rRun.nCount == 1) {
        rRun.bFromRelayPeer = bIsRelayPeer(client);
        client.SetLastMessageTime(nowSecs());
    }
    client.IncrementTcpInputByteCounter(static_cast<unsigned>(nMsgLen));
    return true;
}

[[nodiscard]] bool bHandleNext(RelayClient& client, Orvex::InputBuffer& rInput) {
    const std::optional<std::string_view> svImage = rInput.dequeueView();
    return bHandleClientMessage(client, svImage->data(), static_cast<int>(svImage->size()));
}

/// A client by descriptor and serial number: any send may remove the client, so it is looked up
/// again.
struct ClientKey {
    int fd;
    std::uint64_t nSerial;

    [[nodiscard]] RelayClient* find() const { return ctAuthClientTable.findBySerial(fd, nSerial); }
};

/// Handles the complete messages in `rInput` in order, until a send fails or the client is gone.
/// Returns false if a send failed.
[[nodiscard]] bool bHandleAll(const ClientKey& key, Orvex::InputBuffer& rInput) {
    MessageRun run;
    RelayClient* pClient = key.find();
    while (pClient != nullptr) {
        const std::optional<std::string_view> svImage = rInput.peekView();
        if (!svImage) {
            break;
        }
        if (bJoinRun(*pClient, *svImage, run)) {
            rInput.pop();
            continue;
        }
        const bool bOK = run.bEmpty() ? bHandleNext(*pClient, rInput) : bSwitchRun(run);
        run = MessageRun();
        if (!bOK) {
            return false;
        }
        pClient = key.find();
    }
    return bSwitchRun(run);
}

}  // namespace

bool bHandleClientMessage(RelayClient& client, const char* achMsg, int nMsgLen) {
    client.SetLastMessageTime(nowSecs());
    client.IncrementTcpInputByteCounter(static_cast<unsigned>(nMsgLen));
    if (!bMayCarry(client, achMsg, nMsgLen)) {
        logInvalidSender(client, achMsg, nMsgLen);
        return true;
    }
    const Orvex::NetMessageType nmtType(achMsg, nMsgLen);
    if (nmtType == nmtNetMsgTypeHeartbeat) {
        return true;  // its only effect is the time of the last message
    }
    if (nmtType == nmtNetMsgTypeResp) {
        onResponse(client, achMsg, nMsgLen);
        return true;
    }
    if (nmtType == nmtNetMsgTypeLogOut) {
        onLogOut(client, achMsg, nMsgLen);
        return true;
    }
    archiveIfCaption(client, achMsg, nMsgLen);
    NetMessage nmMessage(achMsg, nMsgLen);
    return SwitchPacket(&nmMessage, 0, bIsRelayPeer(client));
}

void readAndSwitch(RelayClient& client) {
    const ClientKey key{client.GetMessageSocket()->getMsgSockFileDesc(), client.nSerial()};
    const bool bBroken = client.GetMessageSocket()->nReadBurst() < 0;
    // Moved out of the client, which may be removed while others still get what it sent.
    Orvex::InputBuffer input(std::move(client.GetMessageSocket()->input()));
    const bool bOK = bHandleAll(key, input);
    RelayClient* const pClient = key.find();
    if (pClient == nullptr) {
        return;
    }
    input.putAside();
    pClient->GetMessageSocket()->input().swap(input);
    if (bBroken && bOK) {
        dropBrokenClient(*pClient);
    } else if (bBroken || pClient->GetMessageSocket()->bHasMoreInput()) {
        offerAgain(key.fd);
    }
}
