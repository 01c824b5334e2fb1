#include "bench/load/udp_cell.h"

#include <algorithm>
#include <utility>

#include "bench/load/give_up.h"
#include "bench/load/quiet_time.h"
#include "bench/load/turn.h"
#include "bench/load/udp_datagram.h"

namespace Load {

namespace {

constexpr std::int64_t kNsPerMs = 1'000'000;
constexpr std::int64_t kNsPerSec = 1'000'000'000;
constexpr std::int64_t kWarmUpTimeoutNs = 20 * kNsPerSec;
/// Longer than a daemon with a core to itself is ever descheduled.
constexpr int kLostAfterMs = 300;

std::int64_t nToNs(double dSeconds) {
    return static_cast<std::int64_t>(dSeconds * static_cast<double>(kNsPerSec));
}

}  // namespace

UdpCell::UdpCell(const Options& cellOptions, UdpAdapter& rAdapterOfDaemon, pid_t nPidOfDaemon)
    : options(cellOptions),
      rAdapter(rAdapterOfDaemon),
      nPid(nPidOfDaemon),
      cpuClock(nPidOfDaemon),
      nChannels(cellOptions.bFec ? kAudioChannels : 1) {
    events.watch(timer.getFileDesc(), Party::kTimer, 0);
    if (rAdapter.fdToService() >= 0) {
        events.watch(rAdapter.fdToService(), Party::kAdapter, 0);
    }
}

void UdpCell::run() {
    for (int nProgram = 0; nProgram < options.nSources; ++nProgram) {
        connectProgram(nProgram);
    }
    warmUp();
    const std::int64_t nBefore = nResidentBytes(nPid);
    rAdapter.connectIdle(options.nIdle);
    warmUp();
    printMemory(nBefore, nResidentBytes(nPid), options.nIdle);
    for (int i = 0; i < options.nRepeats; ++i) {
        awaitTurn([this] { rAdapter.keepAliveIfDue(); });
        prepareRepetition();
        const Repetition repetition = runOnce();
        printRepetition(options.fanouts.front(), repetition, findings);
    }
}

// -- clients ---------------------------------------------------------------------------------

void UdpCell::connectProgram(int nProgram) {
    auto row = openUdpRow(sUdpClientAddress(options.nClientNet, nClients++), 1);
    const UdpSocket& socket = sourceSockets.emplace_back(std::move(row.front()));
    rAdapter.becomeSource(nProgram, socket);
    const Frame datagram = makeAudioDatagram(rAdapter.nSourceId(nProgram), options.nPayload);
    const FrameCheck& check = checks.emplace_back(datagram);
    for (int i = 0; i < options.fanouts.front(); ++i) {
        connectReceiver(nProgram, check);
    }
    addStreams(nProgram, datagram, socket.getFileDesc());
}

void UdpCell::connectReceiver(int nProgram, const FrameCheck& check) {
    auto row = openUdpRow(sUdpClientAddress(options.nClientNet, nClients++), nChannels);
    rAdapter.becomeReceiver(nProgram, row);
    auto nStream = static_cast<std::size_t>(nProgram * nChannels);
    for (UdpSocket& rSocket : row) {
        events.watch(rSocket.getFileDesc(), Party::kReceiver, receivers.size());
        receivers.emplace_back(std::move(rSocket), check, nStream++);
    }
}

void UdpCell::addStreams(int nProgram, const Frame& datagram, int fdSource) {
    for (int nChannel = 0; nChannel < nChannels; ++nChannel) {
        const auto targets = rAdapter.targetsOf(nProgram, nChannel);
        const std::size_t nUnderWay = options.nWindow / (datagram.sBytes.size() * targets.size());
        const SendWindow window(static_cast<std::uint32_t>(nUnderWay), options.fanouts.front());
        streams.emplace_back(fdSource, datagram, targets, window);
    }
}

// -- repetitions -----------------------------------------------------------------------------

bool UdpCell::bAllDelivered() const {
    return std::all_of(receivers.begin(), receivers.end(), [&](const UdpReceiver& receiver) {
        return receiver.nNextSequence() == streams[receiver.getStream()].nNextSequence();
    });
}

void UdpCell::awaitDeliveries() {
    while (!bAllDelivered()) {
        if (!bHandleEvents(kLostAfterMs)) {
            countInFlightAsLost();
        }
    }
}

void UdpCell::countInFlightAsLost() {
    for (UdpReceiver& rReceiver : receivers) {
        const std::uint32_t nSent = streams[rReceiver.getStream()].nNextSequence();
        rReceiver.rSequenceOf().giveUpBefore(nSent, findings);
    }
    for (std::size_t i = 0; i < streams.size(); ++i) {
        streams[i].window.restartAt(streams[i].nNextSequence());
        ready.push_back(i);
    }
}

void UdpCell::warmUp() {
    constexpr std::int64_t nOneTryNs = 100 * kNsPerMs;
    const std::int64_t nDeadline = nMonotonicNs() + kWarmUpTimeoutNs;
    do {
        if (nMonotonicNs() > nDeadline) {
            giveUp("datagrams do not reach all receivers");
        }
        for (UdpSource& rStream : streams) {
            rStream.sendOne();
        }
        const std::int64_t nTryEnd = nMonotonicNs() + nOneTryNs;
        while (!bAllDelivered() && nMonotonicNs() < nTryEnd) {
            (void)bHandleEvents(1);
        }
    } while (!bAllDelivered());
    for (UdpSource& rStream : streams) {
        rStream.window.restartAt(rStream.nNextSequence());
    }
}

void UdpCell::prepareRepetition() {
    rAdapter.keepAliveIfDue();
    const double dNeeded = options.dSeconds * 1.2;
    const std::int64_t nQuietAt = nMonotonicNs() + nToNs(dSecondsUntilQuiet(dNeeded));
    while (nMonotonicNs() < nQuietAt) {
        (void)bHandleEvents(10);
    }
    warmUp();
    ready.clear();
    for (UdpSource& rStream : streams) {
        rStream.nBytesSent = 0;
    }
    findings = Findings{};
    findings.bLatencies = options.pace == Pace::kModerate;
}

std::int64_t UdpCell::nMessagesSent() const {
    std::int64_t nSent = 0;
    for (const UdpSource& stream : streams) {
        nSent += stream.nNextSequence();
    }
    return nSent;
}

std::int64_t UdpCell::nBytesSent() const {
    std::int64_t nSent = 0;
    for (const UdpSource& stream : streams) {
        nSent += stream.nBytesSent;
    }
    return nSent;
}

Repetition UdpCell::runOnce() {
    Repetition repetition;
    const std::int64_t nSentBefore = nMessagesSent();
    const std::int64_t nCpuBefore = cpuClock.nNanoseconds();
    const std::int64_t nStart = nMonotonicNs();
    if (options.pace == Pace::kModerate) {
        sendModerately(repetition);
    } else {
        sendFlatOut();
    }
    awaitDeliveries();
    if (findings.nDeliveries == 0) {
        giveUp("no datagram has reached its receiver");
    }
    repetition.bComplete = true;  // or lost, which is counted
    repetition.nCpuNs = cpuClock.nNanoseconds() - nCpuBefore;
    repetition.nWallNs = nMonotonicNs() - nStart;
    repetition.nSent = nMessagesSent() - nSentBefore;
    repetition.nBytesSent = nBytesSent();
    return repetition;
}

// One message per beat, from the streams in turn; when we are late the message is skipped, because
// the daemon would find two at once.
void UdpCell::sendModerately(Repetition& rRepetition) {
    timer.start(nMessageIntervalNs(options.fanouts.front(), options.dRate));
    const std::int64_t nEnd = nMonotonicNs() + nToNs(options.dSeconds);
    std::size_t nTurn = 0;
    while (nMonotonicNs() < nEnd) {
        (void)bHandleEvents(-1);
        const std::int64_t nBeats = timer.nBeats();
        if (nBeats > 0) {
            streams[nTurn++ % streams.size()].sendOne();
            rRepetition.nMissedBeats += nBeats - 1;
        }
    }
    timer.stop();
    (void)timer.nBeats();
}

void UdpCell::sendFlatOut() {
    const std::int64_t nEnd = nMonotonicNs() + nToNs(options.dSeconds);
    for (std::size_t i = 0; i < streams.size(); ++i) {
        ready.push_back(i);
    }
    while (nMonotonicNs() < nEnd) {
        for (const std::size_t nStream : ready) {
            streams[nStream].sendMany();
        }
        ready.clear();
        if (!bHandleEvents(kLostAfterMs)) {
            countInFlightAsLost();
        }
    }
}

// -- events ----------------------------------------------------------------------------------

bool UdpCell::bHandleEvents(int nTimeoutMs) {
    const auto happened = events.wait(nTimeoutMs);
    for (const epoll_event& event : happened) {
        switch (EventSet::partyOf(event)) {
            case Party::kReceiver:
                handleReceiver(EventSet::nIndexOf(event));
                break;
            case Party::kAdapter:
                rAdapter.service();
                break;
            case Party::kSource:
            case Party::kTimer:
            case Party::kEntrant:
                break;
        }
    }
    return !happened.empty();
}

void UdpCell::handleReceiver(std::size_t nIndex) {
    UdpReceiver& rReceiver = receivers[nIndex];
    const std::uint32_t nBefore = rReceiver.nNextSequence();
    rReceiver.readOnce(findings);
    const std::size_t nStream = rReceiver.getStream();
    if (options.pace == Pace::kFlatOut &&
        streams[nStream].window.bAdvance(nBefore, rReceiver.nNextSequence())) {
        ready.push_back(nStream);
    }
}

}  // namespace Load
