#include "relayserver/archive/archive_pass.h"

#include <string>

#include "tests/unit/relayserver/archive/archive_endpoint.h"
#include "tests/unit/relayserver/archive/archive_pass_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

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

}  // namespace
