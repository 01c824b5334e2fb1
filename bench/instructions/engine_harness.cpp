#include "bench/instructions/engine_harness.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <numeric>
#include <vector>

#include "base/clock.h"
#include "bench/instructions/give_up.h"
#include "orvex/net_message.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/routes/RoutingCache.h"
#include "relayserver/sockets/epoll_set.h"

using Orvex::RelayClient;
using Orvex::RelayMessageSocket;

namespace {

constexpr unsigned kRelayID = 500;

}  // namespace

void openEngine() {
    nSenderID = kRelayID;
    require(bOpenEpollSet(), "the epoll set");
}

int fdAdmitClient(int nClientID) {
    int fds[2] = {-1, -1};
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0, "socketpair");
    require(fcntl(fds[0], F_SETFL, O_NONBLOCK) == 0, "fcntl");
    boundReads(fds[1]);
    RelayClient client{RelayMessageSocket(fds[0], sockaddr_in{})};
    client.SetClientID(nClientID);
    client.SetLastMessageTime(nowSecs());
    ctAuthClientTable.Add(client);
    require(addToEpollForRead(fds[0]), "epoll_ctl");
    return fds[1];
}

void addRoute(unsigned nSource, int nMsgClass, unsigned nFirst, unsigned nCount) {
    std::vector<unsigned> destinations(nCount);
    std::iota(destinations.begin(), destinations.end(), nFirst);
    Tessel_Routing::RoutingCache::Instance()->Add(
        Tessel_Routing::RouteEntry(nSource, nMsgClass, std::move(destinations)));
}

bool bReceives(int fd, const std::string& sExpected) {
    std::string sReceived(sExpected.size() + 1, '\0');
    const ssize_t nRead = recv(fd, sReceived.data(), sReceived.size(), 0);
    return nRead >= 0 && sReceived.substr(0, static_cast<std::size_t>(nRead)) == sExpected;
}

void boundReads(int fd) {
    const timeval tvBound{1, 0};
    require(setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tvBound, sizeof tvBound) == 0, "setsockopt");
}
