#include "relayserver/startup/process_end.h"

#include <cstdlib>

#include "connserver/logging.h"
#include "connserver/signal_handling.h"
#include "relayserver/audio/packet_counts.h"
#include "relayserver/startup/listeners.h"

namespace {

constexpr int kLogDrainMillis = 2000;

}  // namespace

void quitProcess(int nStatus) {
    (void)bDrainLog(kLogDrainMillis);  // a disk that takes no more lines must not keep us
    joinEndedSignalThread();
    std::exit(nStatus);
}

void shutDown() {
    writeToLog(true, "%u Audio packets forwarded.\n", nAudioPacketsRcvd);
    writeToLog(true, "Cleaning up main method\n");
    closeListeners();
    quitProcess(0);
}
