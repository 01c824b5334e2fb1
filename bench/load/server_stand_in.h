/// Stands in for the connection server of one relay: logs it in, makes tickets for clients and
/// orders routes. Answers nothing else, and reads everything.
#pragma once

#include <netinet/in.h>
#include <openssl/types.h>

#include <array>
#include <string>

#include "genner/output/RelayConnectNetMessage.h"
#include "orvex/relay_message_socket.h"

namespace Load {

class ServerStandIn {
  public:
    /// The private key, PEM, whose public half the relay has. Ends the program without it.
    explicit ServerStandIn(const std::string& sKeyFile);
    ~ServerStandIn();
    ServerStandIn(const ServerStandIn&) = delete;
    ServerStandIn& operator=(const ServerStandIn&) = delete;

    /// Listens at the port where relays look for a plain connection server.
    void listenAt(const std::string& sAddress);
    /// Waits for a relay and logs it in; ends the program when that takes more than 15 s.
    void awaitRelay();

    /// A message with a fresh ticket for a client of this id.
    [[nodiscard]] Orvex::RelayConnectNetMessage ticketFor(unsigned nClientId) const;
    void addRoute(unsigned nFromId, unsigned nToId, int nMsgClass);
    /// The relay gives a server up that says nothing for 15 s.
    void sendHeartbeat();
    /// Reads what the relay has sent and forgets it.
    void readAll();
    [[nodiscard]] int getFileDesc() const { return msRelay.getMsgSockFileDesc(); }

  private:
    void handleLogIn(const char* pImage, int nLen);
    void send(Orvex::NetMessage& rMessage);
    [[nodiscard]] bool bHandleOne(const char* pImage, int nLen);

    RSA* pPrivateKey = nullptr;
    int fdListener = -1;
    Orvex::RelayMessageSocket msRelay;
    std::array<unsigned char, 8> achDesKey{};
};

}  // namespace Load
