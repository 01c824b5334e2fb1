#include "relayserver/admission/accept_pause.h"

#include <ctime>
#include <vector>

#include "base/clock.h"
#include "relayserver/loop/epoll_set.h"

namespace {

std::vector<int> pausedListeners;
std::time_t ttPaused = 0;
bool bWantReported = false;

}  // namespace

bool bPauseAccepting(int fdListener) {
    removeFromEpoll(fdListener);
    pausedListeners.push_back(fdListener);
    ttPaused = nowSecs();
    const bool bFirst = !bWantReported;
    bWantReported = true;
    return bFirst;
}

void noteAccepted() {
    bWantReported = false;
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
    bWantReported = false;
}
