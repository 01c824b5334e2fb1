/// The timing of sources at the moderate rate.
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
    /// Starts; the first beat is one interval (nanoseconds) from now.
    void start(std::int64_t nIntervalNs);
    void stop();
    /// Beats since the last call; 0 if there were none.
    [[nodiscard]] std::int64_t nBeats();

  private:
    int fdTimer;
};

/// Nanoseconds between two messages, of any source, when each goes to `nFanout` receivers and all
/// receivers together get `dDeliveriesPerSec`.
[[nodiscard]] std::int64_t nMessageIntervalNs(int nFanout, double dDeliveriesPerSec);

}  // namespace Load
