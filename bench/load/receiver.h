/// A client that receives from one source, and checks everything it is sent.
#pragma once

#include <cstdint>
#include <string_view>
#include <utility>

#include "bench/load/adapter.h"
#include "bench/load/connection.h"
#include "bench/load/frame_check.h"

namespace Load {

class Receiver {
  public:
    Receiver(Connection&& rConnection, const FrameCheck& checkOfGroup, int nGroupOfSource)
        : connection(std::move(rConnection)),
          pCheck(&checkOfGroup),
          sequence(checkOfGroup),
          nGroup(nGroupOfSource) {}

    /// Reads once and checks what arrived. Returns whether there may be more to read.
    bool bReadOnce(const Adapter& adapter, Findings& rFindings);
    /// The sequence number expected next; 0 before the first message.
    [[nodiscard]] std::uint32_t nNextSequence() const { return sequence.nNextSequence(); }
    [[nodiscard]] int getGroup() const { return nGroup; }
    [[nodiscard]] Connection& rConnectionOf() { return connection; }

  private:
    std::size_t nConsume(std::string_view svInput, const Adapter& adapter, Findings& rFindings);

    Connection connection;
    const FrameCheck* pCheck;
    SequenceCheck sequence;
    int nGroup;
};

}  // namespace Load
