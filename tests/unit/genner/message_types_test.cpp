#include "genner/output/message_types.h"

#include <gtest/gtest.h>

#include <map>

namespace {

TEST(PipeType, FollowsTheTableForEveryTypeByte) {
    const std::map<int, int> named = {{1, -1},  {2, 224}, {3, 128},  {5, 192}, {6, 160}, {7, 192},
                                      {8, 224}, {9, 96},  {10, 224}, {11, 96}, {13, 224}};
    for (int nByte = 0; nByte < 256; ++nByte) {
        const auto itNamed = named.find(nByte);
        const int nExpected = itNamed != named.end() ? itNamed->second : nByte / 32 * 32;
        EXPECT_EQ(nExpected, nPipeType(static_cast<unsigned char>(nByte))) << "type " << nByte;
    }
}

TEST(PipeType, TypesWithoutAnEntryCarryTheirPipeInTheUpperBits) {
    EXPECT_EQ(0, nPipeType(0));
    EXPECT_EQ(0, nPipeType(4));
    EXPECT_EQ(0, nPipeType(12));
    EXPECT_EQ(64, nPipeType(0x41));
    EXPECT_EQ(96, nPipeType(106));
    EXPECT_EQ(160, nPipeType(160));
    EXPECT_EQ(224, nPipeType(232));
    EXPECT_EQ(224, nPipeType(255));
}

}  // namespace
