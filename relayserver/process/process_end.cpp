#include "relayserver/process/process_end.h"

#include <unistd.h>

#include <cstdlib>

#include "connserver/logging.h"
#include "connserver/signal_handling.h"
#include "relayserver/archive/archive_pass.h"
#include "relayserver/audio/packet_counts.h"
#include "relayserver/sockets/listeners.h"

namespace {

constexpr int kLogDrainMillis = 2000;

}  // namespace

void quitProcess(int nStatus) {
    ArchivePostThreader.askToEnd();
    (void)bDrainLog(kLogDrainMillis);  // a blocked disk must not prevent the exit
    joinEndedSignalThread();
    // `exit` shuts OpenSSL down before it destroys the poster, so the poster must release it now.
    // It cannot do so in the middle of a post, which must not delay the exit.
    if (!ArchivePostThreader.bClose()) {
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
