#include "genner/output/CaptionNetMessage.h"

#include <gtest/gtest.h>

#include "tests/unit/orvex/image_bytes.h"

namespace Orvex {
namespace {

using namespace std::string_literals;

TEST(CaptionNetMessage, PacksBytesEscaped) {
    const CaptionNetMessage message(true, "\x14\x20~\\\0A", 6);
    EXPECT_EQ(imageOf(message), "\x05\0\0\0\0\0\0\0\0\x14\x20\\~\\\\\\\0A~"s);
}

TEST(CaptionNetMessage, ReadsBytesInBothReceivingForms) {
    const std::string sImage = imageWith(5, "\x14\x20\\~\\\0~"s);
    const CaptionNetMessage flagged(false, sImage.data(), static_cast<int>(sImage.size()));
    EXPECT_EQ(flagged.GetCaption(), "\x14\x20~\0"s);
    EXPECT_EQ(imageOf(flagged), sImage);
    EXPECT_EQ(receivedFrom<CaptionNetMessage>(sImage).GetCaption(), "\x14\x20~\0"s);
}

TEST(CaptionNetMessage, CopiesBytesWithTheirLength) {
    CaptionNetMessage message;
    message.SetCaption("abc", 3);
    char achCaption[CaptionNetMessage::nMAX_CAPTION_LEN];
    int nLen = 0;
    message.GetCaption(achCaption, nLen);
    EXPECT_EQ(std::string(achCaption, static_cast<std::size_t>(nLen)), "abc");
    message.SetCaption("abc", -3);
    EXPECT_EQ(message.GetCaption(), "");
}

TEST(CaptionNetMessage, FieldWithoutTerminatorFillsAtMostItsBuffer) {
    EXPECT_EQ(received<CaptionNetMessage>(std::string(499, 'x')).GetCaption(),
              std::string(499, 'x'));
    EXPECT_EQ(received<CaptionNetMessage>(std::string(500, 'x')).GetCaption(),
              std::string(499, 'x'));
    EXPECT_EQ(received<CaptionNetMessage>(std::string(5000, 'x')).GetCaption(),
              std::string(499, 'x'));
    const std::string sLong(5000, 'x');
    EXPECT_EQ(CaptionNetMessage(true, sLong.data(), 5000).GetCaption(), std::string(499, 'x'));
}

}  // namespace
}  // namespace Orvex
