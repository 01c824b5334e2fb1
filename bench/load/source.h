/// A client that sends: one message at a time, or as many as may be in flight.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "bench/load/adapter.h"
#include "bench/load/connection.h"

namespace Load {

/// Counts how far a source is ahead of its slowest receiver, in blocks of messages, so that a
/// receiver reports only that it has finished a block.
class SendWindow {
  public:
    static constexpr std::uint32_t kBlocks = 8;

    /// A window of `nMessages` (at least 8) for `nOfReceivers` receivers.
    SendWindow(std::uint32_t nMessages, int nOfReceivers);

    /// Starts from a state in which all have received everything before this sequence number.
    void restartAt(std::uint32_t nSequence);
    /// A receiver has received everything before `nNow`, and previously everything before
    /// `nBefore`. True when the window has moved.
    bool bAdvance(std::uint32_t nBefore, std::uint32_t nNow);
    /// The first sequence number that must not be sent yet.
    [[nodiscard]] std::uint32_t nEnd() const { return nFloor + kBlocks * nBlockLen; }

  private:
    std::uint32_t nBlockLen;
    int nReceivers;
    std::uint32_t nFloor = 0;               ///< all receivers have received everything before it
    std::array<int, kBlocks> anFinished{};  ///< receivers that have finished a block
    std::uint32_t nFirst = 0;               ///< index of the block that begins at `nFloor`
};

class Source {
  public:
    Source(Connection&& rConnection, const Frame& frame, const SendWindow& windowOfGroup);

    /// Sends one message with the current time in it. If it cannot be sent at once the program
    /// ends, because at the moderate rate there is always room.
    void sendOne();
    /// Writes messages up to the end of the window, gathered, until the socket is full. At most
    /// `nByteLimit` bytes; returns the bytes written.
    std::size_t nSendMany(std::size_t nByteLimit);
    /// Writes the rest of a partially written message; true when none is left.
    [[nodiscard]] bool bFlush();

    [[nodiscard]] std::uint32_t nNextSequence() const { return nNext; }
    [[nodiscard]] bool bMaySend() const { return nNext < window.nEnd() || nPending > 0; }
    [[nodiscard]] std::size_t nFrameLen() const { return nLength; }
    [[nodiscard]] Connection& rConnectionOf() { return connection; }
    SendWindow window;
    /// Bytes written since the repetition began.
    std::int64_t nBytesSent = 0;

  private:
    static constexpr std::size_t kBurstBytes = 65536;

    void fill(std::uint32_t nMessages);
    bool bWritePending();

    Connection connection;
    std::size_t nLength;
    std::size_t nPayloadAt;
    std::uint32_t nMost;       ///< frames in `sBurst`
    std::string sBurst;        ///< the same frame many times, except for the sequence numbers
    std::size_t nAt = 0;       ///< where the unwritten part of `sBurst` begins
    std::size_t nPending = 0;  ///< and its length
    std::uint32_t nNext = 0;
};

}  // namespace Load
