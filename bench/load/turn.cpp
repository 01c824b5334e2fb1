#include "bench/load/turn.h"

#include <poll.h>
#include <unistd.h>

#include <cstdio>

#include "bench/load/give_up.h"

namespace Load {

namespace {

constexpr int kLongWaitMillis = 6000;

bool bLineComes(int nTimeoutMillis) {
    pollfd pfd{STDIN_FILENO, POLLIN, 0};
    return poll(&pfd, 1, nTimeoutMillis) > 0;
}

}  // namespace

void awaitTurn(const std::function<void()>& keepAlive) {
    std::puts("{\"what\": \"turn\"}");
    std::fflush(stdout);
    while (!bLineComes(kLongWaitMillis)) {
        keepAlive();
    }
    char achLine[2];
    if (read(STDIN_FILENO, achLine, sizeof achLine) != 1 || achLine[0] != '\n') {
        giveUp("standard input ended before our turn");
    }
}

}  // namespace Load
