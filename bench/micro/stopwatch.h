/// Times part of an iteration, when the rest only prepares it. For benchmarks that use manual time,
/// and parts long enough that reading the clock twice is negligible.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>

namespace Micro {

class Stopwatch {
  public:
    Stopwatch() : started(std::chrono::steady_clock::now()) {}

    /// Counts the time since this object was made as the iteration's.
    void stop(benchmark::State& rState) const {
        const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - started;
        rState.SetIterationTime(taken.count());
    }

  private:
    std::chrono::steady_clock::time_point started;
};

}  // namespace Micro
