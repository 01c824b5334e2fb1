#include "bench/load/make_adapter.h"

#include "bench/load/floor_adapter.h"
#include "bench/load/give_up.h"
#include "bench/load/mqtt_adapter.h"
#include "bench/load/nats_adapter.h"
#include "bench/load/redis_adapter.h"
#include "bench/load/relay_adapter.h"

namespace Load {

std::unique_ptr<Adapter> makeAdapter(const Options& options) {
    if (options.sDaemon == "relay") {
        return std::make_unique<RelayAdapter>(options);
    }
    if (options.sDaemon == "floor") {
        return std::make_unique<FloorAdapter>();
    }
    if (options.sDaemon == "nats") {
        return std::make_unique<NatsAdapter>();
    }
    if (options.sDaemon == "redis") {
        return std::make_unique<RedisAdapter>();
    }
    if (options.sDaemon == "mqtt") {
        return std::make_unique<MqttAdapter>();
    }
    giveUp("no such daemon: '%s'", options.sDaemon.c_str());
}

}  // namespace Load
