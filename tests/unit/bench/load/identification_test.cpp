#include "bench/load/identification.h"

#include <gtest/gtest.h>

namespace {

using Load::Identification;

TEST(Identification, IsCompleteWhenEachClientWasNamed) {
    Identification identification({7, 8, 9});
    identification.note(std::vector<unsigned>{9, 7});
    EXPECT_EQ(identification.nNamed(), 2);
    EXPECT_EQ(identification.nMissing(), 1);
    identification.note(std::vector<unsigned>{8});
    EXPECT_EQ(identification.nMissing(), 0);
    EXPECT_EQ(identification.nWrong(), 0);
}

TEST(Identification, FindsStrangersAndThoseNamedTwice) {
    Identification identification({7, 8});
    identification.note(std::vector<unsigned>{7, 7, 5});
    EXPECT_EQ(identification.nNamed(), 1);
    EXPECT_EQ(identification.nMissing(), 1);
    EXPECT_EQ(identification.nWrong(), 2);
}

}  // namespace
