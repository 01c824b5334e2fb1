/// The captions of one source, on their way to the archive: collected with their times, rendered
/// from time to time as one JSON text. Main thread only.
///
/// Captions are byte pairs of two fields. In the buffer bit 7 of each byte tells the field (set:
/// field 2) and bits 0 to 6 are the data; parity is made when rendering.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

#include "base/clock.h"
#include "relayserver/archive/SccPRendering.h"

/// Bytes that the archive takes at once; a caption counts as ten of them.
constexpr std::size_t dynamo_max_put = 400000;

class SccPChunker {
  public:
    /// Captions that are sent in one text. A source that collects more is a flood, not a captioner,
    /// and what it has collected is never sent: see `add`.
    static constexpr std::size_t kMaxSentCaptions = dynamo_max_put / 10;

    explicit SccPChunker(unsigned sourceID);

    [[nodiscard]] unsigned getSourceID() const { return _nSourceID; }

    /// Keeps the byte pairs of one caption under the current time, but of a run of erase commands
    /// (0x14 or 0x15, then 0x2C; runs are counted for each field) only the first. An odd last byte
    /// is left out. A caption of the very microsecond of another one is not kept, and neither is
    /// any beyond one more than `kMaxSentCaptions`: that one tells the flood.
    void add(std::string_view captionBytes);

    /// Whether it holds a caption of that very time.
    [[nodiscard]] bool bHolds(utc_time_t t) const { return _byteMap.contains(t); }

    /// What was collected, to be rendered; empties the buffer. Costs the same whatever it holds.
    [[nodiscard]] SccPChunk takeChunk();

    /// The same as JSON text, rendered at once.
    [[nodiscard]] std::string getChunkPayloadJson();

    /// Empties the buffer.
    void clear();

    /// Captions in the buffer (not bytes).
    [[nodiscard]] std::size_t getBufferedSize() const { return _byteMap.size(); }

    /// The time of the oldest caption; now, if there is none.
    [[nodiscard]] utc_time_t getBufferOldest() const;

    /// Whether nothing is collected and nothing was rendered at `t` or later.
    [[nodiscard]] bool isInactiveSince(utc_time_t t) const;

  private:
    [[nodiscard]] std::string sTakePairs(std::string_view captionBytes);

    unsigned _nSourceID;
    /// When the buffer was last rendered; at first, when this object was made.
    utc_time_t _ptLastSent;
    std::map<utc_time_t, std::string> _byteMap;
    /// What `_byteMap` takes as text.
    std::size_t _nTextBytes = 0;
    /// For field 1 and 2: the last pair kept was an erase command.
    bool _bLastPairErase[2] = {false, false};
};
