#include "bench/load/make_udp_adapter.h"

#include "bench/load/floor_udp_adapter.h"
#include "bench/load/give_up.h"
#include "bench/load/relay_udp_adapter.h"
#include "bench/load/turn_adapter.h"

namespace Load {

std::unique_ptr<UdpAdapter> makeUdpAdapter(const Options& options) {
    if (options.sDaemon == "relay") {
        return std::make_unique<RelayUdpAdapter>(options);
    }
    if (options.sDaemon == "floor") {
        return std::make_unique<FloorUdpAdapter>(options);
    }
    if (options.sDaemon == "turn") {
        return std::make_unique<TurnAdapter>(options);
    }
    giveUp("no such daemon for UDP: '%s'", options.sDaemon.c_str());
}

}  // namespace Load
