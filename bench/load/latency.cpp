#include "bench/load/latency.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace Load {

// Below 64 ns every bucket is one nanosecond; above, each power of two has 64 of them.
int LatencyHistogram::nBucketOf(std::uint64_t nNs) {
    if (nNs < kSteps) {
        return static_cast<int>(nNs);
    }
    const int nShift = static_cast<int>(std::bit_width(nNs)) - kStepBits - 1;
    return (nShift + 1) * kSteps + static_cast<int>((nNs >> nShift) & (kSteps - 1));
}

std::int64_t LatencyHistogram::nUpperEnd(int nBucket) {
    if (nBucket < kSteps) {
        return nBucket;
    }
    const int nShift = nBucket / kSteps - 1;
    const std::int64_t nLower = static_cast<std::int64_t>(kSteps + nBucket % kSteps) << nShift;
    return nLower + (std::int64_t{1} << nShift) - 1;
}

void LatencyHistogram::record(std::int64_t nNs) {
    constexpr std::int64_t nMost = (std::int64_t{1} << kMaxBits) - 1;
    const std::int64_t nBounded = std::clamp<std::int64_t>(nNs, 0, nMost);
    ++anCounts[static_cast<std::size_t>(nBucketOf(static_cast<std::uint64_t>(nBounded)))];
    ++nTotal;
}

std::int64_t LatencyHistogram::nPercentileNs(double dShare) const {
    if (nTotal == 0) {
        return 0;
    }
    const auto nWanted = static_cast<std::int64_t>(std::ceil(dShare * static_cast<double>(nTotal)));
    std::int64_t nSeen = 0;
    for (std::size_t i = 0; i < anCounts.size(); ++i) {
        nSeen += anCounts[i];
        if (nSeen >= std::max<std::int64_t>(nWanted, 1)) {
            return nUpperEnd(static_cast<int>(i));
        }
    }
    return nUpperEnd(kBuckets - 1);
}

void LatencyHistogram::reset() {
    anCounts.fill(0);
    nTotal = 0;
}

}  // namespace Load
