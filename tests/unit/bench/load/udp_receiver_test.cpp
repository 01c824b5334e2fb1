#include "bench/load/udp_receiver.h"

#include <gtest/gtest.h>

#include "bench/load/payload.h"
#include "bench/load/udp_datagram.h"

namespace {

using namespace Load;

constexpr std::size_t kLength = 200;

UdpSocket openOne() {
    return std::move(openUdpRow("127.0.0.1", 1).front());
}

class UdpReceiverTest : public testing::Test {
  protected:
    UdpReceiverTest() {
        UdpSocket socket = openOne();
        siReceiver = socket.siOwnAddress();
        pReceiver = std::make_unique<UdpReceiver>(std::move(socket), check, 2);
    }

    static std::string sDatagram(std::uint32_t nSequence) {
        Frame datagram = makeAudioDatagram(7, kLength);
        stampPayload(datagram.sBytes.data() + datagram.nPayloadAt, nSequence, 0);
        return datagram.sBytes;
    }

    void deliver(const std::string& sBytes) {
        daemon.sendTo(siReceiver, sBytes);
        pReceiver->readOnce(findings);
    }

    UdpSocket daemon = openOne();
    sockaddr_in siReceiver{};
    FrameCheck check{makeAudioDatagram(7, kLength)};
    std::unique_ptr<UdpReceiver> pReceiver;
    Findings findings;
};

TEST_F(UdpReceiverTest, CountsDatagramsInOrder) {
    for (std::uint32_t n = 5; n < 9; ++n) {
        daemon.sendTo(siReceiver, sDatagram(n));
    }
    pReceiver->readOnce(findings);
    EXPECT_EQ(findings.nDeliveries, 4);
    EXPECT_EQ(findings.nLost + findings.nWrong, 0);
    EXPECT_EQ(pReceiver->nNextSequence(), 9U);
    EXPECT_EQ(pReceiver->getStream(), 2U);
}

TEST_F(UdpReceiverTest, CountsLostRepeatedAndLateOnes) {
    deliver(sDatagram(5));
    deliver(sDatagram(8));
    EXPECT_EQ(findings.nLost, 2);
    deliver(sDatagram(8));
    deliver(sDatagram(6));
    EXPECT_EQ(findings.nWrong, 2);
    EXPECT_EQ(findings.nDeliveries, 2);
}

TEST_F(UdpReceiverTest, TakesOtherLengthsForWrong) {
    deliver(sDatagram(5).substr(0, kLength - 1));
    deliver(sDatagram(5) + "x");
    deliver({});
    deliver(sDatagram(5) + sDatagram(6));
    deliver(std::string(4000, 'x'));
    EXPECT_EQ(findings.nWrong, 5);
    EXPECT_EQ(findings.nDeliveries, 0);
}

TEST_F(UdpReceiverTest, FindsEveryChangedByte) {
    for (std::size_t i = 0; i < kLength; ++i) {
        const bool bTime = i >= 16 + kSequenceDigits && i < 16 + kStampLen;
        if (bTime) {
            continue;
        }
        findings = Findings{};
        std::string sBytes = sDatagram(1);
        sBytes[i] = '!';
        deliver(sBytes);
        EXPECT_EQ(findings.nWrong, 1) << "byte " << i;
    }
}

}  // namespace
