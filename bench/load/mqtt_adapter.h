/// Speaks MQTT 3.1.1 without acknowledgements (quality of service 0), one topic for each group.
#pragma once

#include "bench/load/adapter.h"

namespace Load {

class MqttAdapter : public Adapter {
  public:
    void becomeSource(Connection& rConnection, int nGroup) override;
    void becomeReceiver(Connection& rConnection, int nGroup) override;
    void becomeIdle(Connection& rConnection) override;
    [[nodiscard]] Frame sentFrame(int nGroup, const std::string& sPayload) const override;
    [[nodiscard]] Frame deliveredFrame(int nGroup, const std::string& sPayload) const override;
    [[nodiscard]] std::size_t nOtherFrameLen(std::string_view svInput) const override;

  private:
    int nNextClient = 0;
};

}  // namespace Load
