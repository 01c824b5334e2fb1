/// Speaks to redis-server: publish and subscribe, one channel for each group.
#pragma once

#include "bench/load/adapter.h"

namespace Load {

class RedisAdapter : public Adapter {
  public:
    void becomeSource(Connection& rConnection, int nGroup) override;
    void becomeReceiver(Connection& rConnection, int nGroup) override;
    void becomeIdle(Connection& rConnection) override;
    [[nodiscard]] Frame sentFrame(int nGroup, const std::string& sPayload) const override;
    [[nodiscard]] Frame deliveredFrame(int nGroup, const std::string& sPayload) const override;
    [[nodiscard]] std::size_t nOtherFrameLen(std::string_view svInput) const override;
};

}  // namespace Load
