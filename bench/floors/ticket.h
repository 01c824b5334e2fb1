/// The ticket check of the admission floor. Sources that include this define
/// OPENSSL_SUPPRESS_DEPRECATED first, because of DES.
///
/// A log-in, after its length byte and a header of 9 bytes:
///   the client id in decimal and a '~'
///   the ticket, with a backslash before each of its backslashes, '~' and NULs, and a '~'
/// A ticket is two blocks: u32 client id, u32 address, u32 time of issue, u32 zero.
#pragma once

#include <openssl/des.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

namespace Floor {

constexpr std::size_t kTicketLen = 16;
using ticket_t = std::array<unsigned char, kTicketLen>;

/// Reads a field and removes its escapes; false when it does not have the length of a ticket.
inline bool bReadTicket(std::string_view svField, ticket_t& rachTicket) {
    std::size_t nLen = 0;
    for (std::size_t i = 0; i < svField.size() && svField[i] != '~'; ++i) {
        i += svField[i] == '\\' ? 1 : 0;
        if (i == svField.size() || nLen == kTicketLen) {
            return false;
        }
        rachTicket[nLen++] = static_cast<unsigned char>(svField[i]);
    }
    return nLen == kTicketLen;
}

/// Whether the log-in in this frame has a ticket for its client that has not expired.
inline bool bAdmits(std::string_view svFrame, DES_key_schedule& rSchedule) {
    constexpr std::size_t kHeadLen = 10;
    constexpr std::int64_t kMostSecs = 300;
    const std::size_t nIdEnd = svFrame.find('~', kHeadLen);
    ticket_t achTicket;
    if (nIdEnd == std::string_view::npos || !bReadTicket(svFrame.substr(nIdEnd + 1), achTicket)) {
        return false;
    }
    for (std::size_t i = 0; i < kTicketLen; i += sizeof(DES_cblock)) {
        auto* const pBlock = reinterpret_cast<DES_cblock*>(achTicket.data() + i);
        DES_ecb_encrypt(pBlock, pBlock, &rSchedule, DES_DECRYPT);
    }
    std::array<std::uint32_t, kTicketLen / sizeof(std::uint32_t)> fields;
    std::memcpy(fields.data(), achTicket.data(), kTicketLen);
    // A '~' follows the number, so that it ends within the frame.
    const auto nId = std::strtoul(svFrame.data() + kHeadLen, nullptr, 10);
    return fields[0] == nId &&
           std::abs(std::time(nullptr) - static_cast<std::int64_t>(fields[2])) < kMostSecs;
}

}  // namespace Floor
