/// What tests of audio start from: six audio sockets, with two companions each for forward error
/// correction, on free ports of the loopback network, and stations that talk to them.
#pragma once

#include <netinet/in.h>

#include <memory>
#include <string>
#include <vector>

#include "relayserver/settings/settings.h"
#include "tests/unit/relayserver/engine_fixture.h"

/// 127.0.0.`nHost`, at `nPort` (host byte order).
sockaddr_in siLoopbackHost(int nHost, int nPort = 0);

/// A UDP socket of a station or of another relay.
class Station {
  public:
    /// On 127.0.0.`nHost`, at a port of the system's choice if `nPort` is 0.
    explicit Station(int nHost, int nPort = 0);
    ~Station();
    Station(const Station&) = delete;
    Station& operator=(const Station&) = delete;

    /// To the port of a socket of the relay.
    void send(int fdRelay, const std::string& sBytes) const;
    void sendTo(const sockaddr_in& siTo, const std::string& sBytes) const;
    /// The datagrams that have arrived, without waiting.
    [[nodiscard]] std::vector<std::string> received() const;
    /// The port that the next waiting datagram came from, which is taken; 0 without one.
    [[nodiscard]] int nPortOfNext() const;
    /// When the next waiting datagram arrived, in nanoseconds; it is taken. 0 without one.
    [[nodiscard]] long long nNanosOfNext() const;
    [[nodiscard]] sockaddr_in siAddress() const { return _siAddress; }
    [[nodiscard]] int nPort() const { return ntohs(_siAddress.sin_port); }
    [[nodiscard]] std::string sAddress() const;
    [[nodiscard]] bool bBound() const { return _bBound; }

  private:
    bool _bBound = false;  // before the descriptor, whose opening sets it
    int _fd;
    sockaddr_in _siAddress;
};

/// The audio sockets of another relay on 127.0.0.`nHost`: program i at base + 2 * i, its FEC
/// channels 100 and 200 above.
class PeerAudio {
  public:
    explicit PeerAudio(int nHost);
    [[nodiscard]] int nBasePort() const { return _nBasePort; }
    /// Of channel 0 (audio), 1 or 2.
    [[nodiscard]] const Station& of(int nChannel, int nProgram) const;
    /// How many datagrams wait at all sockets, which are taken.
    [[nodiscard]] size_t nReceived() const;

  private:
    bool bBindFrom(int nHost, int nBasePort);

    int _nBasePort = 0;
    std::vector<std::unique_ptr<Station>> _sockets;
};

class AudioTest : public EngineTest {
  protected:
    static constexpr unsigned kRelayID = 500;

    AudioTest();

    /// Offers an input event of the audio socket `fd`.
    static void receive(int fd);
    /// `station` sends `sBytes` to program `nProgram`, and the relay takes it.
    static void exchange(const Station& station, int nProgram, const std::string& sBytes);

    /// 12 zero bytes, the marked id, and what follows.
    static std::string sDatagram(unsigned nMarkedID, const std::string& sRest);
    /// A registration as a station sends it; `nClientID` is what its message says.
    static std::string sRegistration(unsigned nMarkedID, unsigned nClientID,
                                     const std::string& sTicket, unsigned nFlags);
    /// One under a fresh ticket of `nClientID`.
    static std::string sRegistration(unsigned nClientID, unsigned nFlags);

    /// Where the client's TCP connection came from.
    static void setTcpAddress(int nClientID, int nHost);
    /// An admitted relay whose base port an order has named, with a stored ticket, marked as a
    /// peer.
    static Peer addRelayPeer(int nClientID, int nHost, const PeerAudio& audio);

    /// The database has these destinations for audio of `nSource`.
    static void giveAudioRoute(unsigned nSource, std::vector<std::string> destinations);
    static std::string sRouteQuery(unsigned nSource);
    static sockaddr_in siReceives(int nClientID, unsigned nProgram);
    static sockaddr_in siSends(int nClientID, unsigned nProgram);
};
