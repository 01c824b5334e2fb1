/// The few messages of a TURN client (RFC 8656, over the framing of RFC 8489) that channels need.
/// All numbers on the wire are in network order.
///
/// Message: u16 type, u16 length of what follows the head, u32 magic cookie, 12 bytes transaction;
/// then attributes: u16 type, u16 length, value, filled up to four bytes.
/// Channel data: u16 channel, u16 length, the datagram.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace Load {

/// The numbers that channels can have.
constexpr std::uint16_t kFirstTurnChannel = 0x4000;
constexpr std::uint16_t kLastTurnChannel = 0x4FFF;

/// Asks for a relayed UDP address; the transaction is any number of ours.
[[nodiscard]] std::string sMakeAllocate(std::uint32_t nTransaction);

/// Asks that a channel lead to the peer at an address.
[[nodiscard]] std::string sMakeChannelBind(std::uint32_t nTransaction, std::uint16_t nChannel,
                                           const sockaddr_in& siPeer);

/// What stands before a datagram of `nLength` bytes that is sent through a channel.
[[nodiscard]] std::string sMakeChannelHead(std::uint16_t nChannel, std::size_t nLength);

enum class TurnAnswer {
    kOther,    ///< it answers something else, or nothing
    kSuccess,  ///< the request was granted
    kError,    ///< it was refused
};

/// What a datagram says to a request, which one of the above has made.
[[nodiscard]] TurnAnswer judgeTurnAnswer(std::string_view svAnswer, std::string_view svRequest);

/// The code of an error, such as 401; 0 when there is none in it.
[[nodiscard]] int nTurnErrorCode(std::string_view svAnswer);

}  // namespace Load
