/// Speaks to the bare floors: the relay's caption frames, after one frame that introduces the
/// client.
#pragma once

#include "bench/load/adapter.h"

namespace Load {

class FloorAdapter : public Adapter {
  public:
    void becomeSource(Connection& rConnection, int nGroup) override;
    void becomeReceiver(Connection& rConnection, int nGroup) override;
    void becomeIdle(Connection& rConnection) override;
    [[nodiscard]] Frame sentFrame(int nGroup, const std::string& sPayload) const override;
    [[nodiscard]] Frame deliveredFrame(int nGroup, const std::string& sPayload) const override;
    [[nodiscard]] std::size_t nOtherFrameLen(std::string_view svInput) const override;
    [[nodiscard]] std::string sLogInFrame(unsigned nClientId) const override;
};

}  // namespace Load
