/// All connections of a cell: the groups of sources and receivers, and the idle clients.
#pragma once

#include <cstddef>
#include <cstdint>
#include <gsl/span>
#include <memory>
#include <string>
#include <vector>

#include "bench/load/adapter.h"
#include "bench/load/event_set.h"
#include "bench/load/options.h"
#include "bench/load/receiver.h"
#include "bench/load/source.h"

namespace Load {

/// The groups that are measured together: those from `nFirst` to before `nEnd`.
struct Stage {
    int nFanout;
    std::size_t nFirst;
    std::size_t nEnd;
};

class Crowd {
  public:
    /// Both must outlive the crowd.
    Crowd(const Options& cellOptions, Adapter& rAdapterOfDaemon);

    /// Connects sources and receivers of all stages; events carry their indexes in the vectors.
    void connectGroups(EventSet& rEvents);
    /// Connects the idle clients. No event set watches them.
    void connectIdle();
    /// Connects one more idle client; the reference is valid until the next one is connected.
    const Connection& rConnectOneIdle();
    [[nodiscard]] std::vector<unsigned> idsOfIdle() const;
    /// Every few seconds sends the keep-alives of all clients. Not during a measurement.
    void keepAliveIfDue();

    [[nodiscard]] gsl::span<Source> sourcesOf(const Stage& stage) {
        return gsl::span<Source>(sources).subspan(stage.nFirst, stage.nEnd - stage.nFirst);
    }
    [[nodiscard]] gsl::span<Source> allSources() { return sources; }
    /// Whether every receiver has the latest message of its source.
    [[nodiscard]] bool bAllDelivered() const;

    std::vector<Stage> stages;
    std::vector<Source> sources;  ///< one for each group
    std::vector<Receiver> receivers;

  private:
    void connectGroup(int nGroup, int nFanout, EventSet& rEvents);
    void addReceiver(int nGroup, EventSet& rEvents);
    void keepAlive(Connection& rConnection);
    [[nodiscard]] Connection connectNext();
    void serviceIfDue();

    const Options& options;
    Adapter& rAdapter;
    std::string sPayload;
    std::vector<std::unique_ptr<FrameCheck>> checks;  ///< one for each group
    std::vector<Connection> idle;
    int nConnections = 0;
    std::int64_t nLastServiceNs = 0;
    std::int64_t nLastKeepAliveNs = 0;
};

}  // namespace Load
