/// Sends messages through the engine, one pass of its event loop for each burst. Only these passes
/// are counted when this runs under callgrind.
///
///   relay_instructions caption|datagram RECEIVERS BURST
///
/// Sends kMessages in bursts of BURST.
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "bench/instructions/caption.h"
#include "bench/instructions/datagram.h"
#include "bench/instructions/engine_harness.h"
#include "bench/instructions/give_up.h"
#include "relayserver/loop/event_loop.h"

namespace {

/// Every 300th datagram is confirmed to its source: this many messages include exactly one.
constexpr int kMessages = 300;
/// Uncounted bursts first: after them all memory is allocated and every function resolved.
constexpr int kWarmUps = 10;

std::unique_ptr<MessageKind> makeKind(std::string_view svName, int nReceivers) {
    if (svName == "caption") {
        return std::make_unique<Caption>(nReceivers);
    }
    if (svName == "datagram") {
        return std::make_unique<Datagram>(nReceivers);
    }
    giveUp("no such kind of message");
}

/// Instrumentation is switched on for the pass alone, not just collection: otherwise callgrind
/// would also count the calls outside of it.
void runCountedPass() {
    CALLGRIND_START_INSTRUMENTATION;
    runOnePass();
    CALLGRIND_STOP_INSTRUMENTATION;
}

void switchBurst(MessageKind& rKind, int nBurst, void (*runPass)()) {
    rKind.send(nBurst);
    runPass();
    if (!rKind.bAllReceived(nBurst)) {
        giveUp("a burst was not sent completely in one pass");
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        giveUp("usage: relay_instructions caption|datagram RECEIVERS BURST");
    }
    const int nBurst = std::atoi(argv[3]);
    if (nBurst < 1 || kMessages % nBurst != 0) {
        giveUp("BURST must divide 300");
    }
    openEngine();
    const auto pKind = makeKind(argv[1], std::atoi(argv[2]));
    for (int i = 0; i < kWarmUps; ++i) {
        switchBurst(*pKind, nBurst, runOnePass);
    }
    for (int i = 0; i < kMessages / nBurst; ++i) {
        switchBurst(*pKind, nBurst, runCountedPass);
    }
    std::printf("messages: %d\n", kMessages);
    return EXIT_SUCCESS;
}
