/// Counts latencies and computes their percentiles without storing each one.
#pragma once

#include <array>
#include <cstdint>

namespace Load {

/// A histogram whose steps are 1/64 of the value: percentiles are at most 1.6 % too high.
class LatencyHistogram {
  public:
    /// Counts one latency in nanoseconds; a negative one counts as 0, one above 68 s as 68 s.
    void record(std::int64_t nNs);
    /// The latency that `dShare` (0..1) of all counted latencies do not exceed: the upper end of
    /// its step, in nanoseconds. 0 when nothing was counted.
    [[nodiscard]] std::int64_t nPercentileNs(double dShare) const;
    [[nodiscard]] std::int64_t nCount() const { return nTotal; }
    void reset();

  private:
    static constexpr int kStepBits = 6;
    static constexpr int kSteps = 1 << kStepBits;
    static constexpr int kMaxBits = 36;
    static constexpr int kBuckets = (kMaxBits - kStepBits + 1) * kSteps;

    static int nBucketOf(std::uint64_t nNs);
    static std::int64_t nUpperEnd(int nBucket);

    std::array<std::int64_t, kBuckets> anCounts{};
    std::int64_t nTotal = 0;
};

}  // namespace Load
