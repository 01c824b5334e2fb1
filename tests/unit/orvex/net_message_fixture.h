/// Messages and images for tests of the base class of all messages.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "orvex/net_message.h"
#include "tests/unit/orvex/image_bytes.h"

namespace Orvex {

/// Every test starts with the sender id of a fresh process.
class NetMessageTest : public testing::Test {
  protected:
    void SetUp() override { nSenderID = 0; }
    void TearDown() override { nSenderID = 0; }
};

/// A message with one text that it packs, to see when packing happens.
class TextMessage : public NetMessage {
  public:
    TextMessage() : NetMessage(3) {}
    TextMessage(const char* buf, int len) : NetMessage(buf, len) {}
    void SetText(const std::string& sInText) {
        sText = sInText;
        MarkNotInSync();
    }
    std::string sText;
    int nPacked = 0;

  protected:
    void doPack(int* npMsgHdrLen) override {
        ++nPacked;
        int nIndex = 0;
        SetField(sText, nIndex, payload());
        UpdateLength(nIndex);
        if (npMsgHdrLen != nullptr) {
            *npMsgHdrLen = nIndex;
        }
    }
    void doUnpack() override {
        int nLen = GetPayloadLen();
        int nIndex = 0;
        GetField(payload(), nLen, nIndex, sText);
    }
};

inline std::string sendBufferOf(NetMessage& rMessage, bool bSendLen = true) {
    std::string sOut;
    rMessage.GetSendBuffer(bSendLen, sOut);
    return sOut;
}

/// A whole image of `nLen` bytes, at least 9.
inline std::string imageOfLen(std::size_t nLen) {
    return imageWith(6, std::string(nLen - 9, 'x'));
}

}  // namespace Orvex
