// Walks over the table's records, while records are added and deleted.
#include <gtest/gtest.h>

#include <cstddef>
#include <stdexcept>

#include "orvex/relay_client_table.h"
#include "tests/unit/orvex/relay_client_table_fixture.h"

using RelayClientTableWalk = RelayClientTableTest;

TEST_F(RelayClientTableWalk, SteppingOutOfRangeThrows) {
    const auto expectThrow = [this] {
        try {
            (void)table.current();
            ADD_FAILURE() << "nothing thrown";
        } catch (const std::out_of_range& error) {
            EXPECT_STREQ(error.what(),
                         "no clients left in this iteration of Tessel RelayClientTable!\n");
        }
    };
    expectThrow();
    addClients(1);
    ASSERT_TRUE(table.bBeginTraverse());
    EXPECT_FALSE(table.bContinueTraverse());
    expectThrow();
}

TEST_F(RelayClientTableWalk, WalksInInsertionOrder) {
    addClients(3);
    EXPECT_EQ(vWalked(table), Fds({10, 11, 12}));
}

TEST_F(RelayClientTableWalk, DeletingTheCurrentFirstRecordContinuesWithTheSecond) {
    addClients(3);
    ASSERT_TRUE(table.bBeginTraverse());
    EXPECT_TRUE(table.bDelete(10));
    ASSERT_TRUE(table.bContinueTraverse());
    EXPECT_EQ(fdOf(table.current()), 11);
    ASSERT_TRUE(table.bContinueTraverse());
    EXPECT_EQ(fdOf(table.current()), 12);
}

TEST_F(RelayClientTableWalk, DeletingTheCurrentRecordContinuesWithTheNext) {
    addClients(3);
    ASSERT_TRUE(table.bBeginTraverse());
    ASSERT_TRUE(table.bContinueTraverse());
    EXPECT_TRUE(table.bDelete(11));
    EXPECT_EQ(fdOf(table.current()), 10) << "the cursor has stepped back";
    ASSERT_TRUE(table.bContinueTraverse());
    EXPECT_EQ(fdOf(table.current()), 12);
}

TEST_F(RelayClientTableWalk, DeletingTheCurrentLastRecordEndsTheWalk) {
    addClients(2);
    ASSERT_TRUE(table.bBeginTraverse());
    ASSERT_TRUE(table.bContinueTraverse());
    EXPECT_TRUE(table.bDelete(11));
    EXPECT_FALSE(table.bContinueTraverse());
}

TEST_F(RelayClientTableWalk, DeletingTheOnlyRecordEndsTheWalk) {
    addClients(1);
    ASSERT_TRUE(table.bBeginTraverse());
    EXPECT_TRUE(table.bDelete(10));
    EXPECT_EQ(table.GetSize(), 0);
    EXPECT_FALSE(table.bContinueTraverse());
}

TEST_F(RelayClientTableWalk, DeletingAnotherRecordKeepsTheCursorOnItsOwn) {
    addClients(4);
    ASSERT_TRUE(table.bBeginTraverse());
    ASSERT_TRUE(table.bContinueTraverse());
    ASSERT_TRUE(table.bContinueTraverse());
    EXPECT_TRUE(table.bDelete(10));
    EXPECT_TRUE(table.bDelete(13));
    EXPECT_EQ(fdOf(table.current()), 12);
    EXPECT_FALSE(table.bContinueTraverse());
}

TEST_F(RelayClientTableWalk, DeletingSeveralAtTheStartStaysOnTheSuccessor) {
    addClients(4);
    ASSERT_TRUE(table.bBeginTraverse());
    EXPECT_TRUE(table.bDelete(10));
    EXPECT_TRUE(table.bDelete(11));
    ASSERT_TRUE(table.bContinueTraverse());
    EXPECT_EQ(fdOf(table.current()), 12);
}

TEST_F(RelayClientTableWalk, BeginningAgainForgetsADeletion) {
    addClients(3);
    ASSERT_TRUE(table.bBeginTraverse());
    EXPECT_TRUE(table.bDelete(10));
    ASSERT_TRUE(table.bBeginTraverse());
    ASSERT_TRUE(table.bContinueTraverse());
    EXPECT_EQ(fdOf(table.current()), 12);
}

TEST_F(RelayClientTableWalk, ACursorPastTheLastRecordReachesTheOneAddedThere) {
    addClients(1);
    ASSERT_TRUE(table.bBeginTraverse());
    EXPECT_FALSE(table.bContinueTraverse());
    EXPECT_FALSE(table.bContinueTraverse()) << "and does not move further";
    table.Add(clientWith(50));
    EXPECT_EQ(fdOf(table.current()), 50);
    EXPECT_FALSE(table.bContinueTraverse());
    EXPECT_TRUE(table.bDelete(10));
    table.Add(clientWith(51));
    EXPECT_EQ(fdOf(table.current()), 51);
}

TEST_F(RelayClientTableWalk, TheFirstRecordAddedIsUnderTheIdleCursor) {
    addClients(1);
    EXPECT_EQ(fdOf(table.current()), 10);
    table.Add(clientWith(11));
    EXPECT_EQ(fdOf(table.current()), 10);
}

TEST_F(RelayClientTableWalk, RecordsAddedDuringAWalkAreVisited) {
    addClients(2);
    ASSERT_TRUE(table.bBeginTraverse());
    ASSERT_TRUE(table.bContinueTraverse());
    table.Add(clientWith(60));
    ASSERT_TRUE(table.bContinueTraverse());
    EXPECT_EQ(fdOf(table.current()), 60);
}

TEST_F(RelayClientTableWalk, NestedWalksDoNotDisturbEachOther) {
    addClients(3);
    Fds vOuter;
    ASSERT_TRUE(table.bBeginTraverse());
    do {
        vOuter.push_back(fdOf(table.current()));
        EXPECT_EQ(vWalked(table), Fds({10, 11, 12}));
    } while (table.bContinueTraverse());
    EXPECT_EQ(vOuter, Fds({10, 11, 12}));
}

TEST_F(RelayClientTableWalk, AWalkSurvivesDeletionsByANestedOne) {
    addClients(5);
    Fds vOuter;
    RelayClientTable::Walk outer(table);
    ASSERT_TRUE(outer.bBeginTraverse());
    do {
        vOuter.push_back(fdOf(outer.current()));
        RelayClientTable::Walk inner(table);
        if (vOuter.size() == 2 && inner.bBeginTraverse()) {
            do {
                const int fd = fdOf(inner.current());
                if (fd == 10 || fd == 11 || fd == 13) {
                    EXPECT_TRUE(table.bDelete(fd));
                }
            } while (inner.bContinueTraverse());
        }
    } while (outer.bContinueTraverse());
    EXPECT_EQ(vOuter, Fds({10, 11, 12, 14}));
    EXPECT_EQ(vWalked(table), Fds({12, 14}));
}

/// The rules of a walk in their plainest form: a vector of descriptors and the cursor's index.
class ModelWalk {
  public:
    void add(int fd) { vFds_.push_back(fd); }
    void remove(std::size_t nIndex) {
        if (nIndex <= nCursor_ && nCursor_-- == 0) {
            nCursor_ = 0;
            bStays_ = true;
        }
        vFds_.erase(vFds_.begin() + static_cast<std::ptrdiff_t>(nIndex));
    }
    bool bBeginTraverse() {
        if (vFds_.empty()) {
            return false;
        }
        nCursor_ = 0;
        bStays_ = false;
        return true;
    }
    bool bContinueTraverse() {
        if (!bOnRecord()) {
            return false;
        }
        nCursor_ += bStays_ ? 0 : 1;
        bStays_ = false;
        return bOnRecord();
    }
    [[nodiscard]] bool bOnRecord() const { return nCursor_ < vFds_.size(); }
    [[nodiscard]] int nCurrent() const { return vFds_[nCursor_]; }
    [[nodiscard]] const Fds& vFds() const { return vFds_; }

  private:
    Fds vFds_;
    std::size_t nCursor_ = 0;
    bool bStays_ = false;
};

TEST_F(RelayClientTableWalk, BehavesLikeAVectorWithACursorIndex) {
    ModelWalk model;
    unsigned nRandom = 12345;
    const auto nNext = [&nRandom](std::size_t nBelow) {
        nRandom = nRandom * 1103515245U + 12345U;
        return (nRandom >> 16U) % nBelow;
    };
    int fdNew = 100;
    for (int nStep = 0; nStep < 20000; ++nStep) {
        const std::size_t nAction = nNext(16);
        if (nAction < 5) {
            table.Add(clientWith(++fdNew));
            model.add(fdNew);
        } else if (nAction < 10 && !model.vFds().empty()) {
            const std::size_t nIndex = nNext(model.vFds().size());
            EXPECT_TRUE(table.bDelete(model.vFds()[nIndex]));
            model.remove(nIndex);
        } else if (nAction == 10) {
            ASSERT_EQ(table.bBeginTraverse(), model.bBeginTraverse());
        } else {
            ASSERT_EQ(table.bContinueTraverse(), model.bContinueTraverse()) << "step " << nStep;
        }
        if (model.bOnRecord()) {
            ASSERT_EQ(fdOf(table.current()), model.nCurrent()) << "step " << nStep;
        } else {
            ASSERT_THROW((void)table.current(), std::out_of_range) << "step " << nStep;
        }
    }
    EXPECT_EQ(vWalked(table), model.vFds());
}

#ifndef NDEBUG
TEST(RelayClientTableWalkDeathTest, ATableMustOutliveItsWalks) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            auto* pTable = new RelayClientTable;
            const RelayClientTable::Walk walk(*pTable);
            delete pTable;
        },
        "outlives its walks");
}
#endif
