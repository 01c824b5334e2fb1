/// A client that hears one source, and checks all that it is sent.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "bench/load/adapter.h"
#include "bench/load/connection.h"
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
    FrameCheck(const Adapter& adapter, int nGroup, const std::string& sPayload)
        : frame(adapter.deliveredFrame(nGroup, sPayload)) {}
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

class Receiver {
  public:
    Receiver(Connection&& rConnection, const FrameCheck& checkOfGroup, int nGroupOfSource)
        : connection(std::move(rConnection)), pCheck(&checkOfGroup), nGroup(nGroupOfSource) {}

    /// Reads once and checks what came. Returns whether there may be more to read.
    bool bReadOnce(const Adapter& adapter, Findings& rFindings);
    /// The sequence number that has to come next; 0 before the first message.
    [[nodiscard]] std::uint32_t nNextSequence() const { return nExpected; }
    [[nodiscard]] int getGroup() const { return nGroup; }
    [[nodiscard]] Connection& rConnectionOf() { return connection; }

  private:
    std::size_t nConsume(std::string_view svInput, const Adapter& adapter, Findings& rFindings);
    void check(const char* pFrame, std::int64_t nNow, Findings& rFindings);

    Connection connection;
    const FrameCheck* pCheck;
    int nGroup;
    std::uint32_t nExpected = 0;
    bool bStarted = false;  ///< while routes are being made, the first messages may pass us by
};

}  // namespace Load
