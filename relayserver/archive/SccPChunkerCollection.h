/// The caption buffers of all sources: finds those due for posting and forgets idle ones.
/// Main thread only.
#pragma once

#include <list>
#include <map>

#include "relayserver/archive/SccPChunker.h"

/// The buffers by source id.
class SccPChunkerCollection {
  public:
    /// Creates a buffer for source `id`; returns null and changes nothing if there is one. The
    /// buffer does not move until it is forgotten.
    SccPChunker* createNewSource(unsigned id);

    /// The buffer of source `id`; null if it has none.
    [[nodiscard]] SccPChunker* getSourceBuffer(unsigned id);

    /// The buffers whose oldest caption is at least `secs` seconds old, and those with captions
    /// from the future, whose age is unknown because the clock was set back; in order of source id.
    /// With `secs` 0 also the empty ones. Forgets all others that are empty and were not rendered
    /// for more than 300 s. The pointers are valid until the next call.
    [[nodiscard]] std::list<SccPChunker*> getBuffersOlderThan(unsigned secs);

  private:
    std::map<unsigned, SccPChunker> _collection;
};
