/// What the load program needs to know about a daemon that forwards datagrams: how clients
/// introduce themselves, and what a source sends. Receivers get the same datagrams from all
/// daemons.
///
/// A program has one source, and receivers with a socket for each channel: one, or three when error
/// correction is sent in addition to the sound.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bench/load/udp_socket.h"

namespace Load {

/// Where a source sends a message, and the header of the datagram there.
struct UdpTarget {
    sockaddr_in siTo;
    std::string sHead;
};

class UdpAdapter {
  public:
    virtual ~UdpAdapter() = default;

    /// Called before the daemon starts, and after it has been started.
    virtual void prepare() {}
    virtual void awaitDaemon() {}

    /// Introduces the source of a program; before its receivers. The socket must outlive the
    /// adapter's use.
    virtual void becomeSource(int nProgram, const UdpSocket& socket) = 0;
    /// Introduces a receiver of a program, with its sockets by channel.
    virtual void becomeReceiver(int nProgram, const std::vector<UdpSocket>& row) = 0;
    /// Connects clients that neither send nor receive.
    virtual void connectIdle(int nCount) = 0;

    /// The source id in the datagrams of a program.
    [[nodiscard]] virtual std::uint32_t nSourceId(int nProgram) const = 0;
    /// Everything a source sends for one message, so that every receiver gets it once.
    [[nodiscard]] virtual std::vector<UdpTarget> targetsOf(int nProgram, int nChannel) const = 0;

    /// Sends the keep-alives of all clients if they are due. Not during a measurement.
    virtual void keepAliveIfDue() {}
    /// A descriptor for which `service` has to be called when it is readable; -1 for none.
    [[nodiscard]] virtual int fdToService() const { return -1; }
    virtual void service() {}
};

}  // namespace Load
