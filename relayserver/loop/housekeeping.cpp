#include "relayserver/loop/housekeeping.h"

#include "base/clock.h"
#include "connserver/logging.h"
#include "orvex/tesselsql.h"
#include "relayserver/archive/archive_pass.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/loop/client_timers.h"
#include "relayserver/loop/link_timers.h"
#include "relayserver/orders/link_events.h"
#include "relayserver/peers/register_udp.h"
#include "relayserver/settings/time_limits.h"
#include "relayserver/settings/timers.h"
#include "relayserver/sockets/accept_pause.h"

std::time_t ttThisLoop = 0;
std::time_t ttLastLoop = 0;
double epoll_load_avg_1 = 0;
double epoll_load_avg_1K = 0;
double epoll_load_avg_1M = 0;

namespace {

constexpr int kLoadReportSecs = 60;

bool bTimerTick = false;
/// When the database was last found unreachable: it is retried in the next second, not in each
/// pass.
std::time_t ttLastDatabaseRetry = 0;

void checkDatabase() {
    if (ttThisLoop == ttLastDatabaseRetry || CheckSQLConnection(nullptr)) {
        return;
    }
    ttLastDatabaseRetry = ttThisLoop;
    writeToLog(true, "PostgreSQL database not connected!\n");
    (void)ResetSQL(nullptr);  // the next pass sees whether it worked
}

void reportLoad() {
    if (ttThisLoop % kLoadReportSecs == 0) {
        writeToLog(
            true,
            "Load reporting: epoll descriptors active per loop : %.0f / %.1f / %.1f (1 loop / "
            "1K avg / 1M avg)\n",
            epoll_load_avg_1, epoll_load_avg_1K, epoll_load_avg_1M);
    }
}

void sendHeartbeatBurst(std::time_t ttNow) {
    if (std::difftime(ttNow, tLastHeartbeatBurst) <= dHeartbeatPeriod) {
        return;
    }
    noteHeartbeatBurst(ttNow);
    checkInputAndSendHeartbeats(ttNow);
    reportLoad();
}

using tick_step_t = void (*)(std::time_t ttNow);

constexpr tick_step_t kStepsInOrder[] = {
    lookAfterLink,    dropIdleClients,        cancelStaleConnects, dropStalledHandshakes,
    dropLooseClients, retryOwedRegistrations, sendHeartbeatBurst,
};

void runTimers() {
    for (const tick_step_t runStep : kStepsInOrder) {
        runStep(ttThisLoop);
        settleBrokenLink();
    }
}

}  // namespace

void headOfPass() {
    ttThisLoop = nowSecs();
    checkDatabase();
    loggingTimeCheck();
    lookAfterArchive(ttThisLoop);
    clearRecentlyLostOnBoundary(ttThisLoop, bLinkFinished());
    resumeAccepting();
    bTimerTick = ttThisLoop > ttLastLoop && ttThisLoop % kTickSecs == 0;
}

void noteLoad(int nReady) {
    constexpr double kThousand = 1000;
    constexpr double kMillion = 1000000;
    epoll_load_avg_1 = nReady;
    epoll_load_avg_1K = epoll_load_avg_1K * (kThousand - 1) / kThousand + nReady / kThousand;
    epoll_load_avg_1M = epoll_load_avg_1M * (kMillion - 1) / kMillion + nReady / kMillion;
}

void tailOfPass() {
    if (bTimerTick) {
        runTimers();
    }
    ttLastLoop = ttThisLoop;
}

void resetHousekeepingForTest() {
    ttThisLoop = 0;
    ttLastLoop = 0;
    epoll_load_avg_1 = epoll_load_avg_1K = epoll_load_avg_1M = 0;
    bTimerTick = false;
    ttLastDatabaseRetry = 0;
}
