#include "bench/load/connection.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <map>

namespace {

using Load::sClientAddress;

// The relay refuses the hundredth connection from one address in ten seconds.
TEST(ClientAddress, IsSharedByFewerThanAHundredConnections) {
    std::map<std::string, int> connections;
    for (int i = 0; i < 40'000; ++i) {
        ++connections[sClientAddress(200, i)];
    }
    for (const auto& [sAddress, nCount] : connections) {
        in_addr iaAddress{};
        EXPECT_EQ(inet_pton(AF_INET, sAddress.c_str(), &iaAddress), 1) << sAddress;
        EXPECT_EQ(sAddress.rfind("127.200.", 0), 0U) << sAddress;
        EXPECT_LT(nCount, 100) << sAddress;
    }
}

}  // namespace
