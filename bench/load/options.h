/// What one run of the load program does, as read from its command line.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Load {

/// How sources send.
enum class Pace {
    kModerate,  ///< one message at a time, at a fixed rate of deliveries
    kFlatOut,   ///< as fast as the daemon accepts them
};

struct Options {
    std::string sCell = "tcp";     ///< the kind of cell: tcp, udp, admission or reconnect
    std::string sDaemon;           ///< relay, nats, redis, mqtt, turn or floor
    std::string sAddress;          ///< dotted IPv4 address of the daemon
    std::uint16_t nPort = 0;       ///< its TCP port, or the first UDP port of one without TCP
    std::uint16_t nAudioPort = 0;  ///< relay only: the first of its UDP ports
    bool bTls = false;             ///< connect to it with TLS
    std::string sServerAddress;    ///< relay only: where the stand-in connection server listens
    std::string sServerKeyFile;    ///< relay only: that server's private key, PEM
    /// The second number of our own addresses, which are 127.NET.x.y. The relay counts connections
    /// by address.
    int nClientNet = 200;

    Pace pace = Pace::kModerate;
    int nSources = 1;
    /// Receivers per source; every receiver has one source. With several numbers each has its own
    /// sources and is measured in turn, while the clients of the others are idle.
    std::vector<int> fanouts = {1};
    int nIdle = 0;  ///< additional clients that neither send nor receive
    /// Payload bytes, from 24 to 490. UDP: bytes of the whole datagram, at least 40.
    std::size_t nPayload = 200;
    bool bFec = false;      ///< UDP: two channels of error correction in addition to the sound
    bool bPeer = false;     ///< relay only: the sources are relay peers
    double dRate = 20000;   ///< moderate: deliveries per second, of all receivers together
    double dSeconds = 0.3;  ///< how long sources send in one repetition
    int nRepeats = 5;
    /// Flat out: how many bytes of payload and framing a source may be ahead of its slowest
    /// receiver. UDP: for everything it sends, where it sends to every receiver itself.
    std::size_t nWindow = 65536;
    /// Flat out: bytes per second that a source stays below; 0 for no limit.
    double dSourceLimit = 0;
    int nLogins = 1000;  ///< admission: log-ins in one repetition
    int nInFlight = 64;  ///< admission: connections that may await their answer at a time
};

/// Reads "--name value" pairs. Prints the error to standard error and returns false when an option
/// is unknown, lacks its value or is out of range.
[[nodiscard]] bool bParseOptions(int nArgs, const char* const* arguments, Options& rOptions);

}  // namespace Load
