/// What the load program needs to know about a daemon's protocol: how clients introduce themselves,
/// and what a message looks like when it is sent and when it is delivered.
///
/// Messages belong to groups: group g has one source and its receivers.
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

    /// Called before the daemon starts, and after it has been started.
    virtual void prepare() {}
    virtual void awaitDaemon() {}

    // Introduce a new connection; these return when the daemon has answered, if it answers at all.

    virtual void becomeSource(Connection& rConnection, int nGroup) = 0;
    virtual void becomeReceiver(Connection& rConnection, int nGroup) = 0;
    virtual void becomeIdle(Connection& rConnection) = 0;

    /// A message as the source of a group sends it, and as its receivers get it. Both have the
    /// same payload, and their lengths do not depend on the group.
    [[nodiscard]] virtual Frame sentFrame(int nGroup, const std::string& sPayload) const = 0;
    [[nodiscard]] virtual Frame deliveredFrame(int nGroup, const std::string& sPayload) const = 0;

    /// The length of the frame at the start of a receiver's input that is not a delivery, such as a
    /// heartbeat; 0 while it is incomplete. Ends the program when the frame is unexpected.
    [[nodiscard]] virtual std::size_t nOtherFrameLen(std::string_view svInput) const = 0;

    /// What a client has to send every few seconds to stay connected; empty for nothing.
    [[nodiscard]] virtual std::string sKeepAlive(const Connection& /*connection*/) const {
        return {};
    }

    /// The log-in frame of a client with this id, with a fresh ticket. Ends the program for daemons
    /// that admit clients without tickets.
    [[nodiscard]] virtual std::string sLogInFrame(unsigned nClientId) const;
    /// The connection server of a relay; null for all other daemons.
    [[nodiscard]] virtual ServerStandIn* pConnectionServer() { return nullptr; }

    /// A descriptor for which `service` has to be called when it is readable; -1 for none.
    [[nodiscard]] virtual int fdToService() const { return -1; }
    virtual void service() {}
    /// Called about once a second.
    virtual void serviceTimer() {}
};

}  // namespace Load
