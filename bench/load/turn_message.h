/// The few messages of a TURN client (RFC 8656, with the framing of RFC 8489) that channels need.
/// All numbers on the wire are in network byte order.
///
/// Message: u16 type, u16 length of what follows the header, u32 magic cookie, 12 bytes
/// transaction; then attributes: u16 type, u16 length, value, padded to four bytes.
///
/// Channel data: u16 channel, u16 length, the datagram.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace Load {

/// The range of channel numbers.
constexpr std::uint16_t kFirstTurnChannel = 0x4000;
constexpr std::uint16_t kLastTurnChannel = 0x4FFF;

/// Requests a relayed UDP address; the transaction number is arbitrary.
[[nodiscard]] std::string sMakeAllocate(std::uint32_t nTransaction);

/// Requests that a channel be bound to the peer at an address.
[[nodiscard]] std::string sMakeChannelBind(std::uint32_t nTransaction, std::uint16_t nChannel,
                                           const sockaddr_in& siPeer);

/// The header of a datagram of `nLength` bytes that is sent through a channel.
[[nodiscard]] std::string sMakeChannelHead(std::uint16_t nChannel, std::size_t nLength);

enum class TurnAnswer {
    kOther,    ///< not an answer to the request
    kSuccess,  ///< the request was granted
    kError,    ///< it was refused
};

/// How a datagram answers a request made by one of the functions above.
[[nodiscard]] TurnAnswer judgeTurnAnswer(std::string_view svAnswer, std::string_view svRequest);

/// The error code in an answer, such as 401; 0 if it has none.
[[nodiscard]] int nTurnErrorCode(std::string_view svAnswer);

}  // namespace Load
