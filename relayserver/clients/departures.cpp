#include "relayserver/clients/departures.h"

#include <array>
#include <cstddef>

namespace {

constexpr auto kReasons = static_cast<std::size_t>(LeaveReason::kAlreadyConnected) + 1;

std::array<std::uint64_t, kReasons> countsByReason{};

}  // namespace

void noteDeparture(LeaveReason reason) {
    ++countsByReason[static_cast<std::size_t>(reason)];
}

std::uint64_t nDepartures(LeaveReason reason) {
    return countsByReason[static_cast<std::size_t>(reason)];
}

void resetDeparturesForTest() {
    countsByReason = {};
}
