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
    (void)bDrainLog(kLogDrainMillis);  // a disk that takes no more lines must not keep us
    joinEndedSignalThread();
    // `exit` ends OpenSSL before it destroys the poster, which therefore lets go of it now. In the
    // middle of a post it cannot; but that must not keep us either.
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
