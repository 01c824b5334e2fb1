/// What every delivery is compared with, and what the receivers of a repetition found.
#pragma once

#include <cstdint>
#include <string_view>
#include <utility>

#include "bench/load/frame.h"
#include "bench/load/latency.h"

namespace Load {

/// What the receivers of one repetition found, all together.
struct Findings {
    std::int64_t nDeliveries = 0;
    std::int64_t nLost = 0;   ///< sequence numbers that were left out
    std::int64_t nWrong = 0;  ///< out of order, twice, or with changed bytes
    bool bLatencies = false;  ///< whether to read the times at all
    LatencyHistogram latency;
};

/// The delivered frame of one source. Shared by its receivers.
class FrameCheck {
  public:
    explicit FrameCheck(Frame frameAsDelivered) : frame(std::move(frameAsDelivered)) {}
    [[nodiscard]] std::size_t nLength() const { return frame.sBytes.size(); }
    /// Whether these `nLength()` bytes are the frame, whatever its two numbers are.
    [[nodiscard]] bool bSameBytes(const char* pFrame) const;
    /// Whether input begins like the frame, as far as it has come up to the payload.
    [[nodiscard]] bool bBeginsLike(std::string_view svInput) const;
    [[nodiscard]] const char* pPayloadOf(const char* pFrame) const {
        return pFrame + frame.nPayloadAt;
    }

  private:
    Frame frame;
};

/// Follows what one receiver hears of its source.
class SequenceCheck {
  public:
    /// The frame must outlive this.
    explicit SequenceCheck(const FrameCheck& checkOfSource) : pCheck(&checkOfSource) {}

    /// Takes a delivery, which has the length of the frame; `nNow` is when it came, needed for
    /// latencies only.
    void take(const char* pFrame, std::int64_t nNow, Findings& rFindings);
    /// Takes everything before this sequence number for lost, as far as it has not come.
    void giveUpBefore(std::uint32_t nSequence, Findings& rFindings);
    /// The sequence number that has to come next; 0 before the first message.
    [[nodiscard]] std::uint32_t nNextSequence() const { return nExpected; }

  private:
    const FrameCheck* pCheck;
    std::uint32_t nExpected = 0;
    bool bStarted = false;  ///< while routes are being made, the first messages may pass us by
};

}  // namespace Load
