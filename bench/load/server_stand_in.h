/// Stands in for the connection server of one relay: logs it in, makes tickets for clients and
/// orders routes. Answers nothing else, and reads everything.
#pragma once

#include <netinet/in.h>
#include <openssl/types.h>

#include <functional>
#include <string>
#include <vector>

#include "bench/load/log_in.h"
#include "genner/output/RelayConnectNetMessage.h"
#include "orvex/relay_message_socket.h"

namespace Load {

class ServerStandIn {
  public:
    /// Takes the file of the private key, PEM, whose public half the relay has. Ends the program
    /// without it.
    explicit ServerStandIn(const std::string& sKeyFile);
    ~ServerStandIn();
    ServerStandIn(const ServerStandIn&) = delete;
    ServerStandIn& operator=(const ServerStandIn&) = delete;

    /// Listens on the port where relays expect a plain connection server.
    void listenAt(const std::string& sAddress);
    /// Waits for a relay and logs it in; ends the program if that takes more than 15 s.
    void awaitRelay();
    /// The two halves of that: up to the relay's log-in, which is not answered yet; and from the
    /// answer to the end of the log-in, when the relay reports its ports. Returns the ids of the
    /// clients that the relay has reported in between.
    void awaitLogIn();
    std::vector<unsigned> acceptLogIn();
    /// Resets the connection, which the relay notices at once.
    void resetLink();

    /// A message with a fresh ticket for a client with this id.
    [[nodiscard]] Orvex::RelayConnectNetMessage ticketFor(unsigned nClientId) const;
    void addRoute(unsigned nFromId, unsigned nToId, int nMsgClass);
    /// The relay abandons a server that is silent for 15 s.
    void sendHeartbeat();
    /// Reads and discards what the relay has sent.
    void readAll();
    [[nodiscard]] int getFileDesc() const { return msRelay.getMsgSockFileDesc(); }

  private:
    void acceptConnection();
    void takeLogIn(const char* pImage, int nLen);
    /// Passes all messages to `take`, up to one of a type and those that have arrived with it.
    void readUntil(long lType, const std::function<void(const char*, int)>& take);
    void send(Orvex::NetMessage& rMessage);

    RSA* pPrivateKey = nullptr;
    int fdListener = -1;
    Orvex::RelayMessageSocket msRelay;
    ticket_key_t achDesKey{};
};

}  // namespace Load
