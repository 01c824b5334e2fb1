#include "genner/output/StatusKeyPostNetMessage.h"

#include <gtest/gtest.h>

#include "tests/unit/orvex/image_bytes.h"

namespace Orvex {
namespace {

using namespace std::string_literals;

TEST(StatusKeyPostNetMessage, PacksKeyAndValue) {
    EXPECT_EQ(imageOf(StatusKeyPostNetMessage("WavecastServer", "true")),
              "\xE8\0\0\0\0\0\0\0\0"s + "WavecastServer~true~");
}

TEST(StatusKeyPostNetMessage, ReadsKeyAndValue) {
    const auto message = received<StatusKeyPostNetMessage>("k~v\\\\~");
    EXPECT_EQ(message.GetKey(), "k");
    EXPECT_EQ(message.GetValue(), "v\\");
}

}  // namespace
}  // namespace Orvex
