#include "relayserver/archive/archive_pass.h"

#include "tests/unit/relayserver/archive/archive_endpoint.h"
#include "tests/unit/relayserver/archive/archive_pass_fixture.h"

using testing::HasSubstr;

namespace {

// When.

TEST_F(ArchivePass, ComesFifteenSecondsAfterTheOneBefore) {
    holdWorker();
    caption(7);
    lookAfter(14);
    EXPECT_EQ(1U, nBuffered(7));
    lookAfter(1);
    EXPECT_EQ(0U, nBuffered(7));
    EXPECT_EQ(1U, nQueued());
    EXPECT_EQ(kNow + 15, ttLastArchiveSent);
    caption(7);
    lookAfter(14);
    EXPECT_EQ(1U, nQueued());
    lookAfter(1);
    EXPECT_EQ(2U, nQueued());
}

TEST_F(ArchivePass, IsRememberedEvenIfNothingIsDue) {
    lookAfter(20);
    EXPECT_EQ(kNow + 20, ttLastArchiveSent);
    lookAfter(14);
    EXPECT_EQ(kNow + 20, ttLastArchiveSent);
    lookAfter(100000);
    EXPECT_EQ(kNow + 100034, ttLastArchiveSent);
}

TEST_F(ArchivePass, IsNotDelayedByAClockThatWasSetBack) {
    lookAfter(15);
    setClockForTest(kNow - 3600);
    lookAfter(0);
    EXPECT_EQ(kNow - 3600, ttLastArchiveSent);
    holdWorker();
    caption(7);
    lookAfter(14);
    EXPECT_EQ(0U, nQueued());
    lookAfter(1);
    EXPECT_EQ(1U, nQueued());
}

TEST_F(ArchivePass, HandsOverCaptionsThatAreAsOldAsTheInterval) {
    holdWorker();
    nArchiveInterval = 60;
    caption(7);
    lookAfter(15);
    caption(8);
    lookAfter(15);
    lookAfter(15);
    EXPECT_EQ(0U, nQueued());
    lookAfter(15);
    EXPECT_EQ(1U, nQueued());
    EXPECT_EQ(0U, nBuffered(7));
    EXPECT_EQ(1U, nBuffered(8)) << "younger";
}

TEST_F(ArchivePass, HandsOverCaptionsOfAFutureThatWasTakenBack) {
    holdWorker();
    nArchiveInterval = 3600;
    caption(7);
    setClockForTest(kNow - 100);
    lookAfter(0);
    lookAfter(15);
    EXPECT_EQ(1U, nQueued());
    EXPECT_EQ(0U, nBuffered(7));
}

TEST_F(ArchivePass, ForgetsSourcesThatAreIdle) {
    archiveCaption(7, "");
    lookAfter(300);
    EXPECT_NE(nullptr, ChunkCollector.getSourceBuffer(7));
    lookAfter(15);
    EXPECT_EQ(nullptr, ChunkCollector.getSourceBuffer(7));
    EXPECT_EQ(0U, nQueued());
}

TEST_F(ArchivePass, WithoutAnIntervalEmptyTextsGoToo) {
    holdWorker();
    nArchiveInterval = 0;
    archiveCaption(7, "");
    lookAfter(15);
    EXPECT_EQ(1U, nQueued());
}

// In how many passes.

TEST_F(ArchivePass, IsSpreadOverPassesOfTheLoop) {
    holdWorker();
    for (unsigned nID = 1; nID <= 5; ++nID) {
        caption(nID, 1000);
    }
    lookAfter(15);
    EXPECT_EQ(1U, nQueued()) << "one and a part of the next";
    EXPECT_TRUE(bArchiveWaits());
    EXPECT_EQ(3, nPassesUntilHandedOver());
    EXPECT_EQ(5U, nQueued());
    lookAfter(0);
    EXPECT_EQ(5U, nQueued());
}

TEST_F(ArchivePass, IsSpreadAlsoForASourceThatHasVeryMuch) {
    holdWorker();
    caption(1, 40000);
    caption(2);
    lookAfter(15);
    EXPECT_EQ(0U, nQueued());
    EXPECT_TRUE(bArchiveWaits());
    EXPECT_LT(20, nPassesUntilHandedOver());
    EXPECT_EQ(2U, nQueued());
}

TEST_F(ArchivePass, CountsTheBytesOfCaptionsToo) {
    holdWorker();
    for (int i = 0; i < 1000; ++i) {
        archiveCaption(1, std::string(498, 'x'));
        advanceClockForTest(std::chrono::microseconds(1));
    }
    lookAfter(15);
    EXPECT_EQ(10, nPassesUntilHandedOver());
    EXPECT_EQ(1U, nQueued());
}

TEST_F(ArchivePass, CancelsOneFloodInAPass) {
    for (const unsigned nID : {1U, 2U}) {
        caption(nID, 40001);
    }
    lookAfter(15);
    EXPECT_EQ(0U, nBuffered(1));
    EXPECT_EQ(40001U, nBuffered(2));
    lookAfter(0);
    EXPECT_EQ(0U, nBuffered(2));
    EXPECT_FALSE(bArchiveWaits());
}

TEST_F(ArchivePass, SourcesWithoutManyCaptionsHaveALimitToo) {
    holdWorker();
    for (unsigned nID = 1; nID <= 250; ++nID) {
        caption(nID);
    }
    lookAfter(15);
    EXPECT_GT(100U, nQueued());
    EXPECT_EQ(2, nPassesUntilHandedOver());
    EXPECT_EQ(250U, nQueued());
}

TEST_F(ArchivePass, NothingIsLostOrDoubledWhenItIsSpread) {
    ArchiveEndpoint endpoint;
    sArchiveEndpoint = endpoint.sURL();
    openArchive();
    for (unsigned nID = 1; nID <= 5; ++nID) {
        caption(nID, 1000);
    }
    lookAfter(15);            // 1 and a part of 2
    archiveCaption(1, "cd");  // waits for the next pass
    archiveCaption(2, "cd");  // so does this: of 2 is posted what was there when its turn came
    archiveCaption(5, "cd");  // goes with the others
    lookAfter(15);            // the next pass waits until this one is over
    (void)nPassesUntilHandedOver();
    EXPECT_EQ(1U, nBuffered(1));
    EXPECT_EQ(1U, nBuffered(2));
    lookAfter(15);
    for (const unsigned nID : {1U, 2U, 3U, 4U, 5U, 1U, 2U}) {
        SCOPED_TRACE(nID);
        const std::string sBody = endpoint.sNextBody();
        EXPECT_THAT(sBody, HasSubstr(sFeed(nID)));
        EXPECT_EQ(nID == 5, sBody.find("\t6162\r\n\r\n1700000016") != std::string::npos);
    }
    expectStatus("HTTP OK");
    EXPECT_TRUE(endpoint.bQuiet());
}

TEST_F(ArchivePass, AClockThatIsSetBackDoesNotLoseWhatIsLeftToHandOver) {
    holdWorker();
    for (unsigned nID = 1; nID <= 4; ++nID) {
        caption(nID, 1000);
    }
    lookAfter(15);
    setClockForTest(kNow - 3600);
    (void)nPassesUntilHandedOver();
    EXPECT_EQ(4U, nQueued());
}

}  // namespace
