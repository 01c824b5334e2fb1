#include "relayserver/loop/link_timers.h"

#include <algorithm>

#include "connserver/logging.h"
#include "genner/output/HeartbeatNetMessage.h"
#include "relayserver/cslink/client_report.h"
#include "relayserver/cslink/forward_queue.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/orders/connect_to_server.h"
#include "relayserver/settings/servers.h"
#include "relayserver/settings/settings.h"
#include "relayserver/settings/time_limits.h"
#include "relayserver/settings/timers.h"

namespace {

void abandonLink(double dIdle) {
    writeToLog(true, "abandoning connection with connserver - idle for %.0f seconds\n", dIdle);
    if (nConnectionStage != CONNECTION_FINISHED) {
        SwitchServers();  // this server did not complete the login
    }
    LostConnectionToCS();
    ConnectToServer(false, nullptr);
}

void sendHeartbeat(std::time_t ttNow) {
    noteHeartbeat(ttNow);
    Orvex::HeartbeatNetMessage hbnm;
    ForwardToCS(hbnm);
}

void hibernate() {
    writeToLog(true,
               "Haven't been able to reach connection server for %u seconds, dropping clients and "
               "hibernating accepting new ones until connection made\n",
               nMaxTimeAwayFromCS);
    setAccepting(false);
    MopupCS(LeaveReason::kHibernation);
    ClearCSQueue();
}

void retryLink(std::time_t ttNow) {
    if (bAccepting && nMaxTimeAwayFromCS != 0 &&
        std::difftime(ttNow, ttLastConnServMsg) >= nMaxTimeAwayFromCS) {
        hibernate();
    }
    writeToLog(true, "auto retrying connect to connection server\n");
    ConnectToServer(false, nullptr);
}

}  // namespace

void lookAfterLink(std::time_t ttNow) {
    const double dIdle = std::difftime(ttNow, std::max(ttLastConnServMsg, ttLastCSConnectAttempt));
    if (nConnectionStage != CONNECTION_IDLE && dIdle > dIdleTimeOut) {
        abandonLink(dIdle);
    } else if (bLinkFinished() && std::difftime(ttNow, tLastHeartbeat) > dHeartbeatPeriod) {
        sendHeartbeat(ttNow);
    } else if (nConnectionStage == CONNECTION_IDLE &&
               std::difftime(ttNow, ttLastCSConnectAttempt) >= connectRetry_secs) {
        retryLink(ttNow);
    }
}
