#include "genner/output/LogOutNetMessage.h"

#include <gtest/gtest.h>

#include "tests/unit/orvex/image_bytes.h"

namespace Orvex {
namespace {

using namespace std::string_literals;

TEST(LogOutNetMessage, PacksNameAndOrganisation) {
    EXPECT_EQ(imageOf(LogOutNetMessage("me", "us")), "\x02\0\0\0\0\0\0\0\0me~us~"s);
}

TEST(LogOutNetMessage, ReadsNameAndOrganisation) {
    const auto message = received<LogOutNetMessage>("m\\~e~us~");
    EXPECT_EQ(message.GetName(), "m~e");
    EXPECT_EQ(message.GetOrg(), "us");
    std::string sOrg;
    message.GetOrg(sOrg);
    EXPECT_EQ(sOrg, "us");
}

}  // namespace
}  // namespace Orvex
