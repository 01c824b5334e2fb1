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

/// Whether a UDP cell with this option is one.
bool bTakesForUdp(const char* sDaemon, const char* sName, const char* sValue) {
    const char* const arguments[] = {"relay_load", "--cell", "udp",  "--address",
                                     "127.0.0.1",  "--port", "4000", "--daemon",
                                     sDaemon,      sName,    sValue};
    Options options;
    return bParseOptions(11, arguments, options);
}

TEST(ParseOptions, KnowsTheLimitsOfUdp) {
    EXPECT_TRUE(bTakesForUdp("floor", "--payload", "40"));
    EXPECT_FALSE(bTakesForUdp("floor", "--payload", "39"));
    EXPECT_TRUE(bTakesForUdp("floor", "--sources", "6"));
    EXPECT_FALSE(bTakesForUdp("floor", "--sources", "7"));
    EXPECT_FALSE(bTakesForUdp("floor", "--fanout", "1,8"));
    EXPECT_FALSE(bTakesForUdp("relay", "--fec", "1"));
    EXPECT_TRUE(bTakesForUdp("relay", "--audio-port", "6900"));
}

}  // namespace
