/// Speaks to our relay: tickets, captions, heartbeats.
#pragma once

#include "bench/load/adapter.h"
#include "bench/load/options.h"
#include "bench/load/server_stand_in.h"

namespace Load {

/// The caption frame of a client, with the payload as its caption.
[[nodiscard]] Frame makeCaptionFrame(unsigned nClientId, const std::string& sPayload);

class RelayAdapter : public Adapter {
  public:
    explicit RelayAdapter(const Options& options);

    void prepare() override { server.listenAt(sServerAddress); }
    void awaitDaemon() override { server.awaitRelay(); }
    void becomeSource(Connection& rConnection, int nGroup) override;
    void becomeReceiver(Connection& rConnection, int nGroup) override;
    void becomeIdle(Connection& rConnection) override;
    [[nodiscard]] Frame sentFrame(int nGroup, const std::string& sPayload) const override;
    [[nodiscard]] Frame deliveredFrame(int nGroup, const std::string& sPayload) const override;
    [[nodiscard]] std::size_t nOtherFrameLen(std::string_view svInput) const override;
    [[nodiscard]] std::string sKeepAlive(const Connection& connection) const override;
    [[nodiscard]] std::string sLogInFrame(unsigned nClientId) const override;
    [[nodiscard]] ServerStandIn* pConnectionServer() override { return &server; }
    [[nodiscard]] int fdToService() const override { return server.getFileDesc(); }
    void service() override { server.readAll(); }
    void serviceTimer() override { server.sendHeartbeat(); }

    /// For other services that clients need from their connection server.
    [[nodiscard]] ServerStandIn& rServerOf() { return server; }

  private:
    void logIn(Connection& rConnection, unsigned nId);

    std::string sServerAddress;
    bool bSourcesArePeers;
    ServerStandIn server;
    unsigned nNextId;
};

}  // namespace Load
