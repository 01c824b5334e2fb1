#include "bench/load/entrant.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>

#include "genner/output/ResponseNetMessage.h"

namespace {

using namespace Load;

constexpr std::string_view kLogIn = "the log-in";

/// An entrant at a daemon that a test plays.
class EntrantTest : public testing::Test {
  protected:
    EntrantTest() {
        const int fdListener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in siOwn{};
        siOwn.sin_family = AF_INET;
        siOwn.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t nLen = sizeof siOwn;
        bind(fdListener, reinterpret_cast<sockaddr*>(&siOwn), nLen);
        listen(fdListener, 1);
        getsockname(fdListener, reinterpret_cast<sockaddr*>(&siOwn), &nLen);
        Options options;
        options.sAddress = "127.0.0.1";
        options.nPort = ntohs(siOwn.sin_port);
        pEntrant = std::make_unique<Entrant>(Connection::begin(options, 0), std::string(kLogIn));
        fdDaemon = accept(fdListener, nullptr, nullptr);
        close(fdListener);
    }

    ~EntrantTest() override { close(fdDaemon); }

    void answer(std::string_view svBytes) {
        ASSERT_EQ(write(fdDaemon, svBytes.data(), svBytes.size()),
                  static_cast<ssize_t>(svBytes.size()));
    }

    static std::string sResponse(int nCode) {
        Orvex::ResponseNetMessage response(1000, Orvex::ReturnCode(nCode));
        std::string sFrame;
        response.GetSendBuffer(true, sFrame);
        return sFrame;
    }

    std::unique_ptr<Entrant> pEntrant;
    int fdDaemon = -1;
};

TEST_F(EntrantTest, PresentsItsTicketOnce) {
    EXPECT_FALSE(pEntrant->bStep());
    EXPECT_FALSE(pEntrant->bStep());
    char achInput[64];
    EXPECT_EQ(read(fdDaemon, achInput, sizeof achInput), static_cast<ssize_t>(kLogIn.size()));
    EXPECT_EQ(std::string_view(achInput, kLogIn.size()), kLogIn);
}

TEST_F(EntrantTest, IsAdmittedOnceByAnAnswerThatHasComeWhole) {
    EXPECT_FALSE(pEntrant->bStep());
    const std::string sAnswer = sResponse(0);
    answer(std::string_view(sAnswer).substr(0, 5));
    EXPECT_FALSE(pEntrant->bStep());
    answer(std::string_view(sAnswer).substr(5));
    EXPECT_TRUE(pEntrant->bStep());
    answer(sAnswer);
    EXPECT_FALSE(pEntrant->bStep());
}

TEST_F(EntrantTest, EndsTheProgramWhenItIsRefused) {
    answer(sResponse(2));
    EXPECT_EXIT(while (!pEntrant->bStep()){}, testing::ExitedWithCode(1), "was refused");
}

}  // namespace
