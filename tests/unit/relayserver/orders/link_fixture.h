/// What tests of the link's messages and events start from: a logged-in link whose server has
/// another one behind it.
#pragma once

#include <sys/epoll.h>

#include "genner/output/RoutingUpdateNetMessage.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/orders/link_events.h"
#include "relayserver/settings/servers.h"
#include "tests/stubs/logging_stub.h"
#include "tests/stubs/tesselsql_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"

class LinkTest : public EngineTest {
  protected:
    LinkTest() : server(openLink()) {
        serverQ.emplace("first");
        serverQ.emplace("second");
    }

    static void handleEvent(unsigned nEvents) {
        epoll_event epe{};
        epe.events = nEvents;
        epe.data.fd = connserv_sockfd;
        onLinkEvent(epe);
    }

    /// The server has sent these messages; the relay notices.
    void receive(const std::vector<std::string>& images) const {
        sendAll(images);
        handleEvent(EPOLLIN);
    }
    void sendAll(const std::vector<std::string>& images) const {
        for (const std::string& sMessage : images) {
            server.sendBytes(sFrame(sMessage));
        }
    }

    static std::string sOf(Orvex::NetMessage&& nmMessage) {
        return std::string(nmMessage.frame().substr(1));
    }
    static std::string sDisconnect(unsigned nFrom) {
        return sOf(Orvex::RoutingUpdateNetMessage(rcDisconnect, nFrom, 0, kChatPipe));
    }
    static std::string sConnectToAbsent(unsigned nTo) {
        return sOf(Orvex::RoutingUpdateNetMessage(rcConnect, 7, nTo, kChatPipe));
    }

    const Peer server;
};
