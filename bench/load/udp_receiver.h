/// A socket that receives one stream of datagrams, and checks all of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "bench/load/frame_check.h"
#include "bench/load/udp_socket.h"

namespace Load {

class UdpReceiver {
  public:
    /// The frame must outlive the receiver; `nOfStream` is for the caller's use.
    UdpReceiver(UdpSocket&& rSocket, const FrameCheck& checkOfStream, std::size_t nOfStream)
        : socket(std::move(rSocket)),
          nFrameLen(checkOfStream.nLength()),
          sequence(checkOfStream),
          nStream(nOfStream) {}

    /// Reads what is available, up to some hundred datagrams, and checks it.
    void readOnce(Findings& rFindings);

    [[nodiscard]] std::size_t getStream() const { return nStream; }
    [[nodiscard]] std::uint32_t nNextSequence() const { return sequence.nNextSequence(); }
    [[nodiscard]] SequenceCheck& rSequenceOf() { return sequence; }
    [[nodiscard]] int getFileDesc() const { return socket.getFileDesc(); }

  private:
    UdpSocket socket;
    std::size_t nFrameLen;
    SequenceCheck sequence;
    std::size_t nStream;
};

}  // namespace Load
