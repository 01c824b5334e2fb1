#include "genner/output/PremiumFeatureResponseNetMessage.h"

#include <gtest/gtest.h>

#include "tests/unit/orvex/image_bytes.h"

namespace Orvex {
namespace {

using namespace std::string_literals;

TEST(PremiumFeatureResponseNetMessage, PacksItsFields) {
    const PremiumFeatureResponseNetMessage message(1, -2, 65, ReturnCode(2));
    EXPECT_EQ(imageOf(message), "j\0\0\0\0\0\0\0\0"s + "1~-2~65~UNAUTHORIZED~");
}

TEST(PremiumFeatureResponseNetMessage, ReadsItsFields) {
    const auto message = received<PremiumFeatureResponseNetMessage>("1~2~65~OK~");
    EXPECT_EQ(message.GetTransmitID(), 1);
    EXPECT_EQ(message.GetReceiveID(), 2);
    EXPECT_EQ(message.GetMessageType(), 65);
    EXPECT_TRUE(message.GetReturnCode() == 0);
}

}  // namespace
}  // namespace Orvex
