/// Speaks to nats-server: text lines, one subject for each group.
#pragma once

#include "bench/load/adapter.h"

namespace Load {

class NatsAdapter : public Adapter {
  public:
    void becomeSource(Connection& rConnection, int nGroup) override;
    void becomeReceiver(Connection& rConnection, int nGroup) override;
    void becomeIdle(Connection& rConnection) override;
    [[nodiscard]] Frame sentFrame(int nGroup, const std::string& sPayload) const override;
    [[nodiscard]] Frame deliveredFrame(int nGroup, const std::string& sPayload) const override;
    /// The server sends keep-alive requests.
    [[nodiscard]] std::size_t nOtherFrameLen(std::string_view svInput) const override;
    /// The answer to these, sent in advance.
    [[nodiscard]] std::string sKeepAlive(const Connection& connection) const override;
};

}  // namespace Load
