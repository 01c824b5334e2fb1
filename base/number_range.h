/// Turning a floating-point number from outside (configuration, command line) into an integer
/// without undefined behaviour: a plain cast of 1e300 or of a NaN has none defined.
#pragma once

#include <cmath>
#include <concepts>
#include <limits>

/// Cuts the fraction off `dValue` and stores the result in `out` if the integer type can hold it.
/// False, with `out` untouched, for a number out of range, an infinity or a NaN. A `Chameleon` can
/// be passed as it is. Any thread.
template <std::integral Int>
requires(!std::same_as<Int, bool>) [[nodiscard]] bool bToInt(double dValue, Int& out) {
    using Limits = std::numeric_limits<Int>;
    // The first number too large is a power of two, which a double holds exactly; the largest value
    // itself would be rounded up to it for 64-bit types.
    const double dEnd = std::ldexp(1.0, Limits::digits);
    const double dWhole = std::trunc(dValue);
    if (!(dWhole >= static_cast<double>(Limits::min()) && dWhole < dEnd)) {
        return false;  // A NaN fails every comparison and ends here, too.
    }
    out = static_cast<Int>(dWhole);
    return true;
}
