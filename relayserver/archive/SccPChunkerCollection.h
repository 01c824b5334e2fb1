/// The caption buffers of all sources: which are due for shipping, and which can be forgotten.
/// Main thread only.
#pragma once

#include <list>
#include <map>

#include "relayserver/archive/SccPChunker.h"

class SccPChunkerCollection {
  public:
    /// Makes a buffer for source `id`; null, and nothing is changed, when it has one. The buffer
    /// stays where it is until it is forgotten.
    SccPChunker* createNewSource(unsigned id);

    /// The buffer of source `id`; null when it has none.
    [[nodiscard]] SccPChunker* getSourceBuffer(unsigned id);

    /// The buffers whose oldest caption is at least `secs` old, by source id, and those with
    /// captions from the future, whose age nobody knows: the clock was set back. With `secs` 0 also
    /// the empty ones. Forgets buffers that are not among them, are empty and were not rendered for
    /// more than 300 s. The pointers are valid until the next call of this or of createNewSource.
    [[nodiscard]] std::list<SccPChunker*> getBuffersOlderThan(unsigned secs);

  private:
    std::map<unsigned, SccPChunker> _collection;
};
