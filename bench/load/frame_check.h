/// Checks every delivery, and collects what the receivers of a repetition found.
#pragma once

#include <cstdint>
#include <string_view>
#include <utility>

#include "bench/load/frame.h"
#include "bench/load/latency.h"

namespace Load {

/// What all receivers of one repetition found.
struct Findings {
    std::int64_t nDeliveries = 0;
    std::int64_t nLost = 0;   ///< sequence numbers that were skipped
    std::int64_t nWrong = 0;  ///< out of order, twice, or with changed bytes
    bool bLatencies = false;  ///< whether to read the times
    LatencyHistogram latency;
};

/// The delivered frame of one source. Shared by its receivers.
class FrameCheck {
  public:
    explicit FrameCheck(Frame frameAsDelivered) : frame(std::move(frameAsDelivered)) {}
    [[nodiscard]] std::size_t nLength() const { return frame.sBytes.size(); }
    /// Whether these `nLength()` bytes are the frame, with any values of its two numbers.
    [[nodiscard]] bool bSameBytes(const char* pFrame) const;
    /// Whether the input, up to the payload, begins like the frame.
    [[nodiscard]] bool bBeginsLike(std::string_view svInput) const;
    [[nodiscard]] const char* pPayloadOf(const char* pFrame) const {
        return pFrame + frame.nPayloadAt;
    }

  private:
    Frame frame;
};

/// Tracks what one receiver gets from its source.
class SequenceCheck {
  public:
    /// The frame must outlive this.
    explicit SequenceCheck(const FrameCheck& checkOfSource) : pCheck(&checkOfSource) {}

    /// Takes a delivery, which has the length of the frame; `nNow` is its time of arrival, needed
    /// only for latencies.
    void take(const char* pFrame, std::int64_t nNow, Findings& rFindings);
    /// Counts everything before this sequence number that has not arrived as lost.
    void giveUpBefore(std::uint32_t nSequence, Findings& rFindings);
    /// The sequence number expected next; 0 before the first message.
    [[nodiscard]] std::uint32_t nNextSequence() const { return nExpected; }

  private:
    const FrameCheck* pCheck;
    std::uint32_t nExpected = 0;
    bool bStarted = false;  ///< while routes are being set up, the first messages may be missed
};

}  // namespace Load
