#include "bench/load/identification.h"

namespace Load {

void Identification::note(gsl::span<const unsigned> named) {
    for (const unsigned nId : named) {
        if (missing.erase(nId) == 1) {
            ++nRight;
        } else {
            ++nUnexpected;
        }
    }
}

}  // namespace Load
