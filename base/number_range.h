/// Turning a floating-point number from outside (configuration, command line) into an integer
/// without undefined behaviour: a plain cast of 1e300 or of a NaN has none defined.
#pragma once

#include <cmath>
#include <concepts>
#include <limits>

/// The whole part of `dValue`, or the end of the integer type's range that lies nearest; 0 for a
/// NaN. So a number out of range stays out of whatever narrower range the caller checks. A
/// `Chameleon` can be passed as it is. Any thread.
template <std::integral Int>
[[nodiscard]] Int nSaturated(double dValue) {
    using Limits = std::numeric_limits<Int>;
    // The first number too large is a power of two, which a double holds exactly; the largest value
    // itself would be rounded up to it for 64-bit types.
    const double dEnd = std::ldexp(1.0, Limits::digits);
    if (std::isnan(dValue)) {
        return 0;
    }
    if (dValue >= dEnd) {
        return Limits::max();
    }
    if (dValue <= static_cast<double>(Limits::min())) {
        return Limits::min();
    }
    return static_cast<Int>(dValue);
}
