#include "bench/load/udp_datagram.h"

#include <array>
#include <cstring>

#include "bench/load/payload.h"

namespace Load {

namespace {

constexpr std::size_t kSourceIdAt = 12;
constexpr int kProgramStep = 2;
constexpr int kChannelStep = 100;

}  // namespace

Frame makeAudioDatagram(std::uint32_t nSourceId, std::size_t nLength) {
    Frame datagram{std::string(kDatagramPrefix, '\0'), kDatagramPrefix};
    std::memcpy(datagram.sBytes.data() + kSourceIdAt, &nSourceId, sizeof nSourceId);
    datagram.sBytes += makePayload(nLength - kDatagramPrefix);
    return datagram;
}

std::uint16_t nAudioPort(std::uint16_t nBasePort, int nProgram, int nChannel) {
    return static_cast<std::uint16_t>(nBasePort + kProgramStep * nProgram +
                                      kChannelStep * nChannel);
}

std::string sMakeRegistration(Orvex::RelayConnectNetMessage connect, AudioRole role) {
    connect.ChangeSenderID(connect.GetClientID());
    connect.SetDestID(static_cast<unsigned>(role));
    std::array<char, Orvex::NetMessage::nMAX_UDP_MSG_LEN> achDatagram;
    int nLength = 0;
    connect.ToRTPFormatChars(achDatagram.data(), &nLength);
    return {achDatagram.data(), static_cast<std::size_t>(nLength)};
}

}  // namespace Load
