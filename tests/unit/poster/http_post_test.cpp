#include "poster/http_post.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/thread/thread.hpp>

#include <chrono>
#include <cstdlib>
#include <string>

#include "tests/unit/connserver/stdout_capture.h"
#include "tests/unit/poster/scripted_endpoint.h"

namespace {

using std::chrono::steady_clock;
using testing::SizeIs;
using Then = HttpAnswer::Then;

class HttpPostTest : public testing::Test {
  protected:
    HttpPostTest() {
        setenv("no_proxy", "*", 1);  // whatever proxy the environment sets
        EXPECT_TRUE(post_.bOpen(endpoint_.sURL().c_str()));
    }

    PostResult perform(const std::string& sPayload) {
        return post_.perform(sPayload, "text/json", [this](const char* bytes, std::size_t nBytes) {
            sBody_.append(bytes, nBytes);
        });
    }

    ScriptedEndpoint endpoint_;
    HttpPost post_;
    std::string sBody_;
};

TEST_F(HttpPostTest, SendsAPostToThePathOfTheAddress) {
    ASSERT_TRUE(post_.bOpen(endpoint_.sURL("/put/captions?relay=3").c_str()));
    EXPECT_EQ(CURLE_OK, perform("payload").nCurlCode);
    const auto requests = endpoint_.requests();
    ASSERT_THAT(requests, SizeIs(1));
    EXPECT_EQ("POST", requests[0].sMethod);
    EXPECT_EQ("/put/captions?relay=3", requests[0].sTarget);
    EXPECT_EQ(endpoint_.sHost() + ':' + std::to_string(endpoint_.nPort()),
              requests[0].sHeader("Host"));
}

TEST_F(HttpPostTest, DeclaresTypeAndLengthOnce) {
    EXPECT_EQ(CURLE_OK, perform("payload").nCurlCode);
    const auto requests = endpoint_.requests();
    ASSERT_THAT(requests, SizeIs(1));
    EXPECT_THAT(requests[0].headers,
                testing::Contains(std::pair("Content-type", "text/json; charset=utf-8")));
    EXPECT_EQ(1, requests[0].nHeaders("Content-Type"));
    EXPECT_EQ(1, requests[0].nHeaders("Content-Length"));
    EXPECT_EQ("7", requests[0].sHeader("Content-Length"));
    EXPECT_EQ(0, requests[0].nHeaders("Transfer-Encoding"));
}

TEST_F(HttpPostTest, SendsLineEndsAsTheyAre) {
    const std::string sPayload = "{\"S1data\" : \"1700000000.123\t9420 942c\r\n\r\n\"}";
    EXPECT_EQ(CURLE_OK, perform(sPayload).nCurlCode);
    EXPECT_THAT(endpoint_.bodies(), testing::ElementsAre(sPayload));
}

TEST_F(HttpPostTest, SendsEveryByteValue) {
    std::string sPayload;
    for (int i = 0; i < 512; ++i) {
        sPayload += static_cast<char>(i & 0xFF);
    }
    EXPECT_EQ(CURLE_OK, perform(sPayload).nCurlCode);
    EXPECT_THAT(endpoint_.bodies(), testing::ElementsAre(sPayload));
    EXPECT_EQ("512", endpoint_.requests().at(0).sHeader("Content-Length"));
}

TEST_F(HttpPostTest, SendsAnEmptyPayload) {
    EXPECT_EQ(CURLE_OK, perform("").nCurlCode);
    EXPECT_THAT(endpoint_.bodies(), testing::ElementsAre(""));
    EXPECT_EQ("0", endpoint_.requests().at(0).sHeader("Content-Length"));
}

TEST_F(HttpPostTest, SendsMegabytes) {
    const std::string sPayload(3 << 20, 'x');
    EXPECT_EQ(CURLE_OK, perform(sPayload).nCurlCode);
    const auto bodies = endpoint_.bodies();
    ASSERT_THAT(bodies, SizeIs(1));
    EXPECT_TRUE(sPayload == bodies[0]);  // a difference would be printed
}

TEST_F(HttpPostTest, UsesOneConnectionForManyRequests) {
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(CURLE_OK, perform("payload").nCurlCode);
    }
    for (const HttpRequest& request : endpoint_.requests()) {
        EXPECT_EQ(1, request.nConnection);
    }
    EXPECT_EQ(5U, endpoint_.nRequests());
}

TEST_F(HttpPostTest, ConnectsAgainWhenTheServerHasClosed) {
    endpoint_.plan({answerWith(200).sAtOnce, "", Then::kClose});
    EXPECT_EQ(CURLE_OK, perform("one").nCurlCode);
    EXPECT_EQ(CURLE_OK, perform("two").nCurlCode);
    EXPECT_THAT(endpoint_.bodies(), testing::ElementsAre("one", "two"));
}

TEST_F(HttpPostTest, ReportsTheStatusOfTheAnswer) {
    for (const int nStatus : {200, 201, 204, 404, 500, 503}) {
        endpoint_.plan(answerWith(nStatus));
        const PostResult result = perform("payload");
        EXPECT_EQ(CURLE_OK, result.nCurlCode);
        EXPECT_EQ(nStatus, result.nHttpCode);
    }
}

TEST_F(HttpPostTest, DoesNotFollowARedirection) {
    endpoint_.plan(answerWith(301, "", "Location: " + endpoint_.sURL("/elsewhere") + "\r\n"));
    EXPECT_EQ(301, perform("payload").nHttpCode);
    EXPECT_EQ(1U, endpoint_.nRequests());
}

TEST_F(HttpPostTest, PassesOnTheBodyOfTheAnswer) {
    const std::string sAnswer = std::string(40'000, 'a') + std::string("\0end", 4);
    endpoint_.plan(answerWith(200, sAnswer));
    EXPECT_EQ(200, perform("payload").nHttpCode);
    EXPECT_EQ(sAnswer, sBody_);
}

TEST_F(HttpPostTest, ReportsARefusedConnection) {
    endpoint_.goAway();
    const PostResult result = perform("payload");
    EXPECT_EQ(CURLE_COULDNT_CONNECT, result.nCurlCode);
    EXPECT_EQ(0, result.nHttpCode);
}

TEST_F(HttpPostTest, ReportsAConnectionThatEndsWithoutAnswer) {
    endpoint_.plan(noAnswer(Then::kClose));
    EXPECT_EQ(CURLE_GOT_NOTHING, perform("payload").nCurlCode);
    endpoint_.plan(noAnswer(Then::kReset));
    EXPECT_EQ(CURLE_RECV_ERROR, perform("payload").nCurlCode);
}

TEST_F(HttpPostTest, ReportsAnAnswerThatEndsTooEarly) {
    endpoint_.plan({"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nshort", "", Then::kClose});
    EXPECT_EQ(CURLE_PARTIAL_FILE, perform("payload").nCurlCode);
}

TEST_F(HttpPostTest, HasNoAddressUntilOpened) {
    HttpPost post;
    EXPECT_FALSE(post.bIsOpen());
    const PostResult result = post.perform("payload", "text/json", [](const char*, std::size_t) {});
    EXPECT_EQ(CURLE_URL_MALFORMAT, result.nCurlCode);
    EXPECT_EQ(0, result.nHttpCode);
}

TEST_F(HttpPostTest, ReportsAnInvalidAddress) {
    for (const char* achURL : {"", "http://", "http://127.77.0.1:99999/", "http://[::1/"}) {
        ASSERT_TRUE(post_.bOpen(achURL));
        EXPECT_EQ(CURLE_URL_MALFORMAT, perform("payload").nCurlCode) << achURL;
    }
}

TEST_F(HttpPostTest, AcceptsNoSchemeButHttp) {
    for (const char* achURL : {"ftp://127.77.0.1/a", "file:///dev/null", "smtp://127.77.0.1/"}) {
        ASSERT_TRUE(post_.bOpen(achURL));
        EXPECT_EQ(CURLE_UNSUPPORTED_PROTOCOL, perform("payload").nCurlCode) << achURL;
    }
}

TEST_F(HttpPostTest, GoesToANewAddress) {
    EXPECT_EQ(200, perform("one").nHttpCode);
    post_.setURL(endpoint_.sURL("/two").c_str());
    EXPECT_EQ(200, perform("two").nHttpCode);
    const auto requests = endpoint_.requests();
    ASSERT_THAT(requests, SizeIs(2));
    EXPECT_EQ("/two", requests[1].sTarget);
    EXPECT_EQ(1, requests[1].nConnection);
}

TEST_F(HttpPostTest, AuthenticatesByDigest) {
    post_.setDigestAuth("user:secret");
    endpoint_.plan(answerWith(401, "", "WWW-Authenticate: Digest realm=\"r\", nonce=\"n\"\r\n"));
    EXPECT_EQ(200, perform("payload").nHttpCode);
    const auto requests = endpoint_.requests();
    ASSERT_THAT(requests, SizeIs(2));
    EXPECT_EQ("", requests[0].sHeader("Authorization"));
    EXPECT_THAT(requests[1].sHeader("Authorization"), testing::StartsWith("Digest "));
    EXPECT_EQ("payload", requests[1].sBody);
}

TEST_F(HttpPostTest, NeverSendsThePasswordItself) {
    post_.setDigestAuth("user:secret");
    endpoint_.plan(answerWith(401, "", "WWW-Authenticate: Basic realm=\"r\"\r\n"));
    EXPECT_EQ(401, perform("payload").nHttpCode);
    EXPECT_EQ(1U, endpoint_.nRequests());
}

TEST_F(HttpPostTest, OpensANewAddressWithoutAuthentication) {
    post_.setDigestAuth("user:secret");
    ASSERT_TRUE(post_.bOpen(endpoint_.sURL("/other").c_str()));
    endpoint_.plan(answerWith(401, "", "WWW-Authenticate: Digest realm=\"r\", nonce=\"n\"\r\n"));
    EXPECT_EQ(401, perform("payload").nHttpCode);
    EXPECT_EQ(1U, endpoint_.nRequests());
}

TEST_F(HttpPostTest, AbortsTheRequestWhenItsThreadIsInterrupted) {
    endpoint_.plan(heldBack(answerWith(200)));
    PostResult result;
    boost::thread thread([&] { result = perform("payload"); });
    EXPECT_TRUE(bEventually([&] { return endpoint_.nRequests() == 1; }));
    const auto tBefore = steady_clock::now();
    thread.interrupt();
    thread.join();
    EXPECT_LT(steady_clock::now() - tBefore, std::chrono::seconds(2));
    EXPECT_EQ(CURLE_ABORTED_BY_CALLBACK, result.nCurlCode);
}

}  // namespace
