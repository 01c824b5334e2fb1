/// What the load program has to know of a daemon's protocol: how clients introduce themselves, and
/// how a message looks when it is sent and when it is delivered.
///
/// Messages belong to groups: group g has one source and the receivers that hear it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "bench/load/connection.h"
#include "bench/load/frame.h"

namespace Load {

class ServerStandIn;

class Adapter {
  public:
    virtual ~Adapter() = default;

    /// Before the daemon starts, and after it has been started.
    virtual void prepare() {}
    virtual void awaitDaemon() {}

    // Introduce a new connection; all return when the daemon has answered, if it answers at all.

    virtual void becomeSource(Connection& rConnection, int nGroup) = 0;
    virtual void becomeReceiver(Connection& rConnection, int nGroup) = 0;
    virtual void becomeIdle(Connection& rConnection) = 0;

    /// A message as the source of a group sends it, and as its receivers get it. Both have the
    /// same payload, and the length of neither depends on the group.
    [[nodiscard]] virtual Frame sentFrame(int nGroup, const std::string& sPayload) const = 0;
    [[nodiscard]] virtual Frame deliveredFrame(int nGroup, const std::string& sPayload) const = 0;

    /// The length of what stands at the head of a receiver's input and is no delivery, such as a
    /// heartbeat: 0 when it has not come whole yet. Ends the program when it should not be there.
    [[nodiscard]] virtual std::size_t nOtherFrameLen(std::string_view svInput) const = 0;

    /// What a client has to say every few seconds to be kept; empty for nothing.
    [[nodiscard]] virtual std::string sKeepAlive(const Connection& /*connection*/) const {
        return {};
    }

    /// What a client of this id logs in with, a fresh ticket in it. Ends the program for daemons
    /// that admit without.
    [[nodiscard]] virtual std::string sLogInFrame(unsigned nClientId) const;
    /// The connection server of a relay; null for all other daemons.
    [[nodiscard]] virtual ServerStandIn* pConnectionServer() { return nullptr; }

    /// A descriptor that `service` has to be called for when it is readable; -1 for none.
    [[nodiscard]] virtual int fdToService() const { return -1; }
    virtual void service() {}
    /// Called about once a second.
    virtual void serviceTimer() {}
};

}  // namespace Load
