#include "orvex/tls_errors.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

TEST(TlsErrors, AreAllForgotten) {
    ERR_raise(ERR_LIB_USER, 1);
    ERR_raise(ERR_LIB_USER, 2);
    Orvex::forgetTlsErrors();
    EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(TlsErrors, NeedNotBeThere) {
    Orvex::forgetTlsErrors();
    Orvex::forgetTlsErrors();
    EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(TlsErrors, OfOtherThreadsAreKept) {
    ERR_raise(ERR_LIB_USER, 1);
    std::thread([] { Orvex::forgetTlsErrors(); }).join();
    EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), 1);
}

}  // namespace
