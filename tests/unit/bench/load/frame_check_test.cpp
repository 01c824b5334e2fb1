#include "bench/load/frame_check.h"

#include <gtest/gtest.h>

#include "bench/load/payload.h"
#include "bench/load/udp_datagram.h"

namespace {

using namespace Load;

class SequenceCheckTest : public testing::Test {
  protected:
    void take(std::uint32_t nSequence) {
        Frame frame = makeAudioDatagram(7, 200);
        stampPayload(frame.sBytes.data() + frame.nPayloadAt, nSequence, 0);
        sequence.take(frame.sBytes.data(), 0, findings);
    }

    FrameCheck check{makeAudioDatagram(7, 200)};
    SequenceCheck sequence{check};
    Findings findings;
};

TEST_F(SequenceCheckTest, BeginsWithWhateverComesFirst) {
    take(40);
    EXPECT_EQ(findings.nDeliveries, 1);
    EXPECT_EQ(findings.nLost, 0);
    EXPECT_EQ(sequence.nNextSequence(), 41U);
}

TEST_F(SequenceCheckTest, TakesWhatIsStillMissingForLostWhenAsked) {
    take(5);
    sequence.giveUpBefore(9, findings);
    EXPECT_EQ(findings.nLost, 3);
    EXPECT_EQ(sequence.nNextSequence(), 9U);
    sequence.giveUpBefore(9, findings);
    EXPECT_EQ(findings.nLost, 3);
}

TEST_F(SequenceCheckTest, TakesWhatComesAfterAllForWrong) {
    take(5);
    sequence.giveUpBefore(9, findings);
    take(6);
    EXPECT_EQ(findings.nWrong, 1);
    take(9);
    EXPECT_EQ(findings.nDeliveries, 2);
    EXPECT_EQ(findings.nLost, 3);
}

}  // namespace
