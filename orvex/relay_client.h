/// The record of one connected peer: its connection, id, login ticket, audio addresses and the
/// counters kept for time-outs and limits. Main thread only.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <ctime>

#include "orvex/relay_message_socket.h"

namespace Orvex {

struct StoredClient;

/// A stored record's link to its table, so that the table still finds it after its id or its socket
/// has changed. The link itself is never copied: a copy of a record is in no table, and a record
/// that is assigned to stays in its table.
class ClientTableHook {
  public:
    /// Outside any table.
    ClientTableHook() = default;
    ClientTableHook(const ClientTableHook& /*other*/) {}
    /// Keeps this link and tells the table that the record around it was assigned to.
    ClientTableHook& operator=(const ClientTableHook& other);
    ~ClientTableHook() = default;

    /// Tells the table, if any, that the record's id or descriptor may have changed.
    void keysChanged();

    /// The record's serial number, 0 outside a table.
    [[nodiscard]] std::uint64_t nSerial() const;

  private:
    friend class RelayClientTable;
    StoredClient* pStored = nullptr;
};

class RelayClient {
  public:
    /// Largest login ticket in bytes.
    static constexpr int nMAX_TICKET_LEN = 64;
    /// Audio programs, indexed 0..5. Functions that take an index ignore any other.
    static constexpr unsigned kAudioPrograms = 6;
    /// Relay-to-relay tickets that one client may be granted.
    static constexpr int _kMaxTicketsGranted = 100;

    /// Everything zero, false or empty; no connection.
    RelayClient() = default;
    /// The record of a peer on `socket`; otherwise as above.
    explicit RelayClient(const RelayMessageSocket& socket) : msMessageSocket(socket) {}

    /// Replaces the socket, including its read buffer. The descriptor of a stored record must be
    /// changed this way, not through `GetMessageSocket`, so that its table finds it under the new
    /// one.
    void SetMessageSocket(const RelayMessageSocket& socket);
    /// The record's own socket: reads and writes through it affect the record.
    [[nodiscard]] RelayMessageSocket* GetMessageSocket() { return &msMessageSocket; }
    [[nodiscard]] const RelayMessageSocket* GetMessageSocket() const { return &msMessageSocket; }
    /// The peer's address and the descriptor, as the socket has them.
    void GetAddress(sockaddr_in& address) const { msMessageSocket.GetAddress(address); }
    void GetMsgSockFileDesc(int& fd) const { msMessageSocket.GetMsgSockFileDesc(fd); }

    /// Sends audio program `idx` to this client at `addr` from now on.
    void StartRcvAudio(unsigned idx, const sockaddr_in& addr);
    /// Takes audio program `idx` from this client from now on, which sends it from `addr`.
    void StartSrcAudio(unsigned idx, const sockaddr_in& addr);
    /// Stopping only clears the flag; the address stays.
    void StopRcvAudio(unsigned idx);
    void StopSrcAudio(unsigned idx);
    /// Whether this client receives, or is the source of, audio program `idx`.
    [[nodiscard]] bool bIsRcvAudio(unsigned idx) const;
    [[nodiscard]] bool bIsSrcAudio(unsigned idx) const;
    /// Stores the address last given for program `idx` in `addr`.
    void GetAudioRcvAddress(unsigned idx, sockaddr_in& addr) const;
    void GetAudioSrcAddress(unsigned idx, sockaddr_in& addr) const;

    /// A blocked client's messages are not switched.
    void SetBlock(bool bBlock) { bBlocked = bBlock; }
    [[nodiscard]] bool bIsBlocked() const { return bBlocked; }

    /// The time of its last message, in seconds since the epoch.
    void SetLastMessageTime(long tTime) { tLastMessageTime = tTime; }
    void GetLastMessageTime(long& tTime) const { tTime = tLastMessageTime; }

    /// The client id; 0 until known. A table that stores the record finds it under the new id from
    /// then on.
    void SetClientID(int nID);
    void GetClientID(int& nID) const { nID = nClientID; }
    [[nodiscard]] int GetClientID() const { return nClientID; }

    /// The challenge number sent to it at login.
    void SetChallengeNum(int nNumber) { nChallengeNo = nNumber; }
    void GetChallengeNum(int& nNumber) const { nNumber = nChallengeNo; }

    /// Stores `len` ticket bytes (0..64) and the current time; `ticket` may be null if `len` is 0.
    /// Any other length is reported on standard output, and the ticket is then empty.
    void SetTicket(const unsigned char* ticket, int len);
    /// Copies the ticket to `out`, which needs room for 64 bytes. `age` receives the time at which
    /// it was stored, in seconds since the epoch.
    void GetTicket(unsigned char* out, int& len, long& age) const;

    /// Whether video frames to it are throttled.
    void SetVideoThrottle(bool bThrottle) { _bThrottleVideoFrame = bThrottle; }
    [[nodiscard]] bool IsVideoThrottled() const { return _bThrottleVideoFrame; }

    /// TCP bytes received from it in the current measuring period.
    void IncrementTcpInputByteCounter(unsigned n) { _inputByteCntrTCP += n; }
    [[nodiscard]] unsigned GetTcpInputByteCounter() const { return _inputByteCntrTCP; }
    void ClearTcpInputByteCounter() { _inputByteCntrTCP = 0; }

    /// While the record is in a table, a number that no other record of this process ever has; 0
    /// otherwise. Distinguishes it from a later record with the same descriptor number.
    [[nodiscard]] std::uint64_t nSerial() const { return hook.nSerial(); }

    std::array<unsigned, kAudioPrograms> nPacketsSourced{};  ///< UDP packets from it, per program
    int nTicketsGranted = 0;                ///< relay-to-relay tickets, up to `_kMaxTicketsGranted`
    std::uint16_t nRelayUdpBasePort = 0;    ///< a relay peer's UDP base port, in network byte order
    std::time_t ttLastTicketGranted = 0;    ///< when a ticket was last granted to it
    std::time_t ttLastTicketRequested = 0;  ///< when a ticket to it was last requested
    std::time_t ttOwnLoginSent = 0;         ///< when we logged in to it; 0: it logged in to us
    std::time_t ttLastUdpRegistration = 0;  ///< when we last registered audio with it
    bool bUdpRegistrationOwed = false;      ///< we could not register with it for lack of a ticket
    int nTicketRequests = 0;                ///< consecutive requests for such a ticket

  private:
    std::array<bool, kAudioPrograms> bRcvAudio{};
    std::array<bool, kAudioPrograms> bSrcAudio{};
    std::array<sockaddr_in, kAudioPrograms> siUdpRcvAddress{};
    std::array<sockaddr_in, kAudioPrograms> siUdpSrcAddress{};
    std::time_t tLastMessageTime = 0;
    bool bBlocked = false;
    bool _bThrottleVideoFrame = false;
    int nChallengeNo = 0;
    int nClientID = 0;
    std::array<unsigned char, nMAX_TICKET_LEN> achTicket{};
    unsigned nTicketLen = 0;
    std::time_t ttTicketAge = 0;
    unsigned _inputByteCntrTCP = 0;
    RelayMessageSocket msMessageSocket;
    /// Last, so that an assignment tells the table when everything else has been assigned.
    ClientTableHook hook;

    friend class RelayClientTable;
};

}  // namespace Orvex
