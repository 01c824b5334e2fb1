// A floor: the least that a relay can do that sends every datagram to every receiver separately,
// with as few system calls as possible.
//   floor_udp ADDRESS PORT
#include "bench/floors/udp_floor.h"

namespace {

void forward(Floor::UdpPort& rPort, gsl::span<iovec> datagrams) {
    static std::array<mmsghdr, Floor::kMostSent> headers;
    std::size_t nQueued = 0;
    const auto flush = [&] {
        Floor::sendAll(rPort.fd, {headers.data(), nQueued});
        nQueued = 0;
    };
    for (iovec& rDatagram : datagrams) {
        for (sockaddr_in& rReceiver : rPort.receivers) {
            msghdr& rHeader = headers[nQueued].msg_hdr;
            rHeader.msg_name = &rReceiver;
            rHeader.msg_namelen = sizeof rReceiver;
            rHeader.msg_iov = &rDatagram;
            rHeader.msg_iovlen = 1;
            if (++nQueued == headers.size()) {
                flush();
            }
        }
    }
    flush();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    Floor::serveUdp(argv[1], argv[2], forward);
}
