#include "orvex/relay_client.h"

#include <gtest/gtest.h>

#include <array>
#include <numeric>

#include "base/clock.h"

using Orvex::RelayClient;
using Orvex::RelayMessageSocket;

namespace {

sockaddr_in addressWithPort(int nPort) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(nPort));
    return address;
}

int nPortOfAddress(const sockaddr_in& address) {
    return ntohs(address.sin_port);
}

struct Ticket {
    std::array<unsigned char, RelayClient::nMAX_TICKET_LEN> ach{};
    int nLen = -1;
    long nAge = -1;

    explicit Ticket(const RelayClient& client) { client.GetTicket(ach.data(), nLen, nAge); }
};

}  // namespace

TEST(RelayClient, IsEmptyAtFirst) {
    const RelayClient client;
    EXPECT_EQ(client.GetMessageSocket()->getMsgSockFileDesc(), -1);
    EXPECT_EQ(client.GetClientID(), 0);
    EXPECT_FALSE(client.bIsBlocked());
    EXPECT_FALSE(client.IsVideoThrottled());
    EXPECT_EQ(client.GetTcpInputByteCounter(), 0U);
    EXPECT_EQ(client.nTicketsGranted, 0);
    EXPECT_EQ(client.nRelayUdpBasePort, 0);
    EXPECT_EQ(client.ttLastTicketGranted, 0);
    EXPECT_EQ(client.ttLastTicketRequested, 0);
    EXPECT_EQ(client.nSerial(), 0U);
    const Ticket ticket(client);
    EXPECT_EQ(ticket.nLen, 0);
    EXPECT_EQ(ticket.nAge, 0);
    for (unsigned idx = 0; idx < RelayClient::kAudioPrograms; ++idx) {
        EXPECT_FALSE(client.bIsRcvAudio(idx));
        EXPECT_FALSE(client.bIsSrcAudio(idx));
        EXPECT_EQ(client.nPacketsSourced[idx], 0U);
    }
}

TEST(RelayClient, ForwardsAddressAndDescriptorOfItsSocket) {
    RelayClient client(RelayMessageSocket(12, addressWithPort(99)));
    sockaddr_in address{};
    client.GetAddress(address);
    EXPECT_EQ(nPortOfAddress(address), 99);
    int fd = 0;
    client.GetMsgSockFileDesc(fd);
    EXPECT_EQ(fd, 12);
    client.SetMessageSocket(RelayMessageSocket(13, addressWithPort(1)));
    EXPECT_EQ(client.GetMessageSocket()->getMsgSockFileDesc(), 13);
}

TEST(RelayClient, KeepsReceivingAndSourcingOfEachProgramApart) {
    RelayClient client;
    client.StartRcvAudio(5, addressWithPort(10));
    client.StartSrcAudio(0, addressWithPort(20));
    EXPECT_TRUE(client.bIsRcvAudio(5));
    EXPECT_FALSE(client.bIsSrcAudio(5));
    EXPECT_TRUE(client.bIsSrcAudio(0));
    EXPECT_FALSE(client.bIsRcvAudio(0));
    sockaddr_in address{};
    client.GetAudioRcvAddress(5, address);
    EXPECT_EQ(nPortOfAddress(address), 10);
    client.GetAudioSrcAddress(0, address);
    EXPECT_EQ(nPortOfAddress(address), 20);
}

TEST(RelayClient, StoppingAudioKeepsTheAddress) {
    RelayClient client;
    client.StartRcvAudio(1, addressWithPort(10));
    client.StartSrcAudio(1, addressWithPort(20));
    client.StopRcvAudio(1);
    EXPECT_FALSE(client.bIsRcvAudio(1));
    EXPECT_TRUE(client.bIsSrcAudio(1));
    client.StopSrcAudio(1);
    EXPECT_FALSE(client.bIsSrcAudio(1));
    sockaddr_in address{};
    client.GetAudioRcvAddress(1, address);
    EXPECT_EQ(nPortOfAddress(address), 10);
    client.GetAudioSrcAddress(1, address);
    EXPECT_EQ(nPortOfAddress(address), 20);
}

TEST(RelayClient, IgnoresAProgramBeyondTheSixth) {
    RelayClient client;
    client.StartRcvAudio(6, addressWithPort(10));
    client.StartSrcAudio(6, addressWithPort(10));
    client.StopRcvAudio(6);
    client.StopSrcAudio(0xFFFFFFFFU);
    EXPECT_FALSE(client.bIsRcvAudio(6));
    EXPECT_FALSE(client.bIsSrcAudio(0xFFFFFFFFU));
    sockaddr_in address = addressWithPort(77);
    client.GetAudioRcvAddress(6, address);
    client.GetAudioSrcAddress(6, address);
    EXPECT_EQ(nPortOfAddress(address), 77);
    for (unsigned idx = 0; idx < RelayClient::kAudioPrograms; ++idx) {
        EXPECT_FALSE(client.bIsRcvAudio(idx));
        EXPECT_FALSE(client.bIsSrcAudio(idx));
    }
}

TEST(RelayClient, StoresATicketOf64BytesWithItsTime) {
    std::array<unsigned char, 64> ach{};
    std::iota(ach.begin(), ach.end(), static_cast<unsigned char>(1));
    setClockForTest(5000);
    RelayClient client;
    client.SetTicket(ach.data(), 64);
    resetClockForTest();
    const Ticket ticket(client);
    EXPECT_EQ(ticket.nLen, 64);
    EXPECT_EQ(ticket.nAge, 5000);
    EXPECT_EQ(ticket.ach, ach);
}

TEST(RelayClient, ReportsAnImproperTicketLengthAndEmptiesTheTicket) {
    const std::array<unsigned char, 65> ach{1, 2, 3};
    for (const int nLen : {65, -1}) {
        setClockForTest(5000);
        RelayClient client;
        client.SetTicket(ach.data(), 3);
        setClockForTest(6000);
        testing::internal::CaptureStdout();
        client.SetTicket(ach.data(), nLen);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "orvex 3539: improper ticket length of " + std::to_string(nLen) + "\n");
        const Ticket ticket(client);
        EXPECT_EQ(ticket.nLen, 0);
        EXPECT_EQ(ticket.nAge, 5000) << "the old age stays";
        resetClockForTest();
    }
}

TEST(RelayClient, ClearsItsTicketWithANullOne) {
    const std::array<unsigned char, 3> ach{1, 2, 3};
    RelayClient client;
    client.SetTicket(ach.data(), 3);
    client.SetTicket(nullptr, 0);
    EXPECT_EQ(Ticket(client).nLen, 0);
}

TEST(RelayClient, CountsInputBytesUntilCleared) {
    RelayClient client;
    client.IncrementTcpInputByteCounter(5);
    client.IncrementTcpInputByteCounter(7);
    EXPECT_EQ(client.GetTcpInputByteCounter(), 12U);
    client.ClearTcpInputByteCounter();
    EXPECT_EQ(client.GetTcpInputByteCounter(), 0U);
}

TEST(RelayClient, RemembersWhatItIsTold) {
    RelayClient client;
    client.SetBlock(true);
    client.SetVideoThrottle(true);
    client.SetLastMessageTime(123);
    client.SetChallengeNum(9);
    client.SetClientID(42);
    EXPECT_TRUE(client.bIsBlocked());
    EXPECT_TRUE(client.IsVideoThrottled());
    long tTime = 0;
    client.GetLastMessageTime(tTime);
    EXPECT_EQ(tTime, 123);
    int nNumber = 0;
    client.GetChallengeNum(nNumber);
    EXPECT_EQ(nNumber, 9);
    client.GetClientID(nNumber);
    EXPECT_EQ(nNumber, 42);
}

TEST(RelayClient, IsCopiedWithAllItsMembers) {
    RelayClient client(RelayMessageSocket(12, addressWithPort(99)));
    client.SetClientID(42);
    client.StartRcvAudio(2, addressWithPort(10));
    client.nTicketsGranted = 3;
    const RelayClient copy(client);
    EXPECT_EQ(copy.GetClientID(), 42);
    EXPECT_EQ(copy.GetMessageSocket()->getMsgSockFileDesc(), 12);
    EXPECT_TRUE(copy.bIsRcvAudio(2));
    EXPECT_EQ(copy.nTicketsGranted, 3);
}

TEST(RelayClient, StaysSmallEnoughForManyIdleClients) {
    EXPECT_LT(sizeof(RelayClient), 6000U);
}
