#include "relayserver/archive/SccPChunker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>

#include "base/string_format.h"
#include "tests/stubs/allocation_count.h"

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::Pair;

namespace {

constexpr std::time_t kNow = 1700000000;
constexpr const char* kErase = "\x14\x2C";
constexpr const char* kEraseField2 = "\x94\xAC";

std::string sBytes(std::initializer_list<int> bytes) {
    std::string sResult;
    for (const int nByte : bytes) {
        sResult += static_cast<char>(nByte);
    }
    return sResult;
}

/// The rendered text between `sBegin` and `sEnd`.
std::string sBetween(const std::string& sText, const std::string& sBegin, const std::string& sEnd) {
    const std::size_t nBegin = sText.find(sBegin) + sBegin.size();
    return sText.substr(nBegin, sText.find(sEnd, nBegin) - nBegin);
}

/// Stops the clock before anything else is made.
class StoppedClock : public testing::Test {
  protected:
    StoppedClock() { setClockForTest(kNow); }
    ~StoppedClock() override { resetClockForTest(); }
};

class SccPChunkerTest : public StoppedClock {
  protected:
    /// Adds a caption, a millisecond after the one before.
    void add(const std::string& sCaption) {
        chunker().add(sCaption);
        advanceClockForTest(milliseconds(1));
    }
    /// The hexadecimal texts of the two fields, blocks without their times joined by "|".
    std::string sHexOfField1() { return sHex(sRendered(), "\"S1data\" : \"", "\",\"S2data\""); }
    std::string sHexOfField2() { return sHex(sRendered(), "\"S2data\" : \"", "\"}}"); }
    SccPChunker& chunker() { return _chunker; }

    /// A buffer is emptied when it is rendered, so both fields come from one rendering.
    const std::string& sRendered() {
        if (_sRendered.empty()) {
            _sRendered = _chunker.getChunkPayloadJson();
        }
        return _sRendered;
    }

  private:
    static std::string sHex(const std::string& sJson, const char* sBegin, const char* sEnd) {
        std::string sBlocks = sBetween(sJson, sBegin, sEnd);
        std::string sResult;
        for (std::size_t nTab = 0; (nTab = sBlocks.find('\t')) != std::string::npos;) {
            const std::size_t nEnd = sBlocks.find("\r\n\r\n", nTab);
            EXPECT_NE(std::string::npos, nEnd) << sBlocks;
            sResult += (sResult.empty() ? "" : "|") + sBlocks.substr(nTab + 1, nEnd - nTab - 1);
            sBlocks.erase(0, nEnd + 4);
        }
        EXPECT_EQ("", sBlocks);
        return sResult;
    }

    SccPChunker _chunker{4711};
    std::string _sRendered;
};

// The JSON text.

TEST_F(SccPChunkerTest, RendersAMixedBufferToTheByte) {
    advanceClockForTest(microseconds(123456));
    chunker().add(sBytes({0x14, 0x20, 0x14, 0x2C}));
    advanceClockForTest(microseconds(876544));  // to a whole second
    chunker().add(sBytes({0xC8, 0xE9, 0x48, 0x69, 0x21, 0x00}));
    advanceClockForTest(microseconds(1999));
    chunker().add(sBytes({0x94, 0xAC}));
    advanceClockForTest(seconds(60));
    EXPECT_EQ(
        "{\"time\" : 1700000061,\"dur\" : 61,\"feedID\" : \"4711\",\"CaptionData\" : {"
        "\"format\" : \"SCCP\","
        "\"S1data\" : \"1700000000.123\t9420 942c\r\n\r\n1700000001.000\tc8e9 a180\r\n\r\n\","
        "\"S2data\" : \"1700000001.000\tc8e9\r\n\r\n1700000001.001\t94ac\r\n\r\n\"}}",
        chunker().getChunkPayloadJson());
}

TEST_F(SccPChunkerTest, RendersAnEmptyBuffer) {
    EXPECT_EQ(
        "{\"time\" : 1700000000,\"dur\" : 0,\"feedID\" : \"4294967295\",\"CaptionData\" : {"
        "\"format\" : \"SCCP\",\"S1data\" : \"\",\"S2data\" : \"\"}}",
        SccPChunker(4294967295U).getChunkPayloadJson());
}

TEST_F(SccPChunkerTest, MillisecondsAreCutOffAndHaveThreeDigits) {
    const std::pair<int, const char*> cases[] = {{0, "000"},    {999, "000"},   {1000, "001"},
                                                 {9999, "009"}, {50000, "050"}, {999999, "999"}};
    for (const auto& [nMicros, sDecimals] : cases) {
        setClockForTest(kNow);
        advanceClockForTest(microseconds(nMicros));
        chunker().add("ab");
        EXPECT_EQ(std::string("1700000000.") + sDecimals,
                  sBetween(chunker().getChunkPayloadJson(), "\"S1data\" : \"", "\t"))
            << nMicros;
    }
}

TEST_F(SccPChunkerTest, DurationIsInWholeSecondsSinceTheLastRendering) {
    const auto sDuration = [this] {
        return sBetween(chunker().getChunkPayloadJson(), "\"dur\" : ", ",");
    };
    advanceClockForTest(milliseconds(59999));
    EXPECT_EQ("59", sDuration()) << "since it was made";
    advanceClockForTest(milliseconds(2000));
    EXPECT_EQ("2", sDuration());
    EXPECT_EQ("0", sDuration());
}

TEST_F(SccPChunkerTest, ClearingIsNoRendering) {
    advanceClockForTest(10);
    chunker().clear();
    advanceClockForTest(10);
    EXPECT_EQ("20", sBetween(chunker().getChunkPayloadJson(), "\"dur\" : ", ","));
}

TEST_F(SccPChunkerTest, DurationDoesNotWrapWhenTheClockWasSetBack) {
    setClockForTest(kNow - 3600);
    const std::string sJson = chunker().getChunkPayloadJson();
    EXPECT_THAT(sJson, testing::StartsWith("{\"time\" : 1699996400,\"dur\" : 0,"));
    advanceClockForTest(5);
    EXPECT_EQ("5", sBetween(chunker().getChunkPayloadJson(), "\"dur\" : ", ","))
        << "counts from the clock's new time";
}

TEST_F(SccPChunkerTest, CaptionsStandInTheOrderOfTheirTimesEvenIfTheClockWasSetBack) {
    chunker().add("cd");
    setClockForTest(kNow - 10);
    chunker().add("ab");
    advanceClockForTest(5);
    chunker().add("bc");
    setClockForTest(kNow + 1);
    chunker().add("de");
    EXPECT_EQ(utc_time_t(seconds(kNow - 10)), chunker().getBufferOldest());
    EXPECT_EQ(
        "1699999990.000\t6162\r\n\r\n1699999995.000\t62e3\r\n\r\n1700000000.000\te364\r\n\r\n"
        "1700000001.000\t64e5\r\n\r\n",
        sBetween(chunker().getChunkPayloadJson(), "\"S1data\" : \"", "\",\"S2data\""));
}

TEST_F(SccPChunkerTest, RenderingEmptiesTheBuffer) {
    add("ab");
    EXPECT_EQ("6162", sHexOfField1());
    EXPECT_EQ(0U, chunker().getBufferedSize());
    EXPECT_THAT(chunker().getChunkPayloadJson(),
                testing::HasSubstr("\"S1data\" : \"\",\"S2data\" : \"\"}}"));
}

// Pairs and fields.

TEST_F(SccPChunkerTest, AnOddLastByteIsLeftOut) {
    add("abc");
    EXPECT_EQ("6162", sHexOfField1());
}

TEST_F(SccPChunkerTest, OneByteAloneIsNoCaption) {
    add("a");
    EXPECT_EQ(0U, chunker().getBufferedSize());
}

TEST_F(SccPChunkerTest, AnEmptyCaptionIsNone) {
    add("");
    EXPECT_EQ(0U, chunker().getBufferedSize());
}

TEST_F(SccPChunkerTest, AnOddLastByteDoesNotEndARunOfErases) {
    add(std::string(kErase) + "a");
    add(kErase);
    EXPECT_EQ("942c", sHexOfField1());
}

TEST_F(SccPChunkerTest, ThreeBytesOfAFieldAreCompletedToTwoPairs) {
    add(sBytes({0x41, 0x42, 0x43, 0xC4}));
    EXPECT_EQ("c1c2 4380", sHexOfField1());
    EXPECT_EQ("c480", sHexOfField2());
}

TEST_F(SccPChunkerTest, OneByteOfAFieldIsCompletedToAPair) {
    add(sBytes({0x41, 0xC1}));
    EXPECT_EQ("c180", sHexOfField1());
    EXPECT_EQ("c180", sHexOfField2());
}

TEST_F(SccPChunkerTest, BytesOfAFieldMakePairsWhereverTheyStood) {
    add(sBytes({0x41, 0xC1, 0x42, 0xC2, 0x43, 0xC3}));
    EXPECT_EQ("c1c2 4380", sHexOfField1());
    EXPECT_EQ("c1c2 c380", sHexOfField2());
}

TEST_F(SccPChunkerTest, ACaptionOfField2LeavesField1Empty) {
    add(sBytes({0xC1, 0xC2}));
    EXPECT_EQ("", sHexOfField1());
    EXPECT_EQ("c1c2", sHexOfField2());
}

TEST_F(SccPChunkerTest, ACaptionWithoutBytesOfAFieldHasNoBlockThere) {
    add("ab");
    add(sBytes({0xC1, 0xC2}));
    add("cd");
    EXPECT_EQ("6162|e364", sHexOfField1());
    EXPECT_EQ("c1c2", sHexOfField2());
}

TEST_F(SccPChunkerTest, NulBytesAreCaptionedLikeOthers) {
    add(sBytes({0x00, 0x00, 0x80, 0x80}));
    EXPECT_EQ("8080", sHexOfField1());
    EXPECT_EQ("8080", sHexOfField2());
}

// Runs of the command that erases what is displayed.

TEST_F(SccPChunkerTest, OfARunOfErasesOnlyTheFirstIsKept) {
    add(std::string(kErase) + kErase + kErase);
    EXPECT_EQ("942c", sHexOfField1());
}

TEST_F(SccPChunkerTest, ARunGoesOnAcrossCaptions) {
    add(std::string("ab") + kErase);
    add(kErase);
    add(std::string(kErase) + "cd");
    EXPECT_EQ(2U, chunker().getBufferedSize()) << "of the second caption nothing is left";
    EXPECT_EQ("6162 942c|e364", sHexOfField1());
}

TEST_F(SccPChunkerTest, ARunGoesOnAfterRenderingAndClearing) {
    add(kErase);
    (void)chunker().getChunkPayloadJson();
    add(kErase);
    EXPECT_EQ(0U, chunker().getBufferedSize());
    chunker().clear();
    add(kErase);
    EXPECT_EQ(0U, chunker().getBufferedSize());
}

TEST_F(SccPChunkerTest, AnyOtherPairEndsARun) {
    add(std::string(kErase) + kErase + "ab" + kErase + kErase);
    EXPECT_EQ("942c 6162 942c", sHexOfField1());
}

TEST_F(SccPChunkerTest, BothChannelsOfAFieldShareOneRun) {
    add(sBytes({0x15, 0x2C, 0x14, 0x2C, 0x15, 0x2C}));
    EXPECT_EQ("152c", sHexOfField1());
}

TEST_F(SccPChunkerTest, OnlyTheWholeCommandIsAnErase) {
    for (const auto& pair : {sBytes({0x14, 0x2D}), sBytes({0x13, 0x2C}), sBytes({0x16, 0x2C}),
                             sBytes({0x2C, 0x14}), sBytes({0x1C, 0x2C})}) {
        SccPChunker other(1);
        other.add(pair + pair);
        EXPECT_THAT(other.getChunkPayloadJson(),
                    testing::ContainsRegex("S1data\" : \"[0-9.]*\t.... ....\r"));
    }
}

TEST_F(SccPChunkerTest, Field2HasItsOwnRun) {
    add(std::string(kErase) + kEraseField2 + kErase + kEraseField2);
    EXPECT_EQ("942c", sHexOfField1());
    EXPECT_EQ("94ac", sHexOfField2());
}

TEST_F(SccPChunkerTest, APairOfOneFieldDoesNotEndTheOthersRun) {
    add(std::string(kErase) + sBytes({0xC1, 0xC2}) + kErase);
    EXPECT_EQ("942c", sHexOfField1());
    add(std::string(kEraseField2) + "ab" + kEraseField2);
    EXPECT_EQ(1U, chunker().getBufferedSize());
    EXPECT_THAT(chunker().getChunkPayloadJson(), testing::HasSubstr("\t94ac\r\n\r\n\"}}"));
}

TEST_F(SccPChunkerTest, BothChannelsOfField2AreErasedWithTheTagSet) {
    add(sBytes({0x95, 0xAC, 0x94, 0xAC}));
    EXPECT_EQ("95ac", sHexOfField2());
}

TEST_F(SccPChunkerTest, TheFirstByteOfAPairTellsWhoseRunItIs) {
    add(sBytes({0x14, 0xAC, 0x14, 0x2C, 0x94, 0x2C, 0x94, 0xAC}));
    EXPECT_EQ("942c", sHexOfField1()) << "0x14 of the first pair, 0x2c of the third";
    EXPECT_EQ("ac94", sHexOfField2()) << "0xac of the first pair, 0x94 of the third";
}

// Times and limits.

TEST_F(SccPChunkerTest, ACaptionOfTheSameMicrosecondIsNotKept) {
    chunker().add("ab");
    chunker().add("cd");
    EXPECT_EQ(1U, chunker().getBufferedSize());
    advanceClockForTest(microseconds(1));
    chunker().add("ef");
    EXPECT_EQ(2U, chunker().getBufferedSize());
    EXPECT_EQ("6162|e5e6", sHexOfField1());
}

TEST_F(SccPChunkerTest, CountsCaptionsNotBytes) {
    add("abcdefgh");
    add("ab");
    EXPECT_EQ(2U, chunker().getBufferedSize());
    chunker().clear();
    EXPECT_EQ(0U, chunker().getBufferedSize());
}

TEST_F(SccPChunkerTest, TheOldestTimeIsNowWhileThereIsNone) {
    advanceClockForTest(microseconds(7));
    EXPECT_EQ(ptNow(), chunker().getBufferOldest());
    const utc_time_t ptFirst = ptNow();
    add("ab");
    add("cd");
    EXPECT_EQ(ptFirst, chunker().getBufferOldest());
    chunker().clear();
    EXPECT_EQ(ptNow(), chunker().getBufferOldest());
}

TEST_F(SccPChunkerTest, IsInactiveAfterItsLastRenderingWhileEmpty) {
    const utc_time_t ptMade = ptNow();
    EXPECT_FALSE(chunker().isInactiveSince(ptMade));
    EXPECT_TRUE(chunker().isInactiveSince(ptMade + microseconds(1)));
    advanceClockForTest(60);
    (void)chunker().getChunkPayloadJson();
    EXPECT_FALSE(chunker().isInactiveSince(ptNow()));
    EXPECT_TRUE(chunker().isInactiveSince(ptNow() + microseconds(1)));
    add("ab");
    EXPECT_FALSE(chunker().isInactiveSince(ptNow() + seconds(1000)));
    chunker().clear();
    EXPECT_TRUE(chunker().isInactiveSince(ptNow()));
}

TEST_F(SccPChunkerTest, KnowsItsSource) {
    EXPECT_EQ(4711U, chunker().getSourceID());
    EXPECT_EQ(0U, SccPChunker(0).getSourceID());
}

TEST_F(SccPChunkerTest, AFloodEndsOneCaptionBeyondWhatIsSent) {
    for (int i = 0; i < 40000; ++i) {
        add("ab");
    }
    EXPECT_EQ(40000U, chunker().getBufferedSize());
    add("ab");
    EXPECT_EQ(40001U, chunker().getBufferedSize());
    const std::string sLongCaption(500, 'x');
    const std::size_t nBefore = nAllocations();
    for (int i = 0; i < 50000; ++i) {
        add(sLongCaption);
    }
    EXPECT_EQ(nBefore, nAllocations()) << "what is not kept costs nothing";
    EXPECT_EQ(40001U, chunker().getBufferedSize());
    chunker().clear();
    add("ab");
    EXPECT_EQ(1U, chunker().getBufferedSize());
}

// What is taken out to be rendered.

TEST_F(SccPChunkerTest, WhatIsTakenOutIsWhatWasCollected) {
    add("ab");
    add("cd\xE1");
    advanceClockForTest(seconds(5));
    const SccPChunk chunk = chunker().takeChunk();
    EXPECT_EQ(4711U, chunk.nSourceID);
    EXPECT_EQ(ptEpoch + seconds(kNow), chunk.ptLastSent);
    EXPECT_EQ(ptNow(), chunk.ptThisTime);
    EXPECT_THAT(chunk.byteMap, ElementsAre(Pair(ptEpoch + seconds(kNow), "ab"),
                                           Pair(ptEpoch + seconds(kNow) + milliseconds(1), "cd")));
    EXPECT_EQ(nSccPTextBytes("ab") + nSccPTextBytes("cd"), chunk.nTextBytes);
}

TEST_F(SccPChunkerTest, WhatComesAfterwardsIsCollectedAgain) {
    add("ab");
    (void)chunker().takeChunk();
    EXPECT_EQ(0U, chunker().getBufferedSize());
    advanceClockForTest(seconds(7));
    add("cdef");
    const SccPChunk chunk = chunker().takeChunk();
    EXPECT_EQ(ptEpoch + seconds(kNow) + milliseconds(1), chunk.ptLastSent);
    EXPECT_EQ(1U, chunk.byteMap.size());
    EXPECT_EQ(nSccPTextBytes("cdef"), chunk.nTextBytes);
}

TEST_F(SccPChunkerTest, TextOfWhatIsNotKeptIsNotCounted) {
    add("ab");
    chunker().clear();
    chunker().add("cd");
    chunker().add("of the same microsecond");
    EXPECT_EQ(nSccPTextBytes("cd"), chunker().takeChunk().nTextBytes);
}

}  // namespace
