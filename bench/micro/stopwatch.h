/// Times a part of an iteration, where the rest only prepares it. For benchmarks that use manual
/// time, and parts long enough that reading the clock twice does not count.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>

namespace Micro {

class Stopwatch {
  public:
    Stopwatch() : started(std::chrono::steady_clock::now()) {}

    /// The part that began with this object is what the iteration took.
    void stop(benchmark::State& rState) const {
        const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - started;
        rState.SetIterationTime(taken.count());
    }

  private:
    std::chrono::steady_clock::time_point started;
};

}  // namespace Micro
