#include "bench/load/receiver.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bench/load/floor_adapter.h"
#include "bench/load/payload.h"
#include "bench/load/relay_adapter.h"

namespace {

using namespace Load;

/// A receiver of group 3, connected to a socket into which a test writes.
class ReceiverTest : public testing::Test {
  protected:
    ReceiverTest() {
        fdListener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in siOwn{};
        siOwn.sin_family = AF_INET;
        siOwn.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t nLen = sizeof siOwn;
        bind(fdListener, reinterpret_cast<sockaddr*>(&siOwn), nLen);
        listen(fdListener, 1);
        getsockname(fdListener, reinterpret_cast<sockaddr*>(&siOwn), &nLen);
        Options options;
        options.sAddress = "127.0.0.1";
        options.nPort = ntohs(siOwn.sin_port);
        pReceiver = std::make_unique<Receiver>(Connection::open(options, 0), check, 3);
        fdDaemon = accept(fdListener, nullptr, nullptr);
    }

    ~ReceiverTest() override {
        close(fdListener);
        close(fdDaemon);
    }

    static std::string sMessage(std::uint32_t nSequence, std::uint64_t nTime = 0) {
        Frame frame = makeCaptionFrame(3, makePayload(64));
        stampPayload(frame.sBytes.data() + frame.nPayloadAt, nSequence, nTime);
        return frame.sBytes;
    }

    void deliver(const std::string& sBytes) {
        ASSERT_EQ(write(fdDaemon, sBytes.data(), sBytes.size()),
                  static_cast<ssize_t>(sBytes.size()));
        EXPECT_TRUE(pReceiver->bReadOnce(adapter, findings));
    }

    FloorAdapter adapter;
    FrameCheck check{adapter.deliveredFrame(3, makePayload(64))};
    Findings findings;
    std::unique_ptr<Receiver> pReceiver;
    int fdListener = -1;
    int fdDaemon = -1;
};

TEST_F(ReceiverTest, CountsMessagesInOrder) {
    deliver(sMessage(5) + sMessage(6) + sMessage(7));
    EXPECT_EQ(findings.nDeliveries, 3);
    EXPECT_EQ(findings.nLost + findings.nWrong, 0);
    EXPECT_EQ(pReceiver->nNextSequence(), 8U);
}

TEST_F(ReceiverTest, PutsAMessageTogetherThatComesInPieces) {
    const std::string sBytes = sMessage(5) + sMessage(6);
    for (std::size_t i = 0; i < sBytes.size(); i += 7) {
        deliver(sBytes.substr(i, 7));
    }
    EXPECT_EQ(findings.nDeliveries, 2);
    EXPECT_EQ(findings.nLost + findings.nWrong, 0);
}

TEST_F(ReceiverTest, CountsWhatWasLeftOut) {
    deliver(sMessage(5) + sMessage(9));
    EXPECT_EQ(findings.nLost, 3);
    EXPECT_EQ(findings.nDeliveries, 2);
}

TEST_F(ReceiverTest, TakesARepeatedOrLateMessageForWrong) {
    deliver(sMessage(5) + sMessage(5) + sMessage(4));
    EXPECT_EQ(findings.nWrong, 2);
    EXPECT_EQ(findings.nDeliveries, 1);
}

TEST_F(ReceiverTest, FindsEveryChangedByteBehindTheHead) {
    const std::size_t nHead = makeCaptionFrame(3, makePayload(64)).nPayloadAt;
    const std::size_t nTimeAt = nHead + kSequenceDigits;
    for (std::size_t i = nHead; i < sMessage(1).size(); ++i) {
        if (i >= nTimeAt && i < nHead + kStampLen) {
            continue;
        }
        findings = Findings{};
        std::string sBytes = sMessage(1);
        sBytes[i] = '!';
        deliver(sBytes);
        EXPECT_EQ(findings.nWrong, 1) << "byte " << i;
    }
}

TEST_F(ReceiverTest, MeasuresLatenciesWhenAsked) {
    findings.bLatencies = true;
    deliver(sMessage(1, 1));
    EXPECT_EQ(findings.latency.nCount(), 1);
}

}  // namespace
