#include "bench/load/payload.h"

#include <gtest/gtest.h>

namespace {

using namespace Load;

TEST(Payload, HoldsBothNumbersBehindEachOther) {
    std::string sPayload = makePayload(30);
    stampPayload(sPayload.data(), 0xBEEF, 0x123456789ABCDEF0);
    EXPECT_EQ(sPayload.substr(0, kStampLen), "0000beef123456789abcdef0");
    std::uint32_t nSequence = 0;
    std::uint64_t nTime = 0;
    EXPECT_TRUE(bReadSequence(sPayload.data(), nSequence));
    EXPECT_TRUE(bReadTime(sPayload.data(), nTime));
    EXPECT_EQ(nSequence, 0xBEEFU);
    EXPECT_EQ(nTime, 0x123456789ABCDEF0U);
}

TEST(Payload, NeedsNoEscapesInAnyProtocol) {
    const std::string sPayload = makePayload(490);
    EXPECT_EQ(sPayload.size(), 490U);
    EXPECT_EQ(sPayload.find_first_of(std::string("~\\\r\n\0", 5)), std::string::npos);
}

TEST(Payload, IsNotReadWhenADigitWasChanged) {
    std::uint32_t nSequence = 77;
    for (std::size_t i = 0; i < kSequenceDigits; ++i) {
        std::string sPayload = makePayload(24);
        sPayload[i] = 'G';
        EXPECT_FALSE(bReadSequence(sPayload.data(), nSequence));
    }
    EXPECT_EQ(nSequence, 77U);
}

}  // namespace
