#include "tests/unit/poster/poster_fixture.h"

namespace {

constexpr char kBadURL[] = "http://127.77.0.1:99999/";

class PosterDestination : public PosterFixture {
  protected:
    /// An address of the endpoint with exactly `nLength` characters.
    std::string sLongURL(std::size_t nLength) const {
        std::string sURL = endpoint_.sURL("/archive?fill=");
        return sURL.append(nLength - sURL.size(), 'x');
    }
    void expectNoDestination() {
        poster_.queuePayload("payload");
        EXPECT_TRUE(bHasPrinted("ERROR: error sending POST (code 3) for 7 bytes\n"));
        EXPECT_TRUE(bHasPrinted("URL was \nWon't retry\n"));
        EXPECT_EQ("Can't resolve URL", poster_.getLastStatusCode());
        EXPECT_EQ(0U, endpoint_.nRequests());
    }
};

TEST_F(PosterDestination, IsPrinted) {
    poster_.setDestination(endpoint_.sURL());
    EXPECT_EQ("CURL base destination set to " + endpoint_.sURL() + '\n', stdout_.sText());
}

TEST_F(PosterDestination, ChangesNothingWhenSetAgain) {
    poster_.setDestination(endpoint_.sURL());
    poster_.setDestination(endpoint_.sURL());
    EXPECT_EQ(1, nPrinted("CURL base destination set to"));
}

TEST_F(PosterDestination, MayBeChanged) {
    poster_.setDestination(endpoint_.sURL("/one"));
    poster_.queuePayload("payload");
    ASSERT_TRUE(bHasStatus("HTTP OK"));
    poster_._interruptWorkThread();
    poster_.setDestination(endpoint_.sURL("/two"));
    poster_.queuePayload("payload");
    ASSERT_TRUE(bHasRequests(2));
    EXPECT_EQ("/one", endpoint_.requests().at(0).sTarget);
    EXPECT_EQ("/two", endpoint_.requests().at(1).sTarget);
}

TEST_F(PosterDestination, MayBeHostPortAndPath) {
    poster_.setDestination(endpoint_.sHost(), endpoint_.nPort(), "put/captions");
    const std::string sForm =
        endpoint_.sHost() + ':' + std::to_string(endpoint_.nPort()) + "/put/captions";
    EXPECT_EQ(1, nPrinted("CURL base destination set to " + sForm + '\n'));
    poster_.queuePayload("payload");
    ASSERT_TRUE(bHasStatus("HTTP OK"));
    EXPECT_EQ("/put/captions", endpoint_.requests().at(0).sTarget);
}

TEST_F(PosterDestination, TakesAnAddressOf1023Characters) {
    poster_.setDestination(sLongURL(1023));
    poster_.queuePayload("payload");
    ASSERT_TRUE(bHasStatus("HTTP OK"));
    EXPECT_THAT(sLongURL(1023), testing::EndsWith(endpoint_.requests().at(0).sTarget));
}

TEST_F(PosterDestination, RejectsALongerAddress) {
    poster_.setDestination(sLongURL(1024));
    EXPECT_EQ("ERROR: archive URL of 1024 characters is too long, not used\n", stdout_.sText());
    expectNoDestination();
}

TEST_F(PosterDestination, RejectsALongerHostPortAndPath) {
    poster_.setDestination(endpoint_.sHost(), endpoint_.nPort(), std::string(2000, 'x'));
    EXPECT_EQ(1, nPrinted("is too long, not used\n"));
    expectNoDestination();
}

TEST_F(PosterDestination, IsGoneAfterARejectedOne) {
    poster_.setDestination(endpoint_.sURL());
    poster_.setDestination(sLongURL(1024));
    expectNoDestination();
}

TEST_F(PosterDestination, IsGoneAfterARejectedOneAlsoWithNumbers) {
    poster_.appendSeqToURI(true);
    poster_.setDestination(endpoint_.sURL());
    endpoint_.goAway();
    poster_.queuePayload("payload");
    EXPECT_TRUE(bIsRefused(1));
    poster_._interruptWorkThread();
    poster_.clearQueue();
    poster_.setDestination(sLongURL(1024));
    expectNoDestination();
}

TEST_F(PosterDestination, MayComeAfterARejectedOne) {
    poster_.setDestination(sLongURL(1024));
    poster_.setDestination(endpoint_.sURL());
    poster_.queuePayload("payload");
    EXPECT_TRUE(bHasStatus("HTTP OK"));
}

TEST_F(PosterDestination, IsMissingUntilSet) {
    expectNoDestination();
}

TEST_F(PosterDestination, IsMissingUntilSetAlsoWithNumbersAndCredentials) {
    poster_.appendSeqToURI(true);
    poster_.setDigestAuth("user", "password");
    expectNoDestination();
}

TEST_F(PosterDestination, IsMissingWhenEmpty) {
    poster_.setDestination("");
    expectNoDestination();
}

TEST_F(PosterDestination, IsMissingWhenMadeEmpty) {
    poster_.setDestination(endpoint_.sURL());
    poster_.setDestination("");
    expectNoDestination();
}

TEST_F(PosterDestination, DropsPayloadsForABadAddress) {
    poster_.setDestination(kBadURL);
    poster_.queuePayload("payload");
    EXPECT_TRUE(bHasPrinted("ERROR: error sending POST (code 3) for 7 bytes\nURL was " +
                            std::string(kBadURL) + "\nWon't retry\n"));
    EXPECT_EQ("Can't resolve URL", poster_.getLastStatusCode());
    EXPECT_EQ(0, nPrinted("Consecutive"));
}

TEST_F(PosterDestination, DropsPayloadsForAHostWithoutAddress) {
    // A label of more than 63 characters is not even looked up.
    const std::string sURL = "http://" + std::string(64, 'n') + ".invalid/archive";
    poster_.setDestination(sURL);
    poster_.queuePayload("payload");
    EXPECT_TRUE(bHasPrinted("ERROR: error sending POST (code 6) for 7 bytes\nURL was " + sURL +
                            "\nWon't retry\n"));
    EXPECT_EQ("Can't resolve URL", poster_.getLastStatusCode());
    EXPECT_EQ(0, nPrinted("Consecutive"));
}

TEST_F(PosterDestination, IsPrintedWithItsNumberWhenItIsBad) {
    poster_.setDestination(std::string(kBadURL) + "?a=b");
    poster_.appendSeqToURI(true);
    poster_.queuePayload("payload");
    EXPECT_TRUE(bHasPrinted("URL was " + std::string(kBadURL) + "?a=b&seq=2\nWon't retry\n"));
}

TEST_F(PosterDestination, DropsPayloadsForAnotherSchemeThanHttp) {
    poster_.setDestination("ftp://127.77.0.1/archive");
    poster_.queuePayload("payload");
    EXPECT_TRUE(bHasPrinted("ERROR: error sending POST (code 1) for 7 bytes\nWon't retry\n"));
    EXPECT_EQ("Send Error", poster_.getLastStatusCode());
    EXPECT_EQ(0, nPrinted("URL was"));
}

}  // namespace
