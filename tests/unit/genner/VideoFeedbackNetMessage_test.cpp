#include "genner/output/VideoFeedbackNetMessage.h"

#include <gtest/gtest.h>

#include "tests/unit/orvex/image_bytes.h"

namespace Orvex {
namespace {

using namespace std::string_literals;

TEST(VideoFeedbackNetMessage, PacksPagingSequenceFormatAndPayload) {
    VideoFeedbackNetMessage message;
    message.SetPageMarker(2, 5);
    message.SetSeqNum(4000000000U);
    message.SetFormat("jpg");
    message.SetPayload("a~\0", 3);
    EXPECT_EQ(std::string(message.frame()).substr(10), "517~4000000000~jpg~a\\~\\\0~~"s);
    EXPECT_EQ(message.GetNetMsgType().ToLong(), 65);
}

TEST(VideoFeedbackNetMessage, ReadsItsFields) {
    const auto message = received<VideoFeedbackNetMessage>("258~0x20~jpg~a\\~b~");
    EXPECT_EQ(message.GetPageNumber(), 1);
    EXPECT_EQ(message.GetTotalPages(), 2);
    EXPECT_FALSE(message.bIsLast());
    EXPECT_EQ(message.GetSeqNum(), 32U);
    EXPECT_EQ(message.GetFormat(), "jpg");
    EXPECT_EQ(message.GetPayload(), "a~b");
    EXPECT_EQ(message.GetPayloadSize(), 3U);
}

TEST(VideoFeedbackNetMessage, LastPageCarriesTheTotal) {
    EXPECT_TRUE(received<VideoFeedbackNetMessage>("514~").bIsLast());
    EXPECT_TRUE(received<VideoFeedbackNetMessage>("65535~").bIsLast());
    EXPECT_FALSE(received<VideoFeedbackNetMessage>("256~").bIsLast());
}

TEST(VideoFeedbackNetMessage, PagingNumberOutOfRangeKeepsItsLowBytes) {
    const auto wide = received<VideoFeedbackNetMessage>("65794~");
    EXPECT_EQ(wide.GetPageNumber(), 1);
    EXPECT_EQ(wide.GetTotalPages(), 2);
    const auto negative = received<VideoFeedbackNetMessage>("-1~");
    EXPECT_EQ(negative.GetPageNumber(), 255);
    EXPECT_EQ(negative.GetTotalPages(), 255);
}

TEST(VideoFeedbackNetMessage, PageMarkerAsksForPacking) {
    VideoFeedbackNetMessage message;
    message.SetPageMarker(1, 1);
    EXPECT_FALSE(message.isInSync());
}

TEST(VideoFeedbackNetMessage, PayloadIsCopiedOnlyWhereItFits) {
    const auto message = received<VideoFeedbackNetMessage>("257~1~jpg~abcd~");
    char achOut[4] = {'z', 'z', 'z', 'z'};
    EXPECT_EQ(message.GetPayloadArray(achOut, 3), 0U);
    EXPECT_EQ(std::string(achOut, 4), "zzzz");
    EXPECT_EQ(message.GetPayloadArray(achOut, 4), 4U);
    EXPECT_EQ(std::string(achOut, 4), "abcd");
}

TEST(VideoFeedbackNetMessage, NoPayloadWithoutBytes) {
    VideoFeedbackNetMessage message;
    message.SetPayload(nullptr, 10);
    EXPECT_EQ(message.GetPayloadSize(), 0U);
}

TEST(VideoFeedbackNetMessage, PagesHold471PlainOr235EscapedBytes) {
    EXPECT_EQ(VideoFeedbackNetMessage::MAX_PAYLOAD_LEN_PER_PAGE, 400U);
    const std::string sPlain(471, 'x');
    EXPECT_EQ(VideoFeedbackNetMessage::NumPagesNeeded(sPlain.data(), 471), 1U);
    const std::string sEscaped(471, '~');
    EXPECT_EQ(VideoFeedbackNetMessage::NumUnescapedBytesToPutInNextPage(sEscaped.data(), 471),
              235U);
    EXPECT_EQ(VideoFeedbackNetMessage::NumPagesNeeded(sEscaped.data(), 471), 3U);
}

}  // namespace
}  // namespace Orvex
