#include "bench/load/udp_datagram.h"

#include <gtest/gtest.h>

#include <cstring>

#include "bench/load/payload.h"

namespace {

using namespace Load;

TEST(MakeAudioDatagram, HasTheIdOfItsSourceBehindTwelveZeroBytes) {
    const Frame datagram = makeAudioDatagram(0x01020304, 200);
    ASSERT_EQ(datagram.sBytes.size(), 200U);
    EXPECT_EQ(datagram.sBytes.substr(0, 16), std::string(12, '\0') + "\x04\x03\x02\x01");
    EXPECT_EQ(datagram.nPayloadAt, 16U);
    EXPECT_EQ(datagram.sBytes.substr(16), makePayload(184));
}

TEST(MakeAudioDatagram, IsNeverTakenForARegistration) {
    for (std::size_t nLength = 40; nLength < 300; ++nLength) {
        const Frame datagram = makeAudioDatagram(7, nLength);
        EXPECT_NE(datagram.sBytes[16], static_cast<char>(Orvex::RelayConnectNetMessage::nTYPE));
        EXPECT_NE(datagram.sBytes.back(), Orvex::NetMessage::chDELIM);
    }
}

TEST(AudioPort, IsTwoPerProgramAndAHundredPerChannelAboveTheFirst) {
    EXPECT_EQ(nAudioPort(6900, 0, 0), 6900);
    EXPECT_EQ(nAudioPort(6900, 5, 0), 6910);
    EXPECT_EQ(nAudioPort(6900, 0, 1), 7000);
    EXPECT_EQ(nAudioPort(6900, 5, 2), 7110);
}

TEST(MakeRegistration, CarriesTicketAndRoleBehindTheIdOfTheClient) {
    const unsigned char achTicket[16] = {1, 2,  '~', '\\', 0,  6,  7,  8,
                                         9, 10, 11,  12,   13, 14, 15, 16};
    const Orvex::RelayConnectNetMessage connect(2001, achTicket, 16);
    const std::string sDatagram = sMakeRegistration(connect, AudioRole::kSend);
    ASSERT_GT(sDatagram.size(), 16U);
    EXPECT_EQ(sDatagram.substr(0, 12), std::string(12, '\0'));
    std::uint32_t nMarkedId = 0;
    std::memcpy(&nMarkedId, sDatagram.data() + 12, sizeof nMarkedId);
    EXPECT_EQ(nMarkedId, 2001U);
    EXPECT_EQ(sDatagram.back(), '~');
    const Orvex::RelayConnectNetMessage read(sDatagram.data() + 16,
                                             static_cast<int>(sDatagram.size()) - 16);
    EXPECT_EQ(read.GetDestID(), 4U);
    EXPECT_EQ(read.GetClientID(), 2001U);
    ASSERT_EQ(read.GetTicket().size(), 16U);
    EXPECT_EQ(std::memcmp(read.GetTicket().data(), achTicket, 16), 0);
}

}  // namespace
