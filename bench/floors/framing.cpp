#include "bench/floors/framing.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>

#include "bench/floors/introduction.h"

namespace Floor {

std::vector<std::vector<int>>& groups = *new std::vector<std::vector<int>>;

namespace {

// A deque, so that clients do not move.
std::deque<Client>& clients = *new std::deque<Client>;

constexpr int kBacklog = 4096;

}  // namespace

Client& rClientOf(int fd) {
    const auto nIndex = static_cast<std::size_t>(fd);
    if (clients.size() <= nIndex) {
        clients.resize(nIndex + 1);
    }
    return clients[nIndex];
}

std::size_t nIntroduced(int fd, Client& rClient, std::string_view svInput) {
    const std::size_t nLen = nWholeFrame(svInput);
    if (nLen == 0) {
        return 0;
    }
    if (nLen != kIntroductionLen) {
        std::fprintf(stderr, "a connection did not introduce itself\n");
        std::exit(EXIT_FAILURE);
    }
    rClient.bIntroduced = true;
    std::memcpy(&rClient.nGroup, svInput.data() + 2, sizeof rClient.nGroup);
    if (groups.size() <= rClient.nGroup) {
        groups.resize(rClient.nGroup + 1);
    }
    if (svInput[1] == kReceiver) {
        groups[rClient.nGroup].push_back(fd);
    }
    return nLen;
}

int fdListenAt(const char* sAddress, const char* sPort) {
    rlimit rlLimit{};
    getrlimit(RLIMIT_NOFILE, &rlLimit);
    rlLimit.rlim_cur = rlLimit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &rlLimit);
    sockaddr_in siOwn{};
    siOwn.sin_family = AF_INET;
    siOwn.sin_port = htons(static_cast<std::uint16_t>(std::atoi(sPort)));
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int nYes = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &nYes, sizeof nYes);
    if (inet_pton(AF_INET, sAddress, &siOwn.sin_addr) != 1 ||
        bind(fd, reinterpret_cast<sockaddr*>(&siOwn), sizeof siOwn) != 0 ||
        listen(fd, kBacklog) != 0) {
        std::perror("the listener");
        std::exit(EXIT_FAILURE);
    }
    return fd;
}

int fdAcceptOne(int fdListener) {
    const int fd = accept4(fdListener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) {
        const int nYes = 1;
        (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nYes, sizeof nYes);
    }
    return fd;
}

void awaitRoom(int fd) {
    pollfd pfd{fd, POLLOUT, 0};
    (void)poll(&pfd, 1, -1);
}

void watch(int fdEpoll, int fd) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    epoll_ctl(fdEpoll, EPOLL_CTL_ADD, fd, &event);
}

}  // namespace Floor
