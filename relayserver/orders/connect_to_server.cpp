#include "relayserver/orders/connect_to_server.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "base/clock.h"
#include "base/get_strerror.h"
#include "connserver/logging.h"
#include "connserver/signal_handling.h"
#include "relayserver/cslink/link_connect.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/orders/link_messages.h"
#include "relayserver/settings/servers.h"
#include "relayserver/sockets/epoll_set.h"

namespace {

constexpr int kFailed = -1;
constexpr int kWaitMillis = 5000;
/// How long an exit request may go unnoticed.
constexpr int kWaitSliceMillis = 200;
constexpr int kRetryMillis = 1000;

int nHandleWritable() {
    switch (nConnectionStage) {
        case WAITING_FOR_CONNECT:
            return nFinishConnect();
        case SSL_HANDSHAKE:
            return nStepHandshake();
        default:
            writeToLog(true,
                       "WARNING: CS socket signaling ready to write from unexpected state - "
                       "cancelling this epoll notification\n");
            rewatchLink(false);
            return nConnectionStage;
    }
}

/// Reads from the server and handles its messages, including those that arrived complete before the
/// link broke.
int nHandleReadable() {
    const bool bBroken = msConnServMsgSock.nReadNonBlockingSocket() < 0;
    const std::string sProblem = msConnServMsgSock.getErrorString();
    if (handleLinkMessages() < 0) {
        return kFailed;
    }
    if (bBroken) {
        writeToLog(true,
                   "WARNING: broken connection to connserver during initial connect stages : %s\n",
                   sProblem.c_str());
        return nFailAndSwitch();
    }
    return nConnectionStage;
}

int nHandleEvent(const epoll_event& epe) {
    if ((epe.events & EPOLLOUT) != 0) {
        return nHandleWritable();
    }
    if ((epe.events & EPOLLIN) == 0) {
        writeToLog(true, "Epoll signaling error on CS connection\n");
        LostConnectionToCS();
        return kFailed;
    }
    if (nConnectionStage == SSL_HANDSHAKE) {
        return nStepHandshake();
    }
    return nHandleReadable();
}

// ---- waiting

/// Waits for events. Returns early, as if timed out, when the process is asked to exit.
int nWaitForEvents() {
    for (int nWaited = 0; nWaited < kWaitMillis && exitRequested == 0;
         nWaited += kWaitSliceMillis) {
        const int nReady = epoll_wait(ep_fd, ep_events, kMaxEpollEvents, kWaitSliceMillis);
        if (nReady != 0 && !(nReady == -1 && errno == EINTR)) {
            return nReady;
        }
    }
    return 0;
}

/// The event of the link among the first `nReady`, or null.
epoll_event* findLinkEvent(int nReady) {
    epoll_event* const pEnd = ep_events + nReady;
    epoll_event* const pFound = std::find_if(ep_events, pEnd, [](const epoll_event& epe) {
        return nDescriptorOf(epe) == connserv_sockfd && bIsCurrent(epe);
    });
    return pFound == pEnd ? nullptr : pFound;
}

/// Waits once and handles the event of the link. Returns the stage, or -1.
int nWaitOnce() {
    const int nReady = nWaitForEvents();
    if (nReady == -1) {
        writeToLog(true, "Error: epoll failed. %s.\n", get_strerror(errno).c_str());
        closeLink();
        return kFailed;
    }
    if (nReady == 0 && exitRequested != 0) {
        closeLink();
        return kFailed;
    }
    if (nReady == 0) {
        writeToLog(true, "waiting for login response timed out\n");
        closeLink();
        SwitchServers();
        return kFailed;
    }
    const epoll_event* const pEvent = findLinkEvent(nReady);
    if (pEvent == nullptr) {
        writeToLog(true, "cs epoll - no new data to operate on!\n");
        SwitchServers();
        closeLink();
        return kFailed;
    }
    return nHandleEvent(*pEvent);
}

int nWaitUntilFinished() {
    while (nConnectionStage != CONNECTION_FINISHED) {
        // Messages buffered in the TLS session raise no event.
        const int nResult = msConnServMsgSock.bHasMoreInput() && nConnectionStage > SSL_HANDSHAKE
                                ? nHandleReadable()
                                : nWaitOnce();
        if (nResult < 0) {
            return kFailed;
        }
    }
    return nConnectionStage;
}

}  // namespace

int ConnectToServer(bool bWait, epoll_event* epe) {
    if (nConnectionStage == CONNECTION_IDLE) {
        const int nResult = nStartAttempt();
        if (nResult < 0 || !bWait) {
            return nResult;
        }
    }
    if (bWait) {
        return nWaitUntilFinished();
    }
    return epe == nullptr ? nConnectionStage : nHandleEvent(*epe);
}

void reconnectUnlessThrottled() {
    if (std::difftime(nowSecs(), ttLastCSConnectAttempt) >= connectRetry_secs) {
        ConnectToServer(false, nullptr);
    } else {
        writeToLog(true, "Throttling reconnect attempt, must wait at least %u seconds\n",
                   connectRetry_secs);
    }
}

bool bConnectToFirstServer() {
    while (exitRequested == 0) {
        const int nResult = ConnectToServer(true, nullptr);
        if (nResult == CONNECTION_FINISHED) {
            return true;
        }
        if (exitRequested != 0) {
            break;
        }
        writeToLog(true, "connection to server failed with code %d...\n", nResult);
        if (bWaitForExitRequest(kRetryMillis)) {
            break;
        }
        writeToLog(false, "retrying\n");
    }
    return false;
}
