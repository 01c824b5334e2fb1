/// What tests of attempts to reach a connection server start from: a key, a scripted server, and
/// the means to go on by one event.
#pragma once

#include <sys/epoll.h>

#include "connserver/signal_handling.h"
#include "genner/output/ChallengeNetMessage.h"
#include "genner/output/ResponseNetMessage.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/orders/connect_to_server.h"
#include "relayserver/settings/servers.h"
#include "relayserver/settings/session_keys.h"
#include "relayserver/sockets/epoll_set.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/cslink/scripted_server.h"
#include "tests/unit/relayserver/cslink/test_keys.h"
#include "tests/unit/relayserver/engine_fixture.h"

class ConnectTest : public EngineTest {
  protected:
    ConnectTest() { rsaPublicKey = testRsaKey(); }
    ~ConnectTest() override {
        rsaPublicKey = nullptr;
        exitRequested = 0;
    }

    static std::string sFrameOf(Orvex::NetMessage&& nmMessage) {
        return std::string(nmMessage.frame());
    }
    static std::string sChallenge() { return sFrameOf(Orvex::ChallengeNetMessage(4711)); }
    static std::string sOk() { return sFrameOf(Orvex::ResponseNetMessage(99, rcOK)); }

    /// The server in use, and another behind it.
    static void useServer(const std::string& sServer) {
        serverQ = {};
        serverQ.push(sServer);
        serverQ.emplace("second");
    }

    /// Waits for the next event of the link, at most `nMillis`; false when there is none.
    static bool bNextEvent(epoll_event& epe, int nMillis = 5000) {
        const int nReady = epoll_wait(ep_fd, ep_events, kMaxEpollEvents, nMillis);
        for (int i = 0; i < nReady; ++i) {
            if (nDescriptorOf(ep_events[i]) == connserv_sockfd) {
                epe = ep_events[i];
                return true;
            }
        }
        return false;
    }

    /// Handles the next event of the link; its result, or -2 when there is no event.
    static int nStep() {
        epoll_event epe{};
        return bNextEvent(epe) ? ConnectToServer(false, &epe) : -2;
    }

    /// Starts an attempt at `rServer` and brings it to the wait for the challenge.
    static Peer connectTo(const ScriptedServer& rServer) {
        useServer(rServer.sAddress());
        EXPECT_EQ(1, ConnectToServer(false, nullptr));
        EXPECT_EQ(3, nStep());
        return rServer.acceptRelay();
    }

    static bool bIsLinkDown() {
        return nConnectionStage == CONNECTION_IDLE && connserv_sockfd == 0;
    }
};
