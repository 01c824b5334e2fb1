#include "relayserver/archive/archive_pass.h"

#include "tests/unit/relayserver/archive/archive_endpoint.h"
#include "tests/unit/relayserver/archive/archive_pass_fixture.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

TEST_F(ArchivePass, ANewSourceIsLoggedOnce) {
    archiveCaption(7, "ab");
    advanceClockForTest(1);
    archiveCaption(7, "cd");
    archiveCaption(4294967295U, "");
    EXPECT_THAT(
        loggedLines(),
        ElementsAre("Newly collecting caption feedback from source 7 for archive\n",
                    "Newly collecting caption feedback from source 4294967295 for archive\n"));
    EXPECT_EQ(2U, nBuffered(7));
    EXPECT_EQ(0U, nBuffered(4294967295U));
}

TEST_F(ArchivePass, ASourceThatWasForgottenIsNewAgain) {
    archiveCaption(7, "");
    lookAfter(301);
    archiveCaption(7, "ab");
    EXPECT_EQ(2U, nLogged("Newly collecting caption feedback from source 7 for archive\n"));
}

TEST_F(ArchivePass, PostsWhatWasCaptioned) {
    ArchiveEndpoint endpoint;
    sArchiveEndpoint = endpoint.sURL();
    openArchive();
    archiveCaption(7, "\x14\x2C\x94\x20");
    advanceClockForTest(2);
    archiveCaption(7, "ab");
    lookAfter(15);
    EXPECT_EQ(
        "{\"time\" : 1700000018,\"dur\" : 17,\"feedID\" : \"7\",\"CaptionData\" : {"
        "\"format\" : \"SCCP\",\"S1data\" : \"1700000001.000\t942c 2080\r\n\r\n"
        "1700000003.000\t6162\r\n\r\n\",\"S2data\" : \"1700000001.000\t9480\r\n\r\n\"}}",
        endpoint.sNextBody());
    expectStatus("HTTP OK");
    EXPECT_EQ(nowSecs(), ArchivePostThreader.getLastOK());
}

TEST_F(ArchivePass, PostsSourcesInTheOrderOfTheirIds) {
    ArchiveEndpoint endpoint;
    sArchiveEndpoint = endpoint.sURL();
    openArchive();
    for (const unsigned nID : {9U, 2U, 4000000000U, 7U}) {
        caption(nID);
    }
    lookAfter(15);
    for (const unsigned nID : {2U, 7U, 9U, 4000000000U}) {
        EXPECT_THAT(endpoint.sNextBody(), HasSubstr(sFeed(nID)));
    }
    expectStatus("HTTP OK");
    EXPECT_TRUE(endpoint.bQuiet());
}

TEST_F(ArchivePass, CancelsWhatAFloodHasCollected) {
    holdWorker();
    caption(7, 40001);
    caption(8, 40000);
    caption(9, 50000);
    lookAfter(15);
    while (bArchiveWaits()) {
        lookAfter(0);
    }
    EXPECT_EQ(1U, nQueued()) << "of source 8";
    EXPECT_EQ(0U, nBuffered(7));
    EXPECT_EQ(0U, nBuffered(8));
    EXPECT_EQ(0U, nBuffered(9));
    EXPECT_EQ(1U, nLogged("WARNING: Archive: Attempt to send 40001 data bytes collected from "
                          "client 7, cancelling\n"));
    EXPECT_EQ(1U, nLogged("WARNING: Archive: Attempt to send 40001 data bytes collected from "
                          "client 9, cancelling\n"));
    EXPECT_EQ(2U, nLoggedContaining("WARNING"));
}

TEST_F(ArchivePass, AfterAFloodASourceIsCollectedAgain) {
    holdWorker();
    caption(7, 40001);
    lookAfter(15);
    caption(7);
    EXPECT_EQ(1U, nBuffered(7));
    lookAfter(15);
    EXPECT_EQ(1U, nQueued());
}

TEST_F(ArchivePass, HandsNothingOverWhileTheArchiveIsDisabled) {
    caption(7);
    bArchiveEnable = false;
    lookAfter(15);
    EXPECT_EQ(0U, nBuffered(7)) << "rendered all the same";
    EXPECT_EQ(0U, nQueued());
    EXPECT_EQ("Idle", ArchivePostThreader.getLastStatusCode());
}

TEST_F(ArchivePass, CollectsNothingWhileTheArchiveIsDisabled) {
    bArchiveEnable = false;
    archiveCaption(7, "ab");
    EXPECT_EQ(nullptr, ChunkCollector.getSourceBuffer(7));
    EXPECT_THAT(loggedLines(), IsEmpty());
}

}  // namespace
