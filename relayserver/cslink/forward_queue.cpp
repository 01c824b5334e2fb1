#include "relayserver/cslink/forward_queue.h"

#include <new>

#include "connserver/logging.h"
#include "genner/output/message_types.h"
#include "relayserver/cslink/link_state.h"

using Orvex::NetMessage;
using Orvex::NetMessageType;

// Never destroyed, because the process ends with messages waiting.
std::queue<std::shared_ptr<NetMessage>>& csForwardQueue =
    *new std::queue<std::shared_ptr<NetMessage>>;
unsigned queueLogPrintThreshold = 1;
NetMessage nmLastSentToCS;

namespace {

/// Confirmations and losses, for example: they are rebuilt from the client table and the list of
/// losses after a reconnect.
[[nodiscard]] bool bNeverQueued(NetMessage& nmp) {
    NetMessageType nmtType;
    nmp.GetNetMsgType(nmtType);
    return bIsNeverQueued(static_cast<unsigned char>(nmtType.ToLong()));
}

std::shared_ptr<NetMessage> copyOf(const NetMessage& nmp) {
    try {
        return std::make_shared<NetMessage>(nmp);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

int nQueue(NetMessage& nmp) {
    if (bNeverQueued(nmp)) {
        return 0;
    }
    std::shared_ptr<NetMessage> pCopy = copyOf(nmp);
    if (pCopy == nullptr) {
        writeToLog(true, "WARNING: could not create queue copy of net message!\n");
        return -1;
    }
    csForwardQueue.push(std::move(pCopy));
    if (csForwardQueue.size() > queueLogPrintThreshold) {
        writeToLog(true, "TRACE: connection to CS not active, %zu messages queued\n",
                   csForwardQueue.size());
        queueLogPrintThreshold *= 2;
    }
    return 0;
}

}  // namespace

int ForwardToCS(NetMessage& nmp) {
    if (nmp.frame().empty()) {
        return 0;  // too large for any link, so this one is not broken
    }
    if (bLinkFinished()) {
        const int nSent = nmp.Send(true, msConnServMsgSock);
        nmLastSentToCS = nmp;
        if (nSent >= 1) {
            queueLogPrintThreshold = 1;
            return nSent;
        }
        writeToLog(true, "socket broken sending message to connection server!\n");
        markLinkBroken();
    }
    return nQueue(nmp);
}

int SendCSQueue() {
    writeToLog(true, "TRACE: have collected %zu messages to de-queue to server\n",
               csForwardQueue.size());
    while (bLinkFinished() && !csForwardQueue.empty()) {
        const std::shared_ptr<NetMessage> pMessage = csForwardQueue.front();
        csForwardQueue.pop();
        if (ForwardToCS(*pMessage) <= 0) {
            break;
        }
    }
    writeToLog(true, "TRACE: cleared CS queue to %zu messages\n", csForwardQueue.size());
    queueLogPrintThreshold = static_cast<unsigned>(csForwardQueue.size()) + 1;
    return static_cast<int>(csForwardQueue.size());
}

void ClearCSQueue() {
    csForwardQueue = {};
}

void resetForwardQueueForTest() {
    ClearCSQueue();
    queueLogPrintThreshold = 1;
    nmLastSentToCS = NetMessage();
}
