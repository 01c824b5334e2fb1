#include "orvex/relay_client_table.h"

#include <gtest/gtest.h>

#include <chrono>
#include <set>

#include "tests/unit/orvex/relay_client_table_fixture.h"

TEST_F(RelayClientTableTest, IsEmptyAtFirst) {
    EXPECT_EQ(table.GetSize(), 0);
    EXPECT_FALSE(table.bBeginTraverse());
    EXPECT_FALSE(table.bContinueTraverse());
    EXPECT_EQ(byID(0), nullptr);
    EXPECT_EQ(byFd(-1), nullptr);
    EXPECT_EQ(table.getFileDescFromID(0), -1);
}

TEST_F(RelayClientTableTest, FindsRecordsByIdAndDescriptor) {
    addClients(3);
    ASSERT_NE(byID(1100), nullptr);
    EXPECT_EQ(fdOf(*byID(1100)), 11);
    ASSERT_NE(byFd(12), nullptr);
    EXPECT_EQ(byFd(12)->GetClientID(), 1200);
    EXPECT_EQ(table.getFileDescFromID(1000), 10);
    EXPECT_EQ(table.getFileDescFromID(7), -1);
    EXPECT_EQ(byFd(13), nullptr);
}

TEST_F(RelayClientTableTest, AMissLeavesTheOutputUntouched) {
    RelayClient other;
    RelayClient* pFound = &other;
    EXPECT_FALSE(table.bLookUp(5, &pFound));
    EXPECT_FALSE(table.bFileDescLookUp(5, &pFound));
    EXPECT_EQ(pFound, &other);
}

TEST_F(RelayClientTableTest, ARepeatedLookUpFollowsEveryChange) {
    Orvex::FoundClient found;
    EXPECT_EQ(table.findAgain(7, found), nullptr);
    RelayClient& late = table.Add(clientWith(5, 8));
    EXPECT_EQ(table.findAgain(7, found), nullptr);
    late.SetClientID(7);
    EXPECT_EQ(table.findAgain(7, found), &late);
    EXPECT_EQ(table.findAgain(7, found), &late);
    late.SetClientID(8);
    EXPECT_EQ(table.findAgain(7, found), nullptr);
    RelayClient& first = table.Add(clientWith(6, 7));
    EXPECT_EQ(table.findAgain(7, found), &first);
    RelayClient& second = table.Add(clientWith(9, 7));
    EXPECT_EQ(table.findAgain(7, found), &first) << "the first with that id";
    ASSERT_TRUE(table.bDelete(6));
    EXPECT_EQ(table.findAgain(7, found), &second);
    ASSERT_TRUE(table.bDelete(9));
    EXPECT_EQ(table.findAgain(7, found), nullptr);
}

TEST_F(RelayClientTableTest, AddStoresACopyAndReturnsIt) {
    RelayClient client = clientWith(10, 1);
    RelayClient& stored = table.Add(client);
    client.SetClientID(2);
    EXPECT_EQ(stored.GetClientID(), 1);
    EXPECT_EQ(byFd(10), &stored);
}

TEST_F(RelayClientTableTest, FindsTheFirstOfEqualKeysInInsertionOrder) {
    for (const int fd : {20, 21, 22}) {
        table.Add(clientWith(fd, 7));
    }
    EXPECT_EQ(table.getFileDescFromID(7), 20);
    EXPECT_TRUE(table.bDelete(20));
    EXPECT_EQ(table.getFileDescFromID(7), 21);
    EXPECT_TRUE(table.bDelete(22));
    EXPECT_EQ(table.getFileDescFromID(7), 21);

    table.Add(clientWith(-1, 1));
    table.Add(clientWith(-1, 2));
    EXPECT_EQ(byFd(-1)->GetClientID(), 1);
    EXPECT_TRUE(table.bDelete(-1));
    EXPECT_EQ(byFd(-1)->GetClientID(), 2);
}

TEST_F(RelayClientTableTest, AnIdGivenLaterTakesItsPlaceInInsertionOrder) {
    for (const int fd : {20, 21, 22, 23}) {
        table.Add(clientWith(fd, 0));
    }
    byFd(23)->SetClientID(7);
    byFd(21)->SetClientID(7);
    EXPECT_EQ(table.getFileDescFromID(7), 21);
    byFd(22)->SetClientID(7);
    EXPECT_TRUE(table.bDelete(21));
    EXPECT_EQ(table.getFileDescFromID(7), 22);
    EXPECT_TRUE(table.bDelete(22));
    EXPECT_EQ(table.getFileDescFromID(7), 23);
    EXPECT_EQ(table.getFileDescFromID(0), 20);
    byFd(23)->SetClientID(0);
    EXPECT_EQ(table.getFileDescFromID(7), -1);
    EXPECT_EQ(table.getFileDescFromID(0), 20);
}

TEST_F(RelayClientTableTest, FindsARecordUnderItsNewSocket) {
    addClients(2);
    byFd(10)->SetMessageSocket(RelayMessageSocket(30, sockaddr_in{}));
    EXPECT_EQ(byFd(10), nullptr);
    EXPECT_EQ(byFd(30), byID(1000));
    EXPECT_TRUE(table.bDelete(30));
    EXPECT_EQ(vWalked(table), Fds({11}));
}

TEST_F(RelayClientTableTest, FindsARecordThatWasAssignedTo) {
    addClients(2);
    RelayClient* pStored = byFd(10);
    const auto nSerial = pStored->nSerial();
    *pStored = clientWith(40, 4000);
    EXPECT_EQ(byFd(40), pStored);
    EXPECT_EQ(byID(4000), pStored);
    EXPECT_EQ(byFd(10), nullptr);
    EXPECT_EQ(byID(1000), nullptr);
    EXPECT_EQ(pStored->nSerial(), nSerial);
}

TEST_F(RelayClientTableTest, ACopyOfARecordIsInNoTable) {
    addClients(1);
    RelayClient copy = *byFd(10);
    EXPECT_EQ(copy.nSerial(), 0U);
    copy.SetClientID(5);
    EXPECT_EQ(byID(5), nullptr);
    EXPECT_NE(byID(1000), nullptr);
}

TEST_F(RelayClientTableTest, ARecordMovesBetweenTables) {
    RelayClientTable other;
    addClients(2);
    RelayClient& moved = other.Add(*byFd(10));
    EXPECT_TRUE(table.bDelete(10));
    moved.SetClientID(9);
    EXPECT_EQ(other.getFileDescFromID(9), 10);
    EXPECT_EQ(table.GetSize(), 1);
}

TEST_F(RelayClientTableTest, RecordsDoNotMoveWhenOthersAreAddedAndDeleted) {
    addClients(1);
    RelayClient* pStored = byFd(10);
    for (int fd = 100; fd < 400; ++fd) {
        table.Add(clientWith(fd));
    }
    for (int fd = 100; fd < 400; ++fd) {
        EXPECT_TRUE(table.bDelete(fd));
    }
    EXPECT_EQ(byFd(10), pStored);
}

TEST_F(RelayClientTableTest, DeletesByDescriptorOrByRecord) {
    addClients(3);
    EXPECT_FALSE(table.bDelete(99));
    EXPECT_TRUE(table.bDelete(11));
    EXPECT_FALSE(table.bDelete(11));
    EXPECT_TRUE(table.bDelete(*byFd(12)));
    EXPECT_EQ(table.GetSize(), 1);
    EXPECT_EQ(vWalked(table), Fds({10}));
    RelayClient notStored = clientWith(10);
    EXPECT_TRUE(table.bDelete(notStored)) << "the descriptor is what counts";
    EXPECT_EQ(table.GetSize(), 0);
}

TEST_F(RelayClientTableTest, EveryRecordHasItsOwnSerial) {
    RelayClientTable other;
    std::set<std::uint64_t> serials;
    for (int fd = 0; fd < 50; ++fd) {
        serials.insert(table.Add(clientWith(fd)).nSerial());
        serials.insert(other.Add(clientWith(fd)).nSerial());
    }
    EXPECT_EQ(serials.size(), 100U);
    EXPECT_FALSE(serials.contains(0));
}

TEST_F(RelayClientTableTest, ASerialDistinguishesARecordFromALaterOneWithItsDescriptor) {
    const auto nSerial = table.Add(clientWith(10)).nSerial();
    ASSERT_NE(table.findBySerial(10, nSerial), nullptr);
    EXPECT_EQ(table.findBySerial(11, nSerial), nullptr);
    EXPECT_TRUE(table.bDelete(10));
    EXPECT_EQ(table.findBySerial(10, nSerial), nullptr);
    const RelayClient& newcomer = table.Add(clientWith(10));
    EXPECT_EQ(table.findBySerial(10, nSerial), nullptr);
    EXPECT_EQ(table.findBySerial(10, newcomer.nSerial()), &newcomer);
}

// A table that searched would need some 10^9 steps here; this one is done in milliseconds.
TEST_F(RelayClientTableTest, StaysFastWithThousandsOfRecordsOfOneId) {
    constexpr int kRecords = 20000;
    const auto tStart = std::chrono::steady_clock::now();
    for (int fd = 0; fd < kRecords; ++fd) {
        table.Add(clientWith(fd, 0));
    }
    for (int fd = kRecords - 1; fd >= 0; --fd) {
        ASSERT_NE(byFd(fd), nullptr);
        ASSERT_EQ(table.getFileDescFromID(0), 0);
        ASSERT_TRUE(table.bDelete(fd));
    }
    EXPECT_EQ(table.GetSize(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - tStart, std::chrono::seconds(5));
}
