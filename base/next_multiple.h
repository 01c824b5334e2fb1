/// When a counter that may advance by many steps at once passes a value that is to be reported.
/// Any thread.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>

/// Steps, at least 1, from `nCount` to the next multiple of `nPeriod` that the counter takes on;
/// zero is one. An unsigned counter wraps to zero. A signed one wraps to a value that is none, and
/// this looks no further than that: right for fewer steps than lie around it.
template <class Counter>
[[nodiscard]] constexpr std::uint32_t nStepsToMultiple(Counter nCount, std::uint32_t nPeriod) {
    static_assert(sizeof(Counter) == sizeof(std::uint32_t));
    const std::int64_t nNow = nCount;
    const std::int64_t nAbove = nNow % nPeriod;
    std::int64_t nSteps = nAbove < 0 ? -nAbove : nPeriod - nAbove;
    if constexpr (!std::numeric_limits<Counter>::is_signed) {
        nSteps = std::min(nSteps, std::int64_t{std::numeric_limits<Counter>::max()} + 1 - nNow);
    }
    return static_cast<std::uint32_t>(nSteps);
}
