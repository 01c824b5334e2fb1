/// The ticket that admits a client, or registers its UDP audio: issued and encrypted by the
/// connection server, decrypted and checked by the relay.
///
/// Serialised, before encryption:
///   0   u32  client id, little-endian
///   4   i32  client address, the raw value of a `sockaddr_in`
///   8   u32  low 32 bits of the time stamp, little-endian; reads back signed
///   12  u32  zero, only where there is room: it fills two 8-byte cipher blocks
///
/// Each object is for one thread at a time.
#pragma once

#include <cstdint>
#include <ctime>
#include <gsl/span>

namespace Orvex {

class KTicket {
  public:
    static constexpr int KTICKET_SIZE = 12;

    /// All zero.
    KTicket() = default;
    /// A ticket for client `id` at `addr` (see above), issued at `ts`, in seconds since the epoch.
    KTicket(std::uint32_t id, std::int32_t addr, std::time_t ts);
    /// Reads the first 12 bytes of a decrypted ticket; fewer give an all-zero one.
    explicit KTicket(gsl::span<const unsigned char> bytes);

    /// Writes 16 bytes if there is room for them, else 12, and stores that count through
    /// `npOutTicketLen`, which may be null. Less room is filled with zeros, and the count is 0.
    void SerializeToChars(gsl::span<unsigned char> chpOutTicket, int* npOutTicketLen) const;

    // Each stores one part of the ticket.

    void GetClientID(std::uint32_t& nrOutClientID) const { nrOutClientID = nClientID; }
    void GetClientAddr(std::int32_t& lrOutClientAddr) const { lrOutClientAddr = lClientAddr; }
    void GetTimeStamp(std::time_t& ttrOutTimeStamp) const { ttrOutTimeStamp = ttTimeStamp; }

  private:
    std::uint32_t nClientID = 0;
    std::int32_t lClientAddr = 0;
    std::time_t ttTimeStamp = 0;
};

}  // namespace Orvex
