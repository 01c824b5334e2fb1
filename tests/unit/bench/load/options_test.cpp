#include "bench/load/options.h"

#include <gtest/gtest.h>

namespace {

using Load::bParseOptions;
using Load::Options;

TEST(ParseOptions, ReadsPairsAndListsOfReceivers) {
    const char* const arguments[] = {"relay_load", "--address", "127.0.0.1", "--port", "4000",
                                     "--fanout",   "1,8,64",    "--payload", "64"};
    Options options;
    ASSERT_TRUE(bParseOptions(9, arguments, options));
    EXPECT_EQ(options.nPort, 4000);
    EXPECT_EQ(options.fanouts, (std::vector<int>{1, 8, 64}));
    EXPECT_EQ(options.nPayload, 64U);
}

TEST(ParseOptions, RefusesWhatItDoesNotKnowOrCannotMeasure) {
    const char* const unknown[] = {"relay_load", "--colour", "red"};
    const char* const tooShort[] = {"relay_load", "--address", "127.0.0.1", "--port",
                                    "4000",       "--payload", "23"};
    const char* const noValue[] = {"relay_load", "--address"};
    Options options;
    EXPECT_FALSE(bParseOptions(3, unknown, options));
    EXPECT_FALSE(bParseOptions(7, tooShort, options));
    EXPECT_FALSE(bParseOptions(2, noValue, options));
}

}  // namespace
