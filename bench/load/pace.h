/// The beat of a source at the moderate rate.
#pragma once

#include <cstdint>

namespace Load {

/// A timer whose descriptor becomes readable once in every interval.
class PaceTimer {
  public:
    PaceTimer();
    ~PaceTimer();
    PaceTimer(const PaceTimer&) = delete;
    PaceTimer& operator=(const PaceTimer&) = delete;

    [[nodiscard]] int getFileDesc() const { return fdTimer; }
    /// Starts with the first beat one interval (nanoseconds) from now.
    void start(std::int64_t nIntervalNs);
    void stop();
    /// Beats since the last call, 0 when there was none.
    [[nodiscard]] std::int64_t nBeats();

  private:
    int fdTimer;
};

/// The time between two messages, of whichever source, when `nFanout` receivers hear each of them
/// and all receivers together get `dDeliveriesPerSec`. Nanoseconds.
[[nodiscard]] std::int64_t nMessageIntervalNs(int nFanout, double dDeliveriesPerSec);

}  // namespace Load
