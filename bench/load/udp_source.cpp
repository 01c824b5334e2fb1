#include "bench/load/udp_source.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "bench/load/cpu_clock.h"
#include "bench/load/give_up.h"
#include "bench/load/payload.h"

namespace Load {

namespace {

constexpr std::size_t kPartsOfDatagram = 2;
/// The most datagrams that one sendmmsg takes.
constexpr std::size_t kMostAtOnce = 1024;

}  // namespace

UdpSource::UdpSource(int fdOfSource, const Frame& datagram, std::vector<UdpTarget> targetsOfMessage,
                     const SendWindow& windowOfStream)
    : window(windowOfStream),
      fd(fdOfSource),
      nLength(datagram.sBytes.size()),
      nPayloadAt(datagram.nPayloadAt),
      targets(std::move(targetsOfMessage)),
      parts(kBurst * targets.size() * kPartsOfDatagram),
      headers(kBurst * targets.size()) {
    for (std::uint32_t i = 0; i < kBurst; ++i) {
        sBurst += datagram.sBytes;
    }
    prepareHeaders();
}

void UdpSource::prepareHeaders() {
    for (std::size_t i = 0; i < headers.size(); ++i) {
        UdpTarget& rTarget = targets[i % targets.size()];
        iovec* const pParts = &parts[i * kPartsOfDatagram];
        pParts[0] = {rTarget.sHead.data(), rTarget.sHead.size()};
        pParts[1] = {sBurst.data() + i / targets.size() * nLength, nLength};
        msghdr& rHeader = headers[i].msg_hdr;
        rHeader.msg_name = &rTarget.siTo;
        rHeader.msg_namelen = sizeof rTarget.siTo;
        rHeader.msg_iov = pParts;
        rHeader.msg_iovlen = kPartsOfDatagram;
    }
}

void UdpSource::stamp(std::uint32_t nIndex, std::int64_t nNow) {
    stampPayload(sBurst.data() + nIndex * nLength + nPayloadAt, nNext++,
                 static_cast<std::uint64_t>(nNow));
}

void UdpSource::sendOne() {
    stamp(0, nMonotonicNs());
    send(1);
}

void UdpSource::sendMany() {
    while (nNext < window.nEnd()) {
        const std::uint32_t nNow = std::min(window.nEnd() - nNext, kBurst);
        for (std::uint32_t i = 0; i < nNow; ++i) {
            stamp(i, 0);
        }
        send(nNow);
    }
}

void UdpSource::send(std::uint32_t nMessages) {
    const std::size_t nAll = nMessages * targets.size();
    for (std::size_t nDone = 0; nDone < nAll;) {
        const auto nNow = static_cast<unsigned>(std::min(nAll - nDone, kMostAtOnce));
        const int nSent = sendmmsg(fd, &headers[nDone], nNow, 0);
        if (nSent <= 0) {
            giveUp("a source cannot send: %s", std::strerror(errno));
        }
        nDone += static_cast<std::size_t>(nSent);
    }
    nBytesSent += static_cast<std::int64_t>(nMessages * nLength);
}

}  // namespace Load
