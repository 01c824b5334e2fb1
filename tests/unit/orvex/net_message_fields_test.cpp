#include "orvex/net_message.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace Orvex {
namespace {

using namespace std::string_literals;

/// A field as it is written into an empty payload of 499 bytes on the heap, guarded by the
/// sanitizer.
std::string fieldOf(const std::string& sText, int nIndex = 0) {
    const auto achPayload = std::make_unique<char[]>(499);
    const int nStart = nIndex;
    NetMessage::SetField(sText, nIndex, achPayload.get());
    return {achPayload.get() + nStart, static_cast<std::size_t>(nIndex - nStart)};
}

struct field_read_t {
    std::string sField;
    int nLen;
    int nIndex;
};

field_read_t readField(const std::string& sPayload, int nLen, int nIndex = 0) {
    const std::vector<char> exact(sPayload.begin(), sPayload.end());
    field_read_t result{"old", nLen, nIndex};
    NetMessage::GetField(exact.data(), result.nLen, result.nIndex, result.sField);
    return result;
}

TEST(NetMessageFields, SpecialBytesAreEscapedAndReadBack) {
    const std::string sText = "a~b\\c\0"s;
    const std::string sWritten = fieldOf(sText);
    EXPECT_EQ(sWritten, "a\\~b\\\\c\\\0~"s);
    EXPECT_EQ(readField(sWritten, static_cast<int>(sWritten.size())).sField, sText);
}

TEST(NetMessageFields, EmptyFieldIsATerminator) {
    EXPECT_EQ(fieldOf(""), "~");
    const field_read_t read = readField("~", 1);
    EXPECT_EQ(read.sField, "");
    EXPECT_EQ(read.nLen, 0);
    EXPECT_EQ(read.nIndex, 1);
}

TEST(NetMessageFields, FieldsAreReadInSequence) {
    const std::string sPayload = "ab~\\~~c~";
    const field_read_t first = readField(sPayload, 8);
    EXPECT_EQ(first.sField, "ab");
    const field_read_t second = readField(sPayload, first.nLen, first.nIndex);
    EXPECT_EQ(second.sField, "~");
    const field_read_t third = readField(sPayload, second.nLen, second.nIndex);
    EXPECT_EQ(third.sField, "c");
    EXPECT_EQ(third.nLen, 0);
    const field_read_t past = readField(sPayload, third.nLen, third.nIndex);
    EXPECT_EQ(past.sField, "");
    EXPECT_EQ(past.nLen, -1);
    EXPECT_EQ(past.nIndex, 9);
}

TEST(NetMessageFields, ReadingWithANegativeLengthGivesNothing) {
    const field_read_t read = readField("abc~", -5, 1);
    EXPECT_EQ(read.sField, "");
    EXPECT_EQ(read.nLen, -6);
    EXPECT_EQ(read.nIndex, 2);
}

TEST(NetMessageFields, FieldWithoutTerminatorEndsWithTheData) {
    const field_read_t read = readField("abc", 3);
    EXPECT_EQ(read.sField, "abc");
    EXPECT_EQ(read.nLen, -1);
    EXPECT_EQ(read.nIndex, 4);
}

TEST(NetMessageFields, FieldKeepsAtMost499Bytes) {
    const field_read_t read = readField(std::string(500, 'x'), 500);
    EXPECT_EQ(read.sField, std::string(499, 'x'));
    EXPECT_EQ(read.nIndex, 501);
}

TEST(NetMessageFields, EscapesAreDeletedWhateverFollowsThem) {
    for (const auto& [sIn, sOut] : {std::pair{"\\a\\b"s, "ab"s},
                                    {"\\\\"s, "\\"s},
                                    {"a\\"s, "a"s},
                                    {"\\"s, ""s},
                                    {"\\\\\\~"s, "\\~"s},
                                    {""s, ""s}}) {
        std::string sText = sIn;
        NetMessage::DeleteEscapes(sText);
        EXPECT_EQ(sText, sOut);
    }
}

TEST(NetMessageFields, OverlongFieldLosesItsTail) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(fieldOf(std::string(600, 'x')), std::string(498, 'x') + "~");
    EXPECT_EQ(
        testing::internal::GetCapturedStdout(),
        "(TRACE) Data passed into a net message field with too much data to encode - 600 bytes "
        "with 498 space (pre-escaped it was 600 bytes). Will try to truncate\n");
}

TEST(NetMessageFields, FieldOf498BytesFitsWithoutTruncation) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(fieldOf(std::string(498, 'x')), std::string(498, 'x') + "~");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(NetMessageFields, TruncationDoesNotSplitAnEscapePair) {
    for (const char ch : {'~', '\\', '\0'}) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(fieldOf(std::string(497, 'x') + ch + "tail"), std::string(497, 'x') + "~");
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "(TRACE) Data passed into a net message field with too much data to encode - 503 "
                  "bytes with 498 space (pre-escaped it was 502 bytes). Will try to truncate\n"
                  "(TRACE) in truncation, needed to tear off an extra unpaired esc char\n");
    }
}

TEST(NetMessageFields, TruncationKeepsAWholeEscapePair) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(fieldOf(std::string(496, 'x') + "~tail"), std::string(496, 'x') + "\\~~");
    EXPECT_EQ(fieldOf(std::string(300, '~')).size(), 499U);
    EXPECT_EQ(testing::internal::GetCapturedStdout().find("tear off"), std::string::npos);
}

TEST(NetMessageFields, NothingIsWrittenWithoutRoomForATerminator) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(fieldOf("x", 498), "~");
    EXPECT_EQ(fieldOf("x", 499), "");
    EXPECT_EQ(fieldOf("", 499), "");
    EXPECT_EQ(fieldOf("", 5000), "");
    const std::string sOut = testing::internal::GetCapturedStdout();
    EXPECT_NE(sOut.find("1 bytes with 0 space"), std::string::npos);
    EXPECT_NE(sOut.find("1 bytes with -1 space"), std::string::npos);
    EXPECT_NE(sOut.find("0 bytes with -1 space"), std::string::npos);
}

}  // namespace
}  // namespace Orvex
