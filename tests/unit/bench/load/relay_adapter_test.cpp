#include "bench/load/relay_adapter.h"

#include <gtest/gtest.h>

#include "bench/load/payload.h"
#include "genner/output/CaptionNetMessage.h"

namespace {

using namespace Load;

TEST(MakeCaptionFrame, IsAFrameWhoseCaptionIsThePayload) {
    for (const std::size_t nLen : {24UL, 63UL, 64UL, 200UL, 490UL}) {
        const std::string sPayload = makePayload(nLen);
        const Frame frame = makeCaptionFrame(7, sPayload);
        ASSERT_EQ(frame.sBytes.size(), 2U * static_cast<unsigned char>(frame.sBytes[0]));
        const Orvex::CaptionNetMessage caption(frame.sBytes.data() + 1,
                                               static_cast<int>(frame.sBytes.size()) - 1);
        EXPECT_EQ(caption.GetSenderID(), 7U);
        const auto bytes = caption.GetCaption();
        EXPECT_EQ(std::string(bytes.begin(), bytes.end()), sPayload);
        EXPECT_EQ(frame.sBytes.substr(frame.nPayloadAt, nLen), sPayload);
    }
}

}  // namespace
