#include "relayserver/archive/SccPChunkerCollection.h"

using std::chrono::seconds;

namespace {

constexpr seconds maxIdleInSecs{300};

}  // namespace

SccPChunker* SccPChunkerCollection::createNewSource(unsigned id) {
    const auto [itSource, bNew] = _collection.try_emplace(id, id);
    return bNew ? &itSource->second : nullptr;
}

SccPChunker* SccPChunkerCollection::getSourceBuffer(unsigned id) {
    const auto itSource = _collection.find(id);
    return itSource == _collection.end() ? nullptr : &itSource->second;
}

std::list<SccPChunker*> SccPChunkerCollection::getBuffersOlderThan(unsigned secs) {
    const utc_time_t pt = ptNow();
    std::list<SccPChunker*> due;
    for (auto itSource = _collection.begin(); itSource != _collection.end();) {
        SccPChunker& rChunker = itSource->second;
        // An empty buffer reports the current time, which may be later than `pt`.
        const utc_time_t ptOldest =
            rChunker.getBufferedSize() == 0 ? pt : rChunker.getBufferOldest();
        if (pt - ptOldest >= seconds(secs) || ptOldest > pt) {
            due.push_back(&rChunker);
        } else if (rChunker.isInactiveSince(pt - maxIdleInSecs)) {
            itSource = _collection.erase(itSource);
            continue;
        }
        ++itSource;
    }
    return due;
}
