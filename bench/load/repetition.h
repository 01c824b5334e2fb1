/// The output for one repetition: a line of JSON on standard output.
#pragma once

#include <cstdint>

#include "bench/load/frame_check.h"

namespace Load {

struct Repetition {
    std::int64_t nCpuNs = 0;   ///< processor time of the daemon
    std::int64_t nWallNs = 0;  ///< from the first message sent to the last delivered
    std::int64_t nSent = 0;    ///< messages
    std::int64_t nBytesSent = 0;
    std::int64_t nMissedBeats = 0;  ///< moderate: messages skipped because we were late
    bool bComplete = false;         ///< everything that was sent has been delivered
};

/// Prints the repetition and what its receivers found, `nFanout` per source.
void printRepetition(int nFanout, const Repetition& repetition, const Findings& findings);

/// Prints the daemon's resident bytes without and with `nIdle` idle clients, once per cell.
void printMemory(std::int64_t nBefore, std::int64_t nAfter, int nIdle);

}  // namespace Load
