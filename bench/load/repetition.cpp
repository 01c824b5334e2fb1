#include "bench/load/repetition.h"

#include <cinttypes>
#include <cstdio>

namespace Load {

void printRepetition(int nFanout, const Repetition& repetition, const Findings& findings) {
    std::printf("{\"what\": \"repetition\", \"fanout\": %d, \"cpu_ns\": %" PRId64
                ", \"wall_ns\": %" PRId64 ", \"sent\": %" PRId64 ", \"bytes_sent\": %" PRId64
                ", \"missed_beats\": %" PRId64 ", \"deliveries\": %" PRId64 ", \"lost\": %" PRId64
                ", \"wrong\": %" PRId64 ", \"complete\": %s",
                nFanout, repetition.nCpuNs, repetition.nWallNs, repetition.nSent,
                repetition.nBytesSent, repetition.nMissedBeats, findings.nDeliveries,
                findings.nLost, findings.nWrong, repetition.bComplete ? "true" : "false");
    if (findings.bLatencies) {
        std::printf(", \"p50_ns\": %" PRId64 ", \"p99_ns\": %" PRId64 ", \"p999_ns\": %" PRId64,
                    findings.latency.nPercentileNs(0.5), findings.latency.nPercentileNs(0.99),
                    findings.latency.nPercentileNs(0.999));
    }
    std::printf("}\n");
    std::fflush(stdout);
}

void printMemory(std::int64_t nBefore, std::int64_t nAfter, int nIdle) {
    std::printf("{\"what\": \"memory\", \"before\": %" PRId64 ", \"after\": %" PRId64
                ", \"idle\": %d}\n",
                nBefore, nAfter, nIdle);
    std::fflush(stdout);
}

}  // namespace Load
