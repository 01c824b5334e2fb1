#include "tests/unit/poster/http_text.h"
#include "tests/unit/poster/poster_fixture.h"

namespace {

constexpr char kUser[] = "relay";
constexpr char kPassword[] = "pass:word";
constexpr char kChallenge[] =
    "WWW-Authenticate: Digest realm=\"archive\", nonce=\"first\", qop=\"auth\", algorithm=MD5\r\n";
constexpr char kStaleChallenge[] =
    "WWW-Authenticate: Digest realm=\"archive\", nonce=\"second\", qop=\"auth\", algorithm=MD5, "
    "stale=true\r\n";

/// A server that knows one user.
HttpAnswer checked(const HttpRequest& request) {
    const std::string sAuthorization = request.sHeader("Authorization");
    const bool bRight = sAuthorization.rfind("Digest ", 0) == 0 &&
                        sParameter(sAuthorization, "username") == kUser &&
                        sParameter(sAuthorization, "uri") == request.sTarget &&
                        sParameter(sAuthorization, "response") ==
                            sDigestResponse(request, sAuthorization, kPassword);
    return bRight ? answerWith(200) : answerWith(401, "", kChallenge);
}

class PosterDigest : public PosterFixture {
  protected:
    PosterDigest() { endpoint_.answerBy(checked); }
};

TEST_F(PosterDigest, AnswersAChallenge) {
    poster_.setDestination(endpoint_.sURL("/archive?station=3"));
    poster_.setDigestAuth(kUser, kPassword);
    poster_.queuePayload("payload");
    ASSERT_TRUE(bHasStatus("HTTP OK"));
    const auto requests = endpoint_.requests();
    ASSERT_THAT(requests, testing::SizeIs(2));
    EXPECT_EQ(0, requests[0].nHeaders("Authorization"));
    EXPECT_EQ(1, requests[1].nHeaders("Authorization"));
    EXPECT_EQ("payload", requests[1].sBody);
    EXPECT_EQ("text/json; charset=utf-8", requests[1].sHeader("Content-type"));
}

TEST_F(PosterDigest, PrintsTheCredentials) {
    poster_.setDestination(endpoint_.sURL());
    poster_.setDigestAuth(kUser, kPassword);
    EXPECT_EQ(1, nPrinted("CURL digest auth set up for relay:pass:word\n"));
}

TEST_F(PosterDigest, MayBeSetUpBeforeTheDestination) {
    poster_.setDigestAuth(kUser, kPassword);
    EXPECT_EQ(1, nPrinted("CURL digest auth set up for relay:pass:word\n"));
    poster_.setDestination(endpoint_.sURL());
    poster_.queuePayload("payload");
    EXPECT_TRUE(bHasStatus("HTTP OK"));
}

TEST_F(PosterDigest, IsKeptWhenTheDestinationChanges) {
    poster_.setDestination(endpoint_.sURL("/first"));
    poster_.setDigestAuth(kUser, kPassword);
    poster_.setDestination(endpoint_.sURL("/second"));
    poster_.queuePayload("payload");
    EXPECT_TRUE(bHasStatus("HTTP OK"));
}

TEST_F(PosterDigest, IsChallengedOnceForManyPayloads) {
    poster_.setDestination(endpoint_.sURL());
    poster_.setDigestAuth(kUser, kPassword);
    queueAtOnce(payloads(0, 12));
    ASSERT_TRUE(bHasRequests(13));
    const auto bodies = endpoint_.bodies();
    EXPECT_THAT(std::vector<std::string>(bodies.begin() + 1, bodies.end()),
                testing::ElementsAreArray(payloads(0, 12)));
    EXPECT_TRUE(bHasStatus("HTTP OK"));
}

TEST_F(PosterDigest, CoversTheAddressWithTheSequenceNumber) {
    poster_.setDestination(endpoint_.sURL("/archive?station=3"));
    poster_.setDigestAuth(kUser, kPassword);
    poster_.appendSeqToURI(true);
    queueAtOnce(payloads(0, 2));
    ASSERT_TRUE(bHasRequests(3));
    EXPECT_TRUE(bHasStatus("HTTP OK"));
    const auto requests = endpoint_.requests();
    EXPECT_EQ("/archive?station=3&seq=2", requests[1].sTarget);
    EXPECT_EQ("/archive?station=3&seq=3", requests[2].sTarget);
}

TEST_F(PosterDigest, AnswersANewChallengeOnceTheOldOneHasExpired) {
    poster_.setDestination(endpoint_.sURL());
    poster_.setDigestAuth(kUser, kPassword);
    poster_.queuePayload("one");
    ASSERT_TRUE(bHasStatus("HTTP OK"));
    endpoint_.plan(answerWith(401, "", kStaleChallenge));
    poster_.queuePayload("two");
    ASSERT_TRUE(bHasRequests(4));
    const HttpRequest request = endpoint_.requests().at(3);
    EXPECT_EQ("two", request.sBody);
    EXPECT_EQ("second", sParameter(request.sHeader("Authorization"), "nonce"));
    EXPECT_EQ(0, nPrinted("Won't retry"));
}

TEST_F(PosterDigest, DropsPayloadsWithAWrongPassword) {
    poster_.setDestination(endpoint_.sURL());
    poster_.setDigestAuth(kUser, "wrong");
    poster_.queuePayload("payload");
    EXPECT_TRUE(bHasStatus("HTTP 401"));
    EXPECT_TRUE(bHasPrinted("Won't retry\n"));
    EXPECT_EQ(2U, endpoint_.nRequests());
    EXPECT_EQ(0, nPrinted("Consecutive"));
}

TEST_F(PosterDigest, DropsPayloadsOfAWrongUser) {
    poster_.setDestination(endpoint_.sURL());
    poster_.setDigestAuth("nobody", kPassword);
    poster_.queuePayload("payload");
    EXPECT_TRUE(bHasStatus("HTTP 401"));
}

TEST_F(PosterDigest, DropsPayloadsWithoutCredentials) {
    poster_.setDestination(endpoint_.sURL());
    poster_.queuePayload("payload");
    EXPECT_TRUE(bHasStatus("HTTP 401"));
    EXPECT_EQ(1U, endpoint_.nRequests());
}

TEST_F(PosterDigest, TakesCredentialsOf255Characters) {
    poster_.setDestination(endpoint_.sURL());
    poster_.setDigestAuth(std::string(127, 'u'), std::string(127, 'p'));
    EXPECT_EQ(1, nPrinted("CURL digest auth set up for " + std::string(127, 'u') + ':' +
                          std::string(127, 'p') + '\n'));
    poster_.queuePayload("payload");
    ASSERT_TRUE(bHasRequests(2));
    EXPECT_EQ(std::string(127, 'u'),
              sParameter(endpoint_.requests().at(1).sHeader("Authorization"), "username"));
}

TEST_F(PosterDigest, RejectsLongerCredentials) {
    poster_.setDestination(endpoint_.sURL());
    poster_.setDigestAuth(std::string(127, 'u'), std::string(128, 'p'));
    EXPECT_EQ(0, nPrinted("CURL digest auth set up for"));
    EXPECT_EQ(1, nPrinted("ERROR: archive user name and password are too long, not used\n"));
    poster_.queuePayload("payload");
    EXPECT_TRUE(bHasStatus("HTTP 401"));
    EXPECT_EQ(1U, endpoint_.nRequests());
}

}  // namespace
