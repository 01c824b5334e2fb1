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
    /// The private key, PEM, whose public half the relay has. Ends the program without it.
    explicit ServerStandIn(const std::string& sKeyFile);
    ~ServerStandIn();
    ServerStandIn(const ServerStandIn&) = delete;
    ServerStandIn& operator=(const ServerStandIn&) = delete;

    /// Listens at the port where relays look for a plain connection server.
    void listenAt(const std::string& sAddress);
    /// Waits for a relay and logs it in; ends the program when that takes more than 15 s.
    void awaitRelay();
    /// The two halves of it: up to the relay's log-in, which is not answered yet; and from the
    /// answer to the end of the log-in, where the relay tells its ports. Returns the ids of the
    /// clients that the relay has named in between.
    void awaitLogIn();
    std::vector<unsigned> acceptLogIn();
    /// Ends the connection so that the relay cannot but see it at once.
    void cutLink();

    /// A message with a fresh ticket for a client of this id.
    [[nodiscard]] Orvex::RelayConnectNetMessage ticketFor(unsigned nClientId) const;
    void addRoute(unsigned nFromId, unsigned nToId, int nMsgClass);
    /// The relay gives a server up that says nothing for 15 s.
    void sendHeartbeat();
    /// Reads what the relay has sent and forgets it.
    void readAll();
    [[nodiscard]] int getFileDesc() const { return msRelay.getMsgSockFileDesc(); }

  private:
    void acceptConnection();
    void takeLogIn(const char* pImage, int nLen);
    /// Gives all messages to `take`, up to one of a type and those that have come with it.
    void readUntil(long lType, const std::function<void(const char*, int)>& take);
    void send(Orvex::NetMessage& rMessage);

    RSA* pPrivateKey = nullptr;
    int fdListener = -1;
    Orvex::RelayMessageSocket msRelay;
    ticket_key_t achDesKey{};
};

}  // namespace Load
