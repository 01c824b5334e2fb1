/// Start-up, event loop and exit of the process, in order.
#include <gsl/util>

#include "base/ConfigFile.h"
#include "connserver/logging.h"
#include "connserver/signal_handling.h"
#include "orvex/tesselsql.h"
#include "relayserver/archive/archive_pass.h"
#include "relayserver/audio/udp_receive.h"
#include "relayserver/loop/event_loop.h"
#include "relayserver/orders/connect_to_server.h"
#include "relayserver/process/process_end.h"
#include "relayserver/routes/route_store.h"
#include "relayserver/settings/command_line.h"
#include "relayserver/settings/session_keys.h"
#include "relayserver/settings/settings.h"
#include "relayserver/sockets/descriptors.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/sockets/listeners.h"

#include <cstdio>
#include <cstdlib>

namespace {

constexpr const char* kVersion = "relayserver Version 3.4.8";
/// The log directory in effect: logging starts before the configuration is read.
constexpr const char* achLogDir = "/var/log/tessel/relayserver/";
/// The exit status that a parent process sees when `main` returns -1.
constexpr int kMinusOne = 255;

/// The main thread reconnects to the database and must not block on a server that accepts the
/// connection and then stays silent. A limit set by the operator is kept.
void limitDatabaseConnectTime() {
    constexpr int kKeepExisting = 0;
    setenv("PGCONNECT_TIMEOUT", "2", kKeepExisting);
}

void openRouteStore() {
    limitDatabaseConnectTime();
    if (!ConnectSQL("127.0.0.1", "tessel", "postgres", "", nullptr)) {
        writeToLog(true, "could not connect to database. relayserver quitting.\n");
        quitProcess(1);
    }
    DBCleanup();
}

void quitUnlessListening(ListenOutcome outcome) {
    if (outcome == ListenOutcome::kExitRequested) {
        shutDown();
    }
    if (outcome == ListenOutcome::kFailed) {
        quitProcess(1);
    }
}

void openListeners() {
    quitUnlessListening(openPlainListener());
    quitUnlessListening(openTlsListener());
    if (!bOpenAudioSockets()) {
        quitProcess(1);
    }
}

/// From the configuration to the end of the event loop; returns only when start-up fails.
int runRelay(const CommandLine& commandLine) {
    const SettingsOutcome settingsOutcome =
        readSettings(ConfigFile(commandLine.sConfFile), commandLine);
    if (!settingsOutcome.bGoOn) {
        if (settingsOutcome.nExitStatus != kMinusOne) {
            quitProcess(settingsOutcome.nExitStatus);
        }
        return kMinusOne;
    }
    openArchive();
    openRouteStore();
    makeSessionKey();
    const PublicKeyOutcome keyOutcome = loadPublicKey();
    if (keyOutcome == PublicKeyOutcome::kUnreadable) {
        quitProcess(1);
    }
    if (keyOutcome == PublicKeyOutcome::kNoFile) {
        return 0;  // unlike the other failures: a service manager need not restart us
    }
    openListeners();
    if (!bOpenEpollSet()) {
        return kMinusOne;
    }
    if (!bConnectToFirstServer()) {
        shutDown();
    }
    watchListeners();
    watchAudioSockets();
    runEventLoop();
    shutDown();
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    occupyStandardDescriptors();
    raiseDescriptorLimit();
    std::puts(kVersion);
    const CommandLine commandLine = readCommandLine(argc, argv);
    if (commandLine.bVersion) {
        return 0;
    }
    setupSignalHandler();
    const auto signalGuard = gsl::finally([] { closeSignalHandler(); });
    setupLogging(commandLine.bDebug, achLogDir);
    const auto logGuard = gsl::finally([] { closeLog(); });
    if (!commandLine.bDebug) {
        writeToLog(true, "%s\n", kVersion);
    }
    return runRelay(commandLine);
}
