/// How a client logs in to the relay: the ticket that it presents, and the answer.
#pragma once

#include <array>
#include <string>
#include <string_view>

#include "genner/output/RelayConnectNetMessage.h"

namespace Load {

/// The DES key under which the tickets of one relay are encrypted.
using ticket_key_t = std::array<unsigned char, 8>;

/// A message with a fresh ticket for a client with this id.
[[nodiscard]] Orvex::RelayConnectNetMessage makeTicketMessage(unsigned nClientId,
                                                              const ticket_key_t& achKey);

/// The same as the frame that the client sends.
[[nodiscard]] std::string makeLogInFrame(unsigned nClientId, const ticket_key_t& achKey);

/// The state of the answer to a log-in.
enum class Answer { kIncomplete, kAdmitted, kRefused };

/// Evaluates the first frame sent to a client. Anything but the relay's "OK" is a refusal.
[[nodiscard]] Answer judgeAnswer(std::string_view svInput);

}  // namespace Load
