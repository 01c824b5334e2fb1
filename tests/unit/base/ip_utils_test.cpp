#include "base/ip_utils.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

namespace {

TEST(IpUtils, ShowsAnAddressInDottedForm) {
    in_addr address{};
    address.s_addr = htonl(0x0a0102ff);
    EXPECT_EQ("10.1.2.255", sDottedAddress(address));
    address.s_addr = 0xffffffff;
    EXPECT_EQ("255.255.255.255", sDottedAddress(address));
}

TEST(IpUtils, ShowsAddressAndPortOfASocketAddress) {
    sockaddr_in siAddress{};
    siAddress.sin_family = AF_INET;
    siAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    siAddress.sin_port = htons(65535);
    EXPECT_EQ("127.0.0.1", sDottedAddress(siAddress));
    EXPECT_EQ(65535, nPortOf(siAddress));
    siAddress.sin_port = htons(9736);
    EXPECT_EQ(9736, nPortOf(siAddress));
}

TEST(IpUtils, ReadsADottedQuad) {
    in_addr address{};
    ASSERT_TRUE(bParseIPv4("192.168.0.254", address));
    EXPECT_EQ(htonl(0xc0a800feU), address.s_addr);
}

TEST(IpUtils, RejectsEverythingElse) {
    in_addr address{};
    address.s_addr = 42;
    const std::string sHidden("1.2.3.4\0x", 9);
    for (const std::string& sText :
         {std::string(), std::string("1.2.3"), std::string("1.2.3.4.5"), std::string("1.2.3.256"),
          std::string("01.2.3.4"), std::string(" 1.2.3.4"), std::string("1.2.3.4 "),
          std::string("0x1.2.3.4"), std::string("localhost"), std::string("::1"), sHidden}) {
        EXPECT_FALSE(bParseIPv4(sText, address)) << '"' << sText << '"';
        EXPECT_EQ(42U, address.s_addr);
    }
}

}  // namespace
