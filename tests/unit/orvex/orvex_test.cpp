#include "orvex/orvex.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

namespace Orvex {
namespace {

using bytes_t = std::vector<unsigned char>;

const bytes_t kSerialised = {4, 3, 2, 1, 1, 0, 0, 0x0A, 0, 0, 0, 0x5F, 0, 0, 0, 0};

/// A ticket serialised into `nRoom` bytes of 0xEE; the result keeps what was not written.
bytes_t serialised(const KTicket& rTicket, std::size_t nRoom, int& nrLen) {
    bytes_t bytes(nRoom, 0xEE);
    rTicket.SerializeToChars(bytes, &nrLen);
    return bytes;
}

TEST(KTicket, SerialisesSixteenBytesWhereThereIsRoom) {
    int nLen = -1;
    EXPECT_EQ(serialised(KTicket(0x01020304, 0x0A000001, 0x5F000000), 16, nLen), kSerialised);
    EXPECT_EQ(nLen, 16);
}

TEST(KTicket, DoesNotTouchBytesAfterTheSixteenth) {
    int nLen = -1;
    bytes_t expected = kSerialised;
    expected.insert(expected.end(), 4, 0xEE);
    EXPECT_EQ(serialised(KTicket(0x01020304, 0x0A000001, 0x5F000000), 20, nLen), expected);
    EXPECT_EQ(nLen, 16);
}

TEST(KTicket, SerialisesTwelveBytesWithoutRoomForThePadding) {
    int nLen = -1;
    const bytes_t first12(kSerialised.begin(), kSerialised.begin() + 12);
    EXPECT_EQ(serialised(KTicket(0x01020304, 0x0A000001, 0x5F000000), 12, nLen), first12);
    EXPECT_EQ(nLen, 12);
    bytes_t in15 = first12;
    in15.insert(in15.end(), 3, 0xEE);
    EXPECT_EQ(serialised(KTicket(0x01020304, 0x0A000001, 0x5F000000), 15, nLen), in15);
    EXPECT_EQ(nLen, 12);
}

TEST(KTicket, FillsTooSmallABufferWithZeros) {
    int nLen = -1;
    EXPECT_EQ(serialised(KTicket(1, 2, 3), 11, nLen), bytes_t(11, 0));
    EXPECT_EQ(nLen, 0);
    EXPECT_EQ(serialised(KTicket(1, 2, 3), 0, nLen), bytes_t());
    EXPECT_EQ(nLen, 0);
}

TEST(KTicket, SerialisesWithoutALengthToStore) {
    bytes_t bytes(16, 0xEE);
    KTicket(0x01020304, 0x0A000001, 0x5F000000).SerializeToChars(bytes, nullptr);
    EXPECT_EQ(bytes, kSerialised);
}

TEST(KTicket, ReadsBackWhatWasSerialised) {
    const KTicket ticket{gsl::span<const unsigned char>(kSerialised)};
    std::uint32_t nID = 0;
    std::int32_t lAddr = 0;
    std::time_t tt = 0;
    ticket.GetClientID(nID);
    ticket.GetClientAddr(lAddr);
    ticket.GetTimeStamp(tt);
    EXPECT_EQ(nID, 0x01020304U);
    EXPECT_EQ(lAddr, 0x0A000001);
    EXPECT_EQ(tt, 0x5F000000);
}

TEST(KTicket, TimeStampWithTheTopBitReadsBackNegative) {
    int nLen = 0;
    const bytes_t bytes = serialised(KTicket(1, -2, 0x80000000L), 16, nLen);
    const KTicket ticket{gsl::span<const unsigned char>(bytes)};
    std::time_t tt = 0;
    std::int32_t lAddr = 0;
    ticket.GetTimeStamp(tt);
    ticket.GetClientAddr(lAddr);
    EXPECT_EQ(tt, -0x80000000L);
    EXPECT_EQ(lAddr, -2);
}

TEST(KTicket, TooFewBytesGiveAnEmptyTicket) {
    const bytes_t bytes(11, 0xEE);
    const KTicket ticket{gsl::span<const unsigned char>(bytes)};
    std::uint32_t nID = 1;
    std::time_t tt = 1;
    ticket.GetClientID(nID);
    ticket.GetTimeStamp(tt);
    EXPECT_EQ(nID, 0U);
    EXPECT_EQ(tt, 0);
}

}  // namespace
}  // namespace Orvex
