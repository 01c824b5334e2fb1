#include "genner/output/AudioConfirmNetMessage.h"

#include <gtest/gtest.h>

#include "tests/unit/orvex/image_bytes.h"

namespace Orvex {
namespace {

using namespace std::string_literals;

TEST(AudioConfirmNetMessage, PacksItsNumber) {
    EXPECT_EQ(imageOf(AudioConfirmNetMessage(5U)), "a\0\0\0\0\0\0\0\0"s + "5~");
    EXPECT_EQ(payloadOf(AudioConfirmNetMessage()), "0~");
}

TEST(AudioConfirmNetMessage, ReadsItsNumber) {
    EXPECT_EQ(received<AudioConfirmNetMessage>("5~").GetProgramIndex(), 5U);
    EXPECT_EQ(received<AudioConfirmNetMessage>("0x10~").GetProgramIndex(), 16U);
    EXPECT_EQ(received<AudioConfirmNetMessage>("").GetProgramIndex(), 0U);
}

}  // namespace
}  // namespace Orvex
