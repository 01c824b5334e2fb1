#include "orvex/paging_interface.h"

#include <gtest/gtest.h>

#include <string>

namespace Orvex {
namespace {

TEST(PagingInterface, APageHolds471PlainBytes) {
    EXPECT_EQ(nBytesOfNextPage(std::string(471, 'x').data(), 471), 471U);
    EXPECT_EQ(nBytesOfNextPage(std::string(472, 'x').data(), 472), 471U);
    EXPECT_EQ(nBytesOfNextPage("", 0), 0U);
}

TEST(PagingInterface, APageHolds235BytesToBeEscaped) {
    for (const char ch : {'~', '\\', '\0'}) {
        EXPECT_EQ(nBytesOfNextPage(std::string(600, ch).data(), 600), 235U);
    }
}

TEST(PagingInterface, AnEscapePairIsNotCutAtTheEndOfAPage) {
    const std::string sFull(470, 'x');
    EXPECT_EQ(nBytesOfNextPage((sFull + "~").data(), 471), 470U);
    EXPECT_EQ(nBytesOfNextPage((sFull.substr(1) + "~").data(), 470), 470U);
    EXPECT_EQ(nBytesOfNextPage((sFull + "x~").data(), 472), 471U);
}

TEST(PagingInterface, PagesAreCountedFromTheStart) {
    EXPECT_EQ(nPagesNeeded("", 0), 0U);
    EXPECT_EQ(nPagesNeeded(std::string(471, 'x').data(), 471), 1U);
    EXPECT_EQ(nPagesNeeded(std::string(472, 'x').data(), 472), 2U);
    EXPECT_EQ(nPagesNeeded(std::string(471, '~').data(), 471), 3U);
}

}  // namespace
}  // namespace Orvex
