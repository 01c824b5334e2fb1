#include "genner/output/message_types.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>

namespace {

unsigned char byteOf(int nType) {
    return static_cast<unsigned char>(nType);
}

TEST(MessageTypes, ThePipeFollowsTheTableForEveryTypeByte) {
    const std::map<int, int> named = {{1, -1},  {2, 224}, {3, 128},  {5, 192}, {6, 160}, {7, 192},
                                      {8, 224}, {9, 96},  {10, 224}, {11, 96}, {13, 224}};
    for (int nType = 0; nType < 256; ++nType) {
        const auto itNamed = named.find(nType);
        const int nExpected = itNamed != named.end() ? itNamed->second : nType / 32 * 32;
        EXPECT_EQ(nExpected, nPipeType(byteOf(nType))) << "type " << nType;
    }
}

TEST(MessageTypes, OnlyFourTypesAreNeverQueued) {
    const std::set<int> neverQueued = {16, 18, 228, 229};
    for (int nType = 0; nType < 256; ++nType) {
        EXPECT_EQ(neverQueued.contains(nType), bIsNeverQueued(byteOf(nType))) << "type " << nType;
    }
}

TEST(MessageTypes, WhatIsNotRoutedAndThreeRoutedTypesAreDecidedOneByOne) {
    const std::set<int> routed = {0, 12, 65};
    for (int nType = 0; nType < 256; ++nType) {
        const int nPipe = nPipeType(byteOf(nType));
        const bool bExpected = nPipe == kPipeNone || nPipe == kPipeDirect ||
                               nPipe == kPipeConnServer || routed.contains(nType);
        EXPECT_EQ(bExpected, bIsOwnDecision(byteOf(nType))) << "type " << nType;
    }
}

TEST(MessageTypes, ConstantsHaveTheirNumbers) {
    EXPECT_EQ(0, nmtNetMsgTypeResp.ToLong());
    EXPECT_EQ(1, nmtNetMsgTypeLogIn.ToLong());
    EXPECT_EQ(2, nmtNetMsgTypeLogOut.ToLong());
    EXPECT_EQ(3, nmtNetMsgTypeChat.ToLong());
    EXPECT_EQ(6, nmtNetMsgTypeCapCommand.ToLong());
    EXPECT_EQ(12, nmtNetMsgTypeHeartbeat.ToLong());
    EXPECT_EQ(14, nmtNetMsgTypeChallenge.ToLong());
    EXPECT_EQ(15, nmtNetMsgTypeConnectOrder.ToLong());
    EXPECT_EQ(17, nmtNetMsgTypeRoutingUpdate.ToLong());
    EXPECT_EQ(19, nmtNetMsgTypeRelayConnect.ToLong());
    EXPECT_EQ(160, nmtNetMsgTypeMultiCapCommand.ToLong());
}

TEST(MessageTypes, CodesHaveTheirNumbersAndTexts) {
    EXPECT_EQ(0, rcOK.ToLong());
    EXPECT_EQ(2, rcUnauthorized.ToLong());
    EXPECT_EQ(3, rcNoContinue.ToLong());
    EXPECT_EQ(4, rcUdpUnauthorized.ToLong());
    EXPECT_EQ("UDP UNAUTHORIZED", rcUdpUnauthorized.ToString());
    EXPECT_EQ(0, rcConnect.ToLong());
    EXPECT_EQ(1, rcDisconnect.ToLong());
    EXPECT_EQ(2, rcUdpReg.ToLong());
    EXPECT_EQ(5, fRelay.ToLong());
    EXPECT_EQ(6, fContinue.ToLong());
    EXPECT_EQ("CONTINUE", fContinue.ToString());
}

}  // namespace
