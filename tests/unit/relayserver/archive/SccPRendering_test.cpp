#include "relayserver/archive/SccPRendering.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

#include "base/string_format.h"

using std::chrono::seconds;

namespace {

constexpr utc_time_t kThen{seconds(1700000000)};

/// What a source has collected: the captions, a second apart from each other.
SccPChunk makeChunk(const std::vector<std::string>& captions) {
    SccPChunk chunk;
    chunk.nSourceID = 4711;
    chunk.ptLastSent = kThen;
    chunk.ptThisTime = kThen + seconds(60);
    for (const std::string& sCaption : captions) {
        chunk.byteMap.emplace(kThen + seconds(chunk.byteMap.size()), sCaption);
        chunk.nTextBytes += nSccPTextBytes(sCaption);
    }
    return chunk;
}

std::string sWrittenAtOnce(const std::vector<std::string>& captions) {
    SccPRendering rendering(makeChunk(captions));
    std::size_t nBudget = std::numeric_limits<std::size_t>::max();
    EXPECT_TRUE(rendering.bWriteOn(nBudget));
    return rendering.sTakeText();
}

std::string sText(const std::string& sField1, const std::string& sField2) {
    return "{\"time\" : 1700000060,\"dur\" : 60,\"feedID\" : \"4711\",\"CaptionData\" : {"
           "\"format\" : \"SCCP\",\"S1data\" : \"" +
           sField1 + "\",\"S2data\" : \"" + sField2 + "\"}}";
}

// Parity.

/// Made without counting: the bits are folded onto each other.
bool bOddParityOf(unsigned nBits) {
    nBits ^= nBits >> 4;
    nBits ^= nBits >> 2;
    nBits ^= nBits >> 1;
    return (nBits & 1) != 0;
}

TEST(OddParity8, HoldsForEveryByte) {
    for (unsigned n = 0; n < 256; ++n) {
        const unsigned nResult = odd_parity_8(static_cast<unsigned char>(n));
        EXPECT_EQ(bOddParityOf(n & 0x7F) ? n : (n | 0x80), nResult) << n;
        EXPECT_EQ(n & 0x7F, nResult & 0x7F) << n;
        EXPECT_TRUE(n >= 0x80 || bOddParityOf(nResult)) << n;
        EXPECT_TRUE(n < 0x80 || nResult == n) << "bit 7 is never cleared " << n;
    }
}

TEST(OddParity8, KeepsTheTagOfField2EvenIfThatMakesParityEven) {
    EXPECT_EQ(0x80, odd_parity_8(0x00));
    EXPECT_EQ(0x01, odd_parity_8(0x01));
    EXPECT_EQ(0x94, odd_parity_8(0x14));
    EXPECT_EQ(0x81, odd_parity_8(0x81));
    EXPECT_EQ(0xFF, odd_parity_8(0xFF));
    EXPECT_EQ(0x7F, odd_parity_8(0x7F));
}

TEST(SccPRendering, WritesEveryByteValueWithParity) {
    std::string sExpected1 = "1700000000.000\t";
    std::string sExpected2 = sExpected1;
    std::string sAll;
    for (int n = 0; n < 256; ++n) {
        sAll += static_cast<char>(n);
        const bool bOdd = bOddParityOf(static_cast<unsigned>(n) & 0x7F);
        std::string& rsExpected = n < 128 ? sExpected1 : sExpected2;
        rsExpected += n % 2 == 0 && n % 128 != 0 ? " " : "";
        rsExpected += string_format("%02x", bOdd ? n : (n | 0x80));
    }
    EXPECT_EQ(sText(sExpected1 + "\r\n\r\n", sExpected2 + "\r\n\r\n"), sWrittenAtOnce({sAll}));
}

// Bit by bit.

/// Captions of either field, of both, of odd lengths.
const std::vector<std::string> kCaptions = {
    "ab", "\xE1\xE2", "a\xE2", "abc", "ab\xE3\xE4\xE5", std::string(499, 'x'), "\xE1", "abcd"};

TEST(SccPRendering, IsTheSameInHoweverManyParts) {
    const std::string sExpected = sWrittenAtOnce(kCaptions);
    for (const std::size_t nPart : {1U, 33U, 34U, 35U, 100U, 600U, 5000U}) {
        SccPRendering rendering(makeChunk(kCaptions));
        for (bool bComplete = false; !bComplete;) {
            std::size_t nBudget = nPart;
            bComplete = rendering.bWriteOn(nBudget);
        }
        EXPECT_EQ(sExpected, rendering.sTakeText()) << nPart;
    }
}

TEST(SccPRendering, WritesOneCaptionOfAFieldForTheLeastBudget) {
    SccPRendering rendering(makeChunk(kCaptions));
    const std::size_t nSteps = 2 * kCaptions.size();
    for (std::size_t i = 1; i < nSteps; ++i) {
        std::size_t nBudget = 1;
        EXPECT_FALSE(rendering.bWriteOn(nBudget)) << i;
        EXPECT_EQ(0U, nBudget);
    }
    std::size_t nBudget = 1;
    EXPECT_TRUE(rendering.bWriteOn(nBudget));
}

TEST(SccPRendering, TakesTheCostOfWhatItWrites) {
    SccPRendering rendering(makeChunk({"ab", "abcd"}));
    std::size_t nBudget = 1000;
    EXPECT_TRUE(rendering.bWriteOn(nBudget));
    EXPECT_EQ(1000 - 2 * (2 * SccPRendering::kCaptionCost + 6), nBudget);
}

TEST(SccPRendering, WritesNothingWithoutBudget) {
    SccPRendering rendering(makeChunk({"ab"}));
    std::size_t nBudget = 0;
    EXPECT_FALSE(rendering.bWriteOn(nBudget));
    EXPECT_FALSE(rendering.bWriteOn(nBudget));
    nBudget = 1000;
    EXPECT_TRUE(rendering.bWriteOn(nBudget));
    EXPECT_EQ(sText("1700000000.000\t6162\r\n\r\n", ""), rendering.sTakeText());
}

TEST(SccPRendering, AnEmptyOneCostsNothing) {
    SccPRendering rendering(makeChunk({}));
    std::size_t nBudget = 1;
    EXPECT_TRUE(rendering.bWriteOn(nBudget));
    EXPECT_EQ(1U, nBudget);
    EXPECT_EQ(sText("", ""), rendering.sTakeText());
}

// The memory of the text.

TEST(SccPRendering, KnowsBeforehandWhatACaptionTakes) {
    const std::size_t nEmpty = sWrittenAtOnce({}).size();
    for (const std::string& sCaption : kCaptions) {
        EXPECT_EQ(sWrittenAtOnce({sCaption}).size() - nEmpty, nSccPTextBytes(sCaption)) << sCaption;
    }
    EXPECT_EQ(0U, nSccPTextBytes(""));
}

TEST(SccPRendering, TakesTheMemoryOfTheTextAndNoMore) {
    const std::string sWritten = sWrittenAtOnce(kCaptions);
    EXPECT_EQ(sWritten.size(), sWritten.capacity());
}

TEST(SccPRendering, IsRightEvenIfTheMemoryWasGuessedTooSmall) {
    SccPChunk chunk = makeChunk(kCaptions);
    chunk.nTextBytes = 0;
    SccPRendering rendering(std::move(chunk));
    std::size_t nBudget = std::numeric_limits<std::size_t>::max();
    EXPECT_TRUE(rendering.bWriteOn(nBudget));
    EXPECT_EQ(sWrittenAtOnce(kCaptions), rendering.sTakeText());
}

}  // namespace
