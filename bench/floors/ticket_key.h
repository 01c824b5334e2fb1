/// The DES key with which tickets for the admission floor are encrypted.
#pragma once

#include <array>

namespace Floor {

constexpr std::array<unsigned char, 8> kTicketKey{0x13, 0x34, 0x57, 0x79, 0x9B, 0xBC, 0xDF, 0xF1};

}  // namespace Floor
