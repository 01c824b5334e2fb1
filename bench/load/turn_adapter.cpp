#include "bench/load/turn_adapter.h"

#include <utility>

#include "bench/load/give_up.h"
#include "bench/load/turn_message.h"

namespace Load {

namespace {

/// Idle clients have addresses after those of the others.
constexpr int kFirstIdle = 1000;

}  // namespace

TurnAdapter::TurnAdapter(const Options& options)
    : nClientNet(options.nClientNet),
      siServer(siMakeAddress(options.sAddress, options.nPort)),
      nDatagramLen(options.nPayload) {}

void TurnAdapter::request(const UdpSocket& socket, const std::string& sRequest) const {
    const std::string sAnswer =
        socket.sExchange(siServer, sRequest, [&](std::string_view svAnswer) {
            return judgeTurnAnswer(svAnswer, sRequest) != TurnAnswer::kOther;
        });
    if (judgeTurnAnswer(sAnswer, sRequest) != TurnAnswer::kSuccess) {
        giveUp("the TURN server refuses a request with error %d", nTurnErrorCode(sAnswer));
    }
}

void TurnAdapter::becomeSource(int nProgram, const UdpSocket& socket) {
    request(socket, sMakeAllocate(nTransaction++));
    Program& rProgram = programs.at(static_cast<std::size_t>(nProgram));
    rProgram.pSource = &socket;
    rProgram.nNextChannel = kFirstTurnChannel;
}

void TurnAdapter::becomeReceiver(int nProgram, const std::vector<UdpSocket>& row) {
    Program& rProgram = programs.at(static_cast<std::size_t>(nProgram));
    for (std::size_t n = 0; n < row.size(); ++n) {
        const std::uint16_t nChannel = rProgram.nNextChannel++;
        if (nChannel > kLastTurnChannel) {
            giveUp("a TURN client has no more channels");
        }
        request(*rProgram.pSource,
                sMakeChannelBind(nTransaction++, nChannel, row[n].siOwnAddress()));
        rProgram.targets.at(n).push_back({siServer, sMakeChannelHead(nChannel, nDatagramLen)});
    }
}

void TurnAdapter::connectIdle(int nCount) {
    for (int i = 0; i < nCount; ++i) {
        auto row = openUdpRow(sUdpClientAddress(nClientNet, kFirstIdle + i), 1);
        request(row.front(), sMakeAllocate(nTransaction++));
        idle.push_back(std::move(row.front()));
    }
}

std::uint32_t TurnAdapter::nSourceId(int nProgram) const {
    return static_cast<std::uint32_t>(nProgram);
}

std::vector<UdpTarget> TurnAdapter::targetsOf(int nProgram, int nChannel) const {
    return programs.at(static_cast<std::size_t>(nProgram))
        .targets.at(static_cast<std::size_t>(nChannel));
}

}  // namespace Load
