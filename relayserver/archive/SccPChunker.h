/// Collects the captions of one source with their times, until they are rendered as JSON for the
/// archive. Main thread only.
///
/// Captions are byte pairs of two fields. In the buffer bit 7 of each byte tells the field (set:
/// field 2) and bits 0 to 6 are the data; parity is added when rendering.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

#include "base/clock.h"
#include "relayserver/archive/SccPRendering.h"

/// The most bytes that the archive takes at once; a caption counts as ten of them.
constexpr std::size_t dynamo_max_put = 400000;

/// The captions of one source.
class SccPChunker {
  public:
    /// The most captions sent in one text. A source that collects more is flooding, and what it has
    /// collected is discarded: see `add`.
    static constexpr std::size_t kMaxSentCaptions = dynamo_max_put / 10;

    /// An empty buffer for source `sourceID`.
    explicit SccPChunker(unsigned sourceID);

    /// The client id of the source.
    [[nodiscard]] unsigned getSourceID() const { return _nSourceID; }

    /// Keeps the byte pairs of one caption under the current time, but of a run of erase commands
    /// (0x14 or 0x15, then 0x2C; runs are counted for each field) only the first. An odd last byte
    /// is dropped. A caption in the same microsecond as another one is not kept. At most
    /// `kMaxSentCaptions` + 1 captions are kept: the last one marks a flood.
    void add(std::string_view captionBytes);

    /// Whether there is a caption of exactly time `t`.
    [[nodiscard]] bool bHolds(utc_time_t t) const { return _byteMap.contains(t); }

    /// Moves out what was collected, for rendering, and empties the buffer. Takes constant time.
    [[nodiscard]] SccPChunk takeChunk();

    /// Likewise, but rendered as JSON text at once.
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
    /// The size of `_byteMap` as text.
    std::size_t _nTextBytes = 0;
    /// For field 1 and 2: the last pair kept was an erase command.
    bool _bLastPairErase[2] = {false, false};
};
