#include "relayserver/orders/link_messages.h"

#include <sys/ioctl.h>

#include "base/clock.h"
#include "orvex/net_message.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/cslink/login.h"
#include "relayserver/orders/cs_messages.h"
#include "relayserver/sockets/epoll_set.h"

namespace {

constexpr int kFailed = -1;

}  // namespace

int handleLinkMessages() {
    char achMsg[Orvex::NetMessage::nMAX_PADDED_MSG_LEN];
    int nMsgLen = 0;
    // A link that was lost has no messages left.
    while (msConnServMsgSock.bDequeueNetMessage(achMsg, &nMsgLen)) {
        noteServerHeard(nowSecs());
        if (nConnectionStage == CONNECTION_FINISHED) {
            onServerMessage(achMsg, nMsgLen);
        } else if (onLoginMessage(achMsg, nMsgLen) < 0) {
            return kFailed;
        }
    }
    if (nConnectionStage == CONNECTION_IDLE) {
        return kFailed;
    }
    if (msConnServMsgSock.bHasMoreInput()) {
        offerAgain(connserv_sockfd);
    }
    return nConnectionStage;
}

void readLastServerMessages() {
    if (nConnectionStage < WAITING_FOR_CHALLENGE) {
        return;
    }
    // A server that keeps sending must not keep us here: only what has arrived by now is read, and
    // what the TLS session may hold of it.
    constexpr int kTlsRecordBytes = 16384;
    int nWaiting = 0;
    ioctl(connserv_sockfd, FIONREAD, &nWaiting);
    nWaiting += kTlsRecordBytes;
    int nStage = handleLinkMessages();
    for (int nRead = 1; nRead > 0 && nWaiting > 0 && nStage >= 0; nWaiting -= nRead) {
        nRead = msConnServMsgSock.nReadNonBlockingSocket();
        nStage = handleLinkMessages();
    }
}
