#include "bench/load/udp_source.h"

#include <gtest/gtest.h>

#include <array>

#include "bench/load/payload.h"
#include "bench/load/udp_datagram.h"
#include "bench/load/udp_receiver.h"

namespace {

using namespace Load;

constexpr std::size_t kLength = 200;

UdpSocket openOne() {
    return std::move(openUdpRow("127.0.0.1", 1).front());
}

class UdpSourceTest : public testing::Test {
  protected:
    /// A source for `nReceivers` of ours, behind a head for each.
    void start(std::size_t nReceivers, std::uint32_t nWindow, const std::string& sHead = {}) {
        std::vector<UdpTarget> targets;
        for (std::size_t i = 0; i < nReceivers; ++i) {
            sockets.push_back(openOne());
            targets.push_back({sockets.back().siOwnAddress(), sHead});
        }
        const SendWindow window(nWindow, static_cast<int>(nReceivers));
        pSource = std::make_unique<UdpSource>(own.getFileDesc(), makeAudioDatagram(7, kLength),
                                              targets, window);
    }

    /// Everything that a socket holds, its bytes and order checked.
    Findings readAll(std::size_t nSocket) {
        UdpReceiver receiver(std::move(sockets[nSocket]), check, 0);
        Findings findings;
        for (std::int64_t nBefore = -1; nBefore < findings.nDeliveries + findings.nWrong;) {
            nBefore = findings.nDeliveries + findings.nWrong;
            receiver.readOnce(findings);
        }
        return findings;
    }

    UdpSocket own = openOne();
    std::vector<UdpSocket> sockets;
    FrameCheck check{makeAudioDatagram(7, kLength)};
    std::unique_ptr<UdpSource> pSource;
};

TEST_F(UdpSourceTest, SendsOneMessageWithItsTime) {
    start(1, 100);
    pSource->sendOne();
    pSource->sendOne();
    EXPECT_EQ(pSource->nNextSequence(), 2U);
    EXPECT_EQ(pSource->nBytesSent, 400);
    UdpReceiver receiver(std::move(sockets[0]), check, 0);
    Findings findings;
    findings.bLatencies = true;
    receiver.readOnce(findings);
    EXPECT_EQ(findings.nDeliveries, 2);
    EXPECT_EQ(findings.latency.nCount(), 2);
    EXPECT_GT(findings.latency.nPercentileNs(1.0), 0);
    EXPECT_LT(findings.latency.nPercentileNs(1.0), 1'000'000'000);
}

TEST_F(UdpSourceTest, FillsItsWindowAndNoMore) {
    start(1, 160);
    pSource->sendMany();
    EXPECT_EQ(pSource->nNextSequence(), 160U);
    pSource->sendMany();
    EXPECT_EQ(pSource->nNextSequence(), 160U);
    const Findings findings = readAll(0);
    EXPECT_EQ(findings.nDeliveries, 160);
    EXPECT_EQ(findings.nLost + findings.nWrong, 0);
}

TEST_F(UdpSourceTest, SendsEveryMessageToEveryTarget) {
    start(20, 72);
    pSource->sendMany();
    for (std::size_t i = 0; i < sockets.size(); ++i) {
        const Findings findings = readAll(i);
        EXPECT_EQ(findings.nDeliveries, 72);
        EXPECT_EQ(findings.nLost + findings.nWrong, 0);
    }
}

TEST_F(UdpSourceTest, PutsTheHeadInFrontOfTheDatagram) {
    start(1, 8, "head");
    pSource->sendOne();
    std::array<char, 2 * kLength> achBuffer;
    const ssize_t nGot = recv(sockets[0].getFileDesc(), achBuffer.data(), achBuffer.size(), 0);
    ASSERT_EQ(nGot, static_cast<ssize_t>(4 + kLength));
    EXPECT_EQ(std::string(achBuffer.data(), 4), "head");
    EXPECT_TRUE(check.bSameBytes(achBuffer.data() + 4));
}

}  // namespace
