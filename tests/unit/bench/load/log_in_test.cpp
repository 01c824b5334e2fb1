#define OPENSSL_SUPPRESS_DEPRECATED
#include "bench/load/log_in.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "bench/floors/ticket.h"
#include "bench/floors/ticket_key.h"
#include "genner/output/HeartbeatNetMessage.h"
#include "genner/output/ResponseNetMessage.h"

namespace {

using namespace Load;

std::string sFrameOf(Orvex::NetMessage&& message) {
    std::string sFrame;
    message.GetSendBuffer(true, sFrame);
    return sFrame;
}

std::string sResponse(int nCode) {
    return sFrameOf(Orvex::ResponseNetMessage(1000, Orvex::ReturnCode(nCode)));
}

bool bFloorAdmits(const std::string& sFrame, const ticket_key_t& achKey) {
    DES_cblock dcbKey;
    std::copy(achKey.begin(), achKey.end(), dcbKey);
    DES_key_schedule schedule;
    DES_set_key_unchecked(&dcbKey, &schedule);
    return Floor::bAdmits(sFrame, schedule);
}

TEST(JudgeAnswer, WaitsForAWholeFrame) {
    const std::string sAnswer = sResponse(0);
    for (std::size_t i = 0; i < sAnswer.size(); ++i) {
        EXPECT_EQ(judgeAnswer(sAnswer.substr(0, i)), Answer::kIncomplete) << i << " bytes";
    }
    EXPECT_EQ(judgeAnswer(sAnswer), Answer::kAdmitted);
}

TEST(JudgeAnswer, TakesNothingButTheOkForAnAdmission) {
    EXPECT_EQ(judgeAnswer(sResponse(2)), Answer::kRefused);
    EXPECT_EQ(judgeAnswer(sFrameOf(Orvex::HeartbeatNetMessage())), Answer::kRefused);
}

// The cipher text of some tickets has bytes that are escaped.
TEST(LogInFrame, HoldsATicketThatTheFloorCanRead) {
    for (unsigned nId = 4'000'000; nId < 4'001'000; ++nId) {
        EXPECT_TRUE(bFloorAdmits(makeLogInFrame(nId, Floor::kTicketKey), Floor::kTicketKey)) << nId;
    }
}

TEST(FloorTicket, IsRefusedUnderAnotherKeyOrForAnotherClient) {
    ticket_key_t achOther = Floor::kTicketKey;
    achOther[0] ^= 0x80;
    EXPECT_FALSE(bFloorAdmits(makeLogInFrame(4'000'000, achOther), Floor::kTicketKey));
    std::string sFrame = makeLogInFrame(4'000'000, Floor::kTicketKey);
    sFrame.replace(sFrame.find("4000000"), 7, "4000001");
    EXPECT_FALSE(bFloorAdmits(sFrame, Floor::kTicketKey));
}

TEST(FloorTicket, IsRefusedWhenItHasBeenCut) {
    const std::string sFrame = makeLogInFrame(4'000'000, Floor::kTicketKey);
    for (std::size_t i = 0; i < 24; ++i) {
        EXPECT_FALSE(bFloorAdmits(sFrame.substr(0, i), Floor::kTicketKey)) << i << " bytes";
    }
}

}  // namespace
