#include "bench/load/floor_adapter.h"

#include <cstdint>
#include <cstring>

#include "bench/floors/introduction.h"
#include "bench/floors/ticket_key.h"
#include "bench/load/log_in.h"
#include "bench/load/relay_adapter.h"

namespace Load {

namespace {

void introduce(Connection& rConnection, char chRole, int nGroup) {
    const auto introduction = Floor::makeIntroduction(chRole, static_cast<std::uint32_t>(nGroup));
    rConnection.writeAll({introduction.data(), introduction.size()});
}

}  // namespace

void FloorAdapter::becomeSource(Connection& rConnection, int nGroup) {
    introduce(rConnection, Floor::kSource, nGroup);
}

void FloorAdapter::becomeReceiver(Connection& rConnection, int nGroup) {
    introduce(rConnection, Floor::kReceiver, nGroup);
}

void FloorAdapter::becomeIdle(Connection& rConnection) {
    introduce(rConnection, Floor::kIdle, 0);
}

Frame FloorAdapter::sentFrame(int nGroup, const std::string& sPayload) const {
    return makeCaptionFrame(static_cast<unsigned>(nGroup), sPayload);
}

Frame FloorAdapter::deliveredFrame(int nGroup, const std::string& sPayload) const {
    return sentFrame(nGroup, sPayload);
}

std::size_t FloorAdapter::nOtherFrameLen(std::string_view /*svInput*/) const {
    return 0;
}

std::string FloorAdapter::sLogInFrame(unsigned nClientId) const {
    return makeLogInFrame(nClientId, Floor::kTicketKey);
}

}  // namespace Load
