#include "base/trim.h"

std::string trim(const std::string& source, const std::string& delims) {
    const auto nFirst = source.find_first_not_of(delims);
    if (nFirst == std::string::npos) {
        return "";
    }
    const auto nLast = source.find_last_not_of(delims);
    return source.substr(nFirst, nLast - nFirst + 1);
}
