/// The source of one stream of datagrams: one at a time, or as many as may be in flight.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bench/load/frame.h"
#include "bench/load/source.h"
#include "bench/load/udp_adapter.h"

namespace Load {

class UdpSource {
  public:
    /// Sends from a blocking socket, which must outlive the source. A message goes to each target
    /// in turn.
    UdpSource(int fdOfSource, const Frame& datagram, std::vector<UdpTarget> targetsOfMessage,
              const SendWindow& windowOfStream);
    UdpSource(const UdpSource&) = delete;
    UdpSource& operator=(const UdpSource&) = delete;

    /// Sends one message with the current time in it.
    void sendOne();
    /// Sends messages up to the end of the window, in sequence, many in one system call.
    void sendMany();

    [[nodiscard]] std::uint32_t nNextSequence() const { return nNext; }
    SendWindow window;
    /// Bytes sent since the repetition began.
    std::int64_t nBytesSent = 0;

  private:
    static constexpr std::uint32_t kBurst = 64;

    void prepareHeaders();
    void stamp(std::uint32_t nIndex, std::int64_t nNow);
    /// Sends the first messages of the burst.
    void send(std::uint32_t nMessages);

    int fd;
    std::size_t nLength;
    std::size_t nPayloadAt;
    std::vector<UdpTarget> targets;
    std::string sBurst;  ///< the same datagram many times, except for its numbers
    std::vector<iovec> parts;
    std::vector<mmsghdr> headers;
    std::uint32_t nNext = 0;
};

}  // namespace Load
