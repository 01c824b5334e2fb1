/// What tests about other relays start from: orders of the connection server, a stand-in for the
/// other relay's listener, and sockets that hear registrations.
#pragma once

#include "genner/output/ConnectOrderNetMessage.h"
#include "tests/unit/relayserver/engine_fixture.h"

/// The other relay: listens on a loopback address, answers only what the test says.
class OtherRelay {
  public:
    explicit OtherRelay(const std::string& sAddress = "127.0.0.1");
    ~OtherRelay();
    OtherRelay(const OtherRelay&) = delete;
    OtherRelay& operator=(const OtherRelay&) = delete;

    [[nodiscard]] int nPort() const { return _nPort; }
    /// The next connection; waits for it at most five seconds.
    [[nodiscard]] Peer acceptRelay() const;
    /// Whether a connection waits to be accepted.
    [[nodiscard]] bool bHasCaller() const;

  private:
    int _fd;
    int _nPort = 0;
};

/// The six audio sockets of a relay, two ports apart, on 127.0.0.1.
class AudioPorts {
  public:
    AudioPorts();
    ~AudioPorts();
    AudioPorts(const AudioPorts&) = delete;
    AudioPorts& operator=(const AudioPorts&) = delete;

    [[nodiscard]] int nBase() const { return _nBase; }
    /// The datagrams that have come for program `nProgram`.
    [[nodiscard]] std::vector<std::string> received(int nProgram) const;

  private:
    void closeAll();
    bool bOpenAt(int nBase);
    std::vector<int> _sockets;
    int _nBase = 0;
};

class PeerTest : public EngineTest {
  protected:
    static constexpr unsigned kOwnID = 1000;

    PeerTest();

    struct Order {
        Orvex::RequestCode code = rcConnect;
        int nToID = 8;
        int nTcpPort = 0;
        int nUdpPort = 0;
        std::string sTicket = "a ticket";
        std::string sAddress = "127.0.0.1";
    };
    static Orvex::ConnectOrderNetMessage orderOf(const Order& order);

    /// The record of a pending connect; fails the test when there is none.
    static Orvex::RelayClient& pending(int nPeerID);
    static bool bIsPending(int nPeerID);
    using EngineTest::fdOf;
    static int fdOf(Orvex::RelayClient& client);
    static std::string sTicketOf(const Orvex::RelayClient& client);

    /// As `addAuthClient`, connected from `sAddress`.
    static Peer addAuthClientAt(int nClientID, const std::string& sAddress);

    /// Gives this relay its six audio sockets.
    static void openOwnAudio();

    /// Waits for events, at most five seconds, and offers all of them.
    static void offerReady();

    static std::string sConfirmation(int nClientID);
    static std::string sTicketRequest(int nPeerID);
    static std::string sResponse(unsigned nSender, Orvex::ReturnCode code);
    static std::string sLoss(int nClientID);
    /// What a log-in to another relay looks like.
    static std::string sOwnLogin(const std::string& sTicket);

    static sockaddr_in siOf(const std::string& sAddress, int nPort);
    static int nOpenDescriptors();
};
