#include "relayserver/archive/archive_pass.h"

#include <string>

#include "tests/unit/relayserver/archive/archive_endpoint.h"
#include "tests/unit/relayserver/archive/archive_pass_fixture.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace {

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

}  // namespace
