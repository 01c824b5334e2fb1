/// The audio datagrams that every daemon of the UDP cells forwards, and where the relay expects
/// them.
///
///   0   12 zero bytes
///   12  u32  id of the source, in host order
///   16  the payload with its numbers
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "bench/load/frame.h"
#include "genner/output/RelayConnectNetMessage.h"

namespace Load {

constexpr std::size_t kDatagramPrefix = 16;
/// Channel 0 is the sound, 1 and 2 are its error correction.
constexpr int kAudioChannels = 3;

/// A datagram of `nLength` bytes in all, of which the payload takes at least 24.
[[nodiscard]] Frame makeAudioDatagram(std::uint32_t nSourceId, std::size_t nLength);

/// The port of a relay, or a floor, whose first one is `nBasePort`.
[[nodiscard]] std::uint16_t nAudioPort(std::uint16_t nBasePort, int nProgram, int nChannel);

/// What a client does at the address that its registration comes from.
enum class AudioRole : unsigned { kReceive = 1, kSend = 4 };

/// The registration datagram of the client that a message with a ticket names.
[[nodiscard]] std::string sMakeRegistration(Orvex::RelayConnectNetMessage connect, AudioRole role);

}  // namespace Load
