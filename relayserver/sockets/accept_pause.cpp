#include "relayserver/sockets/accept_pause.h"

#include <algorithm>
#include <ctime>
#include <vector>

#include "base/clock.h"
#include "relayserver/sockets/epoll_set.h"

namespace {

std::vector<int> pausedListeners;
std::time_t ttPaused = 0;
/// Listeners already reported as starved.
std::vector<int> reportedListeners;

}  // namespace

bool bPauseAccepting(int fdListener) {
    removeFromEpoll(fdListener);
    pausedListeners.push_back(fdListener);
    ttPaused = nowSecs();
    const bool bFirst = std::find(reportedListeners.begin(), reportedListeners.end(), fdListener) ==
                        reportedListeners.end();
    if (bFirst) {
        reportedListeners.push_back(fdListener);
    }
    return bFirst;
}

void noteAccepted() {
    reportedListeners.clear();
}

void resumeAccepting() {
    if (pausedListeners.empty() || nowSecs() == ttPaused) {
        return;
    }
    for (const int fdListener : pausedListeners) {
        addToEpollForRead(fdListener);
    }
    pausedListeners.clear();
}

void resetAcceptPauseForTest() {
    pausedListeners.clear();
    ttPaused = 0;
    reportedListeners.clear();
}
