/// Conversion of a floating-point number from outside (configuration, command line) to an integer
/// without undefined behaviour, which a plain cast of 1e300 or of a NaN would be.
#pragma once

#include <cmath>
#include <concepts>
#include <limits>

/// The integer part of `dValue`, clamped to the range of the integer type; 0 for a NaN. A number
/// out of range therefore fails any narrower range check of the caller as well. A `Chameleon` can
/// be passed as it is. Any thread.
template <std::integral Int>
[[nodiscard]] Int nSaturated(double dValue) {
    using Limits = std::numeric_limits<Int>;
    // The first number too large is a power of two, which a double represents exactly; the largest
    // value of a 64-bit type would be rounded up to it.
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
