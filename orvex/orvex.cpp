#include "orvex/orvex.h"

#include <algorithm>
#include <cstring>
#include <gsl/util>

namespace Orvex {

namespace {

constexpr std::size_t kAddrOffset = 4;
constexpr std::size_t kTimeOffset = 8;
constexpr std::size_t kPlainSize = KTicket::KTICKET_SIZE;
constexpr std::size_t kPaddedSize = 16;

template <class Number>
Number readRaw(const unsigned char* from) {
    Number value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

}  // namespace

KTicket::KTicket(std::uint32_t id, std::int32_t addr, std::time_t ts)
    : nClientID(id), lClientAddr(addr), ttTimeStamp(ts) {}

KTicket::KTicket(gsl::span<const unsigned char> bytes) {
    if (bytes.size() < kPlainSize) {
        return;
    }
    nClientID = readRaw<std::uint32_t>(bytes.data());
    lClientAddr = readRaw<std::int32_t>(bytes.data() + kAddrOffset);
    ttTimeStamp = readRaw<std::int32_t>(bytes.data() + kTimeOffset);
}

void KTicket::SerializeToChars(gsl::span<unsigned char> chpOutTicket, int* npOutTicketLen) const {
    const std::size_t nRoom = chpOutTicket.size();
    const std::size_t nLen = nRoom >= kPaddedSize  ? kPaddedSize
                             : nRoom >= kPlainSize ? kPlainSize
                                                   : 0;
    // Zeros first: they are the padding, and everything when there is too little room.
    std::fill_n(chpOutTicket.begin(), nLen == 0 ? nRoom : nLen, static_cast<unsigned char>(0));
    if (nLen != 0) {
        const auto nTime = gsl::narrow_cast<std::uint32_t>(ttTimeStamp);
        std::memcpy(chpOutTicket.data(), &nClientID, sizeof nClientID);
        std::memcpy(chpOutTicket.data() + kAddrOffset, &lClientAddr, sizeof lClientAddr);
        std::memcpy(chpOutTicket.data() + kTimeOffset, &nTime, sizeof nTime);
    }
    if (npOutTicketLen != nullptr) {
        *npOutTicketLen = gsl::narrow_cast<int>(nLen);
    }
}

}  // namespace Orvex
