#include "relayserver/switching/message_run.h"

#include <set>

#include "tests/unit/relayserver/engine_fixture.h"

namespace {

class MessageRunTest : public EngineTest {
  protected:
    /// Appends a message as a stream has it.
    void receive(int nType, unsigned nSender, const std::string& sPayload = "ab") {
        starts.push_back(sStream.size());
        sStream += sFrame(sImage(nType, nSender, 0, sPayload));
    }
    /// The image of the `i`th message, in its frame.
    std::string_view svImage(size_t i) const {
        const size_t nLength = 2U * static_cast<unsigned char>(sStream[starts[i]]) - 1;
        return std::string_view(sStream).substr(starts[i] + 1, nLength);
    }

    MessageRun run;
    std::string sStream;

  private:
    std::vector<size_t> starts;
};

TEST_F(MessageRunTest, WhatOnlyFollowsItsRouteTravelsInRuns) {
    const std::set<int> others = {
        0,             // answers of relays
        1,    2,       // log-in, log-out
        8,    10, 13,  // to the connection server
        9,    11,      // to the client that the header names
        12,            // heartbeat
        0x41,          // video, of which each page is judged
    };
    for (int nType = 0; nType < 256; ++nType) {
        const int nPipe = nType & 0xE0;
        const bool bExpected = others.count(nType) == 0 && nPipe != 96 && nPipe != 224;
        EXPECT_EQ(bExpected, bTravelsInRuns(sImage(nType, 7, 8, "ab"))) << nType;
    }
}

TEST_F(MessageRunTest, WhatIsTooLargeToBeSentOnDoesNotTravel) {
    const size_t nLargest = 508 - 9;
    EXPECT_TRUE(bTravelsInRuns(sImage(5, 7, 0, std::string(nLargest - 1, 'x'))));
    EXPECT_TRUE(bTravelsInRuns(sImage(5, 7, 0, std::string(nLargest, 'x'))));
    EXPECT_TRUE(bTravelsInRuns(sImage(5, 7, 0, std::string(nLargest, 'x') + "~")));
    EXPECT_FALSE(bTravelsInRuns(sImage(5, 7, 0, std::string(nLargest + 1, 'x'))));
}

TEST_F(MessageRunTest, IsEmptyAtFirst) {
    EXPECT_TRUE(run.bEmpty());
    EXPECT_TRUE(run.svFrames.empty());
}

TEST_F(MessageRunTest, GathersFramesThatFollowEachOther) {
    receive(5, 7, "a");
    receive(5, 7, "");
    receive(7, 7, std::string(400, 'c'));  // of the same pipe
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_TRUE(bAddToRun(run, svImage(i)));
        EXPECT_EQ(i + 1, run.nCount);
        EXPECT_FALSE(run.bEmpty());
    }
    EXPECT_EQ(sStream, run.svFrames);
    EXPECT_EQ(sStream.data(), run.svFrames.data()) << "without a copy";
    EXPECT_EQ(7U, run.nSource);
    EXPECT_EQ(192, run.nPipe);
    EXPECT_FALSE(run.bFromRelayPeer);
}

TEST_F(MessageRunTest, TakesNoneOfAnotherSender) {
    receive(5, 7);
    receive(5, 8);
    EXPECT_TRUE(bAddToRun(run, svImage(0)));
    EXPECT_FALSE(bAddToRun(run, svImage(1)));
    EXPECT_EQ(1U, run.nCount);
    EXPECT_EQ(7U, run.nSource);
    EXPECT_EQ(sFrame(sImage(5, 7, 0, "ab")), run.svFrames);
}

TEST_F(MessageRunTest, TakesNoneOfAnotherPipe) {
    receive(5, 7);
    receive(3, 7);
    EXPECT_TRUE(bAddToRun(run, svImage(0)));
    EXPECT_FALSE(bAddToRun(run, svImage(1)));
    EXPECT_EQ(1U, run.nCount);
    EXPECT_EQ(192, run.nPipe);
    EXPECT_EQ(sFrame(sImage(5, 7, 0, "ab")), run.svFrames);
}

TEST_F(MessageRunTest, TakesNoneWithAnotherBetween) {
    receive(5, 7, "a");
    receive(12, 7, "");
    receive(5, 7, "b");
    EXPECT_TRUE(bAddToRun(run, svImage(0)));
    EXPECT_FALSE(bAddToRun(run, svImage(2)));
    EXPECT_FALSE(bAddToRun(run, svImage(0))) << "nor one twice";
    EXPECT_EQ(1U, run.nCount);
    EXPECT_EQ(sFrame(sImage(5, 7, 0, "a")), run.svFrames);
}

TEST_F(MessageRunTest, TheSenderIsAllThirtyTwoBits) {
    receive(5, 4000000000U);
    receive(5, 4000000000U);
    EXPECT_TRUE(bAddToRun(run, svImage(0)));
    EXPECT_TRUE(bAddToRun(run, svImage(1)));
    EXPECT_EQ(4000000000U, run.nSource);
}

}  // namespace
