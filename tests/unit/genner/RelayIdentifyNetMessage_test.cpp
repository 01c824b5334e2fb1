#include "genner/output/RelayIdentifyNetMessage.h"

#include <gtest/gtest.h>

#include "tests/unit/orvex/image_bytes.h"

namespace Orvex {
namespace {

using namespace std::string_literals;

using ids_t = std::vector<int>;

TEST(RelayIdentifyNetMessage, PacksACountAndTheIds) {
    EXPECT_EQ(imageOf(RelayIdentifyNetMessage(ids_t{5, -1, 70})),
              "\x18\0\0\0\0\0\0\0\0"s + "3~5~-1~70~");
    EXPECT_EQ(payloadOf(RelayIdentifyNetMessage()), "0~");
}

TEST(RelayIdentifyNetMessage, ReadsTheIdsInOrder) {
    EXPECT_EQ(received<RelayIdentifyNetMessage>("3~9~1~5~").GetRelayList(), (ids_t{9, 1, 5}));
    EXPECT_EQ(received<RelayIdentifyNetMessage>("2~9~1~~").GetRelayList(), (ids_t{9, 1}));
    EXPECT_EQ(received<RelayIdentifyNetMessage>("1~9~1~").GetRelayList(), (ids_t{9}));
}

TEST(RelayIdentifyNetMessage, CountOfZeroOrLessIsAnEmptyList) {
    EXPECT_EQ(received<RelayIdentifyNetMessage>("0~").GetRelayList(), ids_t());
    EXPECT_EQ(received<RelayIdentifyNetMessage>("-5~1~2~").GetRelayList(), ids_t());
    EXPECT_EQ(received<RelayIdentifyNetMessage>("").GetRelayList(), ids_t());
}

TEST(RelayIdentifyNetMessage, CountIsBoundedByThePayload) {
    EXPECT_EQ(received<RelayIdentifyNetMessage>("2000000000~1~2~").GetRelayList(), (ids_t{1, 2}));
    const auto full = received<RelayIdentifyNetMessage>("99999~" + std::string(494, '~'));
    EXPECT_EQ(full.GetRelayList().size(), 494U);
}

TEST(RelayIdentifyNetMessage, OutParameterReceivesTheList) {
    ids_t ids;
    RelayIdentifyNetMessage(ids_t{4}).GetRelayList(ids);
    EXPECT_EQ(ids, ids_t{4});
}

}  // namespace
}  // namespace Orvex
