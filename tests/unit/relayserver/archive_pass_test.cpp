#include "relayserver/archive_pass.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

#include "base/clock.h"
#include "base/string_format.h"
#include "relayserver/startup/settings.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/archive_endpoint.h"
#include "tests/unit/relayserver/engine_fixture.h"

using std::chrono::microseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr const char* kBacklogFull =
    "WARNING: CCArchive local backlog is full, we are currently dropping data\n";

class ArchivePass : public EngineTest {
  protected:
    ArchivePass() {
        bArchiveEnable = true;
        nArchiveInterval = 1;
    }

    static void lookAfter(std::time_t nSecs) {
        advanceClockForTest(nSecs);
        lookAfterArchive(nowSecs());
    }

    /// Lets a source caption `nCaptions` times, a microsecond apart.
    static void caption(unsigned nID, int nCaptions = 1) {
        for (int i = 0; i < nCaptions; ++i) {
            archiveCaption(nID, "ab");
            advanceClockForTest(microseconds(1));
        }
    }
    static std::size_t nBuffered(unsigned nID) {
        return ChunkCollector.getSourceBuffer(nID)->getBufferedSize();
    }

    /// Lets the worker wait for its first payload's time, so that all others stay queued.
    static void holdWorker() {
        ArchivePostThreader.queuePayload("", 1000000000);
        ASSERT_TRUE(bComesTrue([] { return nQueued() == 0; }));
    }
    static void queue(int nPayloads) {
        for (int i = 0; i < nPayloads; ++i) {
            ArchivePostThreader.queuePayload("x");
        }
    }
    static std::size_t nQueued() { return ArchivePostThreader.getPayloadQueueSize(); }

    static void expectStatus(const std::string& sStatus) {
        EXPECT_TRUE(bComesTrue([&] { return ArchivePostThreader.getLastStatusCode() == sStatus; }))
            << ArchivePostThreader.getLastStatusCode();
    }
    static std::string sFeed(unsigned nID) { return string_format("\"feedID\" : \"%u\"", nID); }
};

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

TEST_F(ArchivePass, IsNotHeldUpByAClockThatWasSetBack) {
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

// What.

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

// The backlog.

TEST_F(ArchivePass, DropsWhatIsDueWhileMoreThan9999PayloadsWait) {
    holdWorker();
    queue(10000);
    caption(7);
    lookAfter(15);
    EXPECT_EQ(10000U, nQueued());
    EXPECT_EQ(0U, nBuffered(7)) << "rendered and lost";
    EXPECT_THAT(
        loggedLines(),
        ElementsAre("Newly collecting caption feedback from source 7 for archive\n", kBacklogFull));
    lookAfter(15);
    EXPECT_EQ(2U, nLogged(kBacklogFull)) << "again in each pass";
}

TEST_F(ArchivePass, A9999thWaitingPayloadIsNotTooMany) {
    holdWorker();
    queue(9999);
    caption(7);
    lookAfter(15);
    EXPECT_EQ(10000U, nQueued());
    EXPECT_EQ(0U, nLogged(kBacklogFull));
}

TEST_F(ArchivePass, ABacklogThatFillsUpWithinAPassIsNotExceeded) {
    holdWorker();
    queue(9998);
    for (unsigned nID = 1; nID <= 5; ++nID) {
        caption(nID);
    }
    lookAfter(15);
    EXPECT_EQ(10000U, nQueued());
    EXPECT_EQ(0U, nBuffered(5));
}

TEST_F(ArchivePass, ABacklogThatEmptiesTakesPayloadsAgain) {
    holdWorker();
    queue(10000);
    lookAfter(15);
    ArchivePostThreader.clearQueue();
    caption(7);
    lookAfter(15);
    EXPECT_EQ(1U, nQueued());
    EXPECT_EQ(1U, nLogged(kBacklogFull));
}

/// A payload that counts as `nBytes`, but whose memory goes back to the system at once.
void queueWithoutMemory(std::size_t nBytes) {
    std::string sLarge;
    sLarge.reserve(nBytes);
    const auto nPage = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto nBegin = reinterpret_cast<std::uintptr_t>(sLarge.data());
    const std::uintptr_t nFirstPage = (nBegin + nPage - 1) / nPage * nPage;
    const std::uintptr_t nEndPage = (nBegin + nBytes) / nPage * nPage;
    char* const pFirstPage = sLarge.data() + (nFirstPage - nBegin);
    (void)madvise(pFirstPage, nEndPage - nFirstPage, MADV_HUGEPAGE);  // faster, if there are any
    sLarge.resize(nBytes);
    ASSERT_EQ(0, madvise(pFirstPage, nEndPage - nFirstPage, MADV_DONTNEED));
    ArchivePostThreader.queuePayload(std::move(sLarge));
}

TEST_F(ArchivePass, DropsWhatIsDueWhileMoreThanAGibibyteWaits) {
    holdWorker();
    for (int i = 0; i < 32; ++i) {
        queueWithoutMemory(std::size_t{1} << 25);
    }
    EXPECT_EQ(kMaxArchiveBacklogBytes, ArchivePostThreader.getPayloadQueueBytes());
    caption(7);
    lookAfter(15);
    EXPECT_EQ(33U, nQueued()) << "a gibibyte alone is not too much";
    caption(7);
    lookAfter(15);
    EXPECT_EQ(33U, nQueued());
    EXPECT_EQ(0U, nBuffered(7));
    EXPECT_EQ(1U, nLogged(kBacklogFull));
}

// What is wrong with posting.

class ArchiveStatus : public ArchivePass {
  protected:
    /// Opens the archive, posts a caption and waits for its outcome.
    static void postTo(const std::string& sURL, const std::string& sStatus) {
        sArchiveEndpoint = sURL;
        openArchive();
        postAnother();
        expectStatus(sStatus);
        loggedLines().clear();
    }
    static void postAnother() {
        caption(7);
        lookAfter(15);
    }
};

TEST_F(ArchiveStatus, AnIdlePosterIsNoIssue) {
    lookAfter(15);
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(ArchiveStatus, AServerThatCannotBeReachedIsReportedInEachPass) {
    const RefusingPort port;
    postTo(port.sURL(), "Can't connect to server");
    const std::string sWarning = "WARNING: Archive posting issue - Can't connect to server\n";
    lookAfter(14);
    EXPECT_THAT(loggedLines(), IsEmpty());
    lookAfter(1);
    EXPECT_THAT(loggedLines(), ElementsAre(sWarning));
    lookAfter(15);
    EXPECT_THAT(loggedLines(), ElementsAre(sWarning, sWarning));
}

TEST_F(ArchiveStatus, AnArchiveWithoutEndpointIsReported) {
    postTo("", "Can't resolve URL");
    lookAfter(15);
    EXPECT_THAT(loggedLines(), ElementsAre("WARNING: Archive posting issue - Can't resolve URL\n"));
}

TEST_F(ArchiveStatus, AnEndpointThatIsTooLongIsReported) {
    postTo("http://127.0.0.1/" + std::string(2000, 'x'), "Can't resolve URL");
    lookAfter(15);
    EXPECT_EQ(1U, nLogged("WARNING: Archive posting issue - Can't resolve URL\n"));
}

TEST_F(ArchiveStatus, AnAnswerOtherThan200IsReportedUntilOneIs200) {
    ArchiveEndpoint endpoint;
    sArchiveEndpoint = endpoint.sURL();
    openArchive();
    postAnother();
    (void)endpoint.nextRequest();
    endpoint.answer("500 No");
    expectStatus("HTTP 500");
    loggedLines().clear();
    postAnother();
    EXPECT_THAT(loggedLines(), ElementsAre("WARNING: Archive posting issue - HTTP 500\n"));
    (void)endpoint.sNextBody();
    expectStatus("HTTP OK");
    loggedLines().clear();
    lookAfter(15);
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(ArchiveStatus, ADisabledArchiveHasNoIssue) {
    postTo("", "Can't resolve URL");
    bArchiveEnable = false;
    lookAfter(15);
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(ArchiveStatus, ComesFirstThenTheBacklogThenTheFloods) {
    const RefusingPort port;
    postTo(port.sURL(), "Can't connect to server");  // and pauses, since the clock stands still
    queue(10000);
    caption(7, 40001);
    lookAfter(15);
    EXPECT_THAT(loggedLines(), ElementsAre(StartsWith("WARNING: Archive posting issue - "),
                                           kBacklogFull, StartsWith("WARNING: Archive: Attempt")));
}

// In how many passes.

TEST_F(ArchivePass, IsSpreadOverPassesOfTheLoop) {
    holdWorker();
    for (unsigned nID = 1; nID <= 5; ++nID) {
        caption(nID, 1000);
    }
    lookAfter(15);
    EXPECT_EQ(2U, nQueued());
    EXPECT_TRUE(bArchiveWaits());
    lookAfter(0);
    EXPECT_EQ(4U, nQueued());
    EXPECT_TRUE(bArchiveWaits());
    lookAfter(0);
    EXPECT_EQ(5U, nQueued());
    EXPECT_FALSE(bArchiveWaits());
    lookAfter(0);
    EXPECT_EQ(5U, nQueued());
}

TEST_F(ArchivePass, HandsOverOneSourceInAPassHoweverMuchItHas) {
    holdWorker();
    caption(1, 40000);
    caption(2, 2);
    lookAfter(15);
    EXPECT_EQ(1U, nQueued());
    EXPECT_TRUE(bArchiveWaits());
    lookAfter(0);
    EXPECT_EQ(2U, nQueued());
    EXPECT_FALSE(bArchiveWaits());
}

TEST_F(ArchivePass, SourcesWithoutManyCaptionsHaveALimitToo) {
    holdWorker();
    for (unsigned nID = 1; nID <= 3000; ++nID) {
        caption(nID);
    }
    lookAfter(15);
    EXPECT_EQ(1000U, nQueued());
    lookAfter(0);
    EXPECT_EQ(2000U, nQueued());
    lookAfter(0);
    EXPECT_EQ(3000U, nQueued());
    EXPECT_FALSE(bArchiveWaits());
}

TEST_F(ArchivePass, NothingIsLostOrDoubledWhenItIsSpread) {
    ArchiveEndpoint endpoint;
    sArchiveEndpoint = endpoint.sURL();
    openArchive();
    for (unsigned nID = 1; nID <= 5; ++nID) {
        caption(nID, 1000);
    }
    lookAfter(15);            // 1 and 2
    archiveCaption(1, "cd");  // waits for the next pass
    archiveCaption(5, "cd");  // goes with the others
    lookAfter(15);            // 3 and 4: the next pass waits until this one is over
    lookAfter(0);
    EXPECT_FALSE(bArchiveWaits());
    EXPECT_EQ(1U, nBuffered(1));
    lookAfter(15);
    for (const unsigned nID : {1U, 2U, 3U, 4U, 5U, 1U}) {
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
    lookAfter(0);
    EXPECT_EQ(4U, nQueued());
    EXPECT_FALSE(bArchiveWaits());
}

// What the poster is told.

class OpenArchive : public ArchivePass {
  protected:
    OpenArchive() { sArchiveEndpoint = endpoint.sURL(); }

    static std::string sPrintedWhenOpened() {
        testing::internal::CaptureStdout();
        openArchive();
        return testing::internal::GetCapturedStdout();
    }
    ArchiveEndpoint endpoint;
};

TEST_F(OpenArchive, TellsThePosterNothingWhileTheArchiveIsDisabled) {
    bArchiveEnable = false;
    sArchiveUsername = "user";
    EXPECT_EQ("", sPrintedWhenOpened());
    bArchiveEnable = true;
    caption(7);
    lookAfter(15);
    expectStatus("Can't resolve URL");
}

TEST_F(OpenArchive, WithoutOptionalSettingsThePosterKeepsItsOwn) {
    EXPECT_EQ("CURL base destination set to " + endpoint.sURL() + "\n", sPrintedWhenOpened());
    caption(7);
    lookAfter(15);
    const ArchiveRequest request = endpoint.nextRequest();
    EXPECT_THAT(request.sHead, StartsWith("POST /put?feed=1 HTTP/1.1\r\n"));
    EXPECT_THAT(request.sHead, HasSubstr("\r\nContent-type: text/json; charset=utf-8\r\n"));
    EXPECT_THAT(request.sHead, testing::Not(HasSubstr("Authorization")));
    EXPECT_THAT(request.sBody, HasSubstr(sFeed(7)));
}

TEST_F(OpenArchive, AUserNameTurnsDigestAuthenticationOn) {
    sArchiveUsername = "user";
    sArchivePassword = "secret";
    EXPECT_THAT(sPrintedWhenOpened(), HasSubstr("CURL digest auth set up for user:secret\n"));
    caption(7);
    lookAfter(15);
    EXPECT_EQ("", endpoint.nextRequest().sBody) << "the first asks for the challenge only";
    endpoint.answer("401 Who",
                    "WWW-Authenticate: Digest realm=\"r\", nonce=\"n\", qop=\"auth\"\r\n");
    const ArchiveRequest request = endpoint.nextRequest();
    EXPECT_THAT(request.sHead, HasSubstr("\r\nAuthorization: Digest username=\"user\""));
    EXPECT_THAT(request.sBody, HasSubstr(sFeed(7)));
}

TEST_F(OpenArchive, APasswordWithoutUserNameIsNotUsed) {
    sArchivePassword = "secret";
    EXPECT_THAT(sPrintedWhenOpened(), testing::Not(HasSubstr("digest")));
}

TEST_F(OpenArchive, MediaTypeAndSequenceNumbersAreAsConfigured) {
    sArchiveContentType = "application/json";
    bArchiveAppendSeq = true;
    openArchive();
    caption(7);
    caption(8);
    lookAfter(15);
    for (const int nSequence : {2, 3}) {
        const ArchiveRequest request = endpoint.nextRequest();
        EXPECT_THAT(request.sHead,
                    StartsWith(string_format("POST /put?feed=1&seq=%d HTTP/1.1\r\n", nSequence)));
        EXPECT_THAT(request.sHead,
                    HasSubstr("\r\nContent-type: application/json; charset=utf-8\r\n"));
        endpoint.answer("200 OK");
    }
    expectStatus("HTTP OK");
}

// Collecting.

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

}  // namespace
