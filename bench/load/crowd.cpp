#include "bench/load/crowd.h"

#include <algorithm>
#include <utility>

#include "bench/load/cpu_clock.h"
#include "bench/load/give_up.h"
#include "bench/load/payload.h"

namespace Load {

namespace {

constexpr std::int64_t kNsPerSec = 1'000'000'000;
constexpr std::int64_t kServiceNs = kNsPerSec;
/// The relay drops a client that is silent for 15 s.
constexpr std::int64_t kKeepAliveNs = 5 * kNsPerSec;

}  // namespace

Crowd::Crowd(const Options& cellOptions, Adapter& rAdapterOfDaemon)
    : options(cellOptions),
      rAdapter(rAdapterOfDaemon),
      sPayload(makePayload(cellOptions.nPayload)) {}

Connection Crowd::connectNext() {
    serviceIfDue();
    return Connection::open(options, nConnections++);
}

void Crowd::connectGroups(EventSet& rEvents) {
    for (const int nFanout : options.fanouts) {
        const std::size_t nFirst = sources.size();
        for (int i = 0; i < options.nSources; ++i) {
            connectGroup(static_cast<int>(sources.size()), nFanout, rEvents);
        }
        stages.push_back({nFanout, nFirst, sources.size()});
    }
    nLastKeepAliveNs = nMonotonicNs();
}

void Crowd::connectGroup(int nGroup, int nFanout, EventSet& rEvents) {
    checks.push_back(std::make_unique<FrameCheck>(rAdapter.deliveredFrame(nGroup, sPayload)));
    for (int i = 0; i < nFanout; ++i) {
        addReceiver(nGroup, rEvents);
    }
    Connection connection = connectNext();
    rAdapter.becomeSource(connection, nGroup);
    connection.makeNonBlocking();
    const Frame frame = rAdapter.sentFrame(nGroup, sPayload);
    const SendWindow window(static_cast<std::uint32_t>(options.nWindow / frame.sBytes.size()),
                            nFanout);
    rEvents.watchChanges(connection.getFileDesc(), Party::kSource, sources.size());
    sources.emplace_back(std::move(connection), frame, window);
}

void Crowd::addReceiver(int nGroup, EventSet& rEvents) {
    Connection connection = connectNext();
    rAdapter.becomeReceiver(connection, nGroup);
    connection.makeNonBlocking();
    rEvents.watch(connection.getFileDesc(), Party::kReceiver, receivers.size());
    receivers.emplace_back(std::move(connection), *checks.back(), nGroup);
}

void Crowd::connectIdle() {
    for (int i = 0; i < options.nIdle; ++i) {
        (void)rConnectOneIdle();
    }
}

std::vector<unsigned> Crowd::idsOfIdle() const {
    std::vector<unsigned> ids;
    for (const Connection& connection : idle) {
        ids.push_back(connection.nId);
    }
    return ids;
}

const Connection& Crowd::rConnectOneIdle() {
    Connection connection = connectNext();
    rAdapter.becomeIdle(connection);
    connection.makeNonBlocking();
    idle.push_back(std::move(connection));
    // With thousands this takes so long that the first ones could be dropped.
    keepAliveIfDue();
    return idle.back();
}

bool Crowd::bAllDelivered() const {
    return std::all_of(receivers.begin(), receivers.end(), [&](const Receiver& receiver) {
        const auto nGroup = static_cast<std::size_t>(receiver.getGroup());
        return receiver.nNextSequence() == sources[nGroup].nNextSequence();
    });
}

void Crowd::keepAlive(Connection& rConnection) {
    const std::string sFrame = rAdapter.sKeepAlive(rConnection);
    if (!sFrame.empty() && rConnection.nWriteSome(sFrame) != sFrame.size()) {
        giveUp("the daemon does not read what idle clients send");
    }
}

void Crowd::keepAliveIfDue() {
    serviceIfDue();
    if (nMonotonicNs() - nLastKeepAliveNs < kKeepAliveNs) {
        return;
    }
    for (Receiver& rReceiver : receivers) {
        keepAlive(rReceiver.rConnectionOf());
    }
    for (Source& rSource : sources) {
        keepAlive(rSource.rConnectionOf());
    }
    for (Connection& rConnection : idle) {
        rConnection.drain();
        keepAlive(rConnection);
    }
    nLastKeepAliveNs = nMonotonicNs();
}

void Crowd::serviceIfDue() {
    if (nMonotonicNs() - nLastServiceNs > kServiceNs) {
        rAdapter.serviceTimer();
        nLastServiceNs = nMonotonicNs();
    }
}

}  // namespace Load
