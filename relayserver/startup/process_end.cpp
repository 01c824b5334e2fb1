#include "relayserver/startup/process_end.h"

#include <unistd.h>

#include <cstdlib>

#include "connserver/logging.h"
#include "connserver/signal_handling.h"
#include "relayserver/archive_pass.h"
#include "relayserver/audio/packet_counts.h"
#include "relayserver/startup/listeners.h"

namespace {

constexpr int kLogDrainMillis = 2000;

}  // namespace

void quitProcess(int nStatus) {
    ArchivePostThreader.askToEnd();
    (void)bDrainLog(kLogDrainMillis);  // a disk that takes no more lines must not keep us
    joinEndedSignalThread();
    if (!ArchivePostThreader.bHasEnded()) {
        // It is in the middle of a post, which must not keep us either; the clean-ups of `exit`
        // would take away what it works with.
        _exit(nStatus);
    }
    std::exit(nStatus);
}

void shutDown() {
    writeToLog(true, "%u Audio packets forwarded.\n", nAudioPacketsRcvd);
    writeToLog(true, "Cleaning up main method\n");
    closeListeners();
    quitProcess(0);
}
