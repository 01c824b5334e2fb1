/// How far a counter that may advance by many steps at once is from the next value to report.
/// Any thread.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>

/// Steps, at least 1, from `nCount` to the next multiple of `nPeriod` (at least 1) that the counter
/// reaches. Zero is a multiple: an unsigned counter reaches it when it wraps. For a signed counter
/// the wrap is not taken into account, so that the result is right only below it.
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
