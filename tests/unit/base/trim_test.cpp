#include "base/trim.h"

#include <gtest/gtest.h>

namespace {

TEST(Trim, RemovesEveryListedCharacterFromBothEnds) {
    EXPECT_EQ("a b", trim(" \t a b \r\n", " \t\r\n"));
}

TEST(Trim, RemovesOnlyListedCharacters) {
    EXPECT_EQ("\ta", trim(" \ta ", " "));
}

TEST(Trim, MakesATextOfOnlyListedCharactersEmpty) {
    EXPECT_EQ("", trim(" \r ", " \r"));
    EXPECT_EQ("", trim("", " "));
}

TEST(Trim, LeavesTheTextAloneWithoutCharactersToRemove) {
    EXPECT_EQ(" a ", trim(" a ", ""));
}

}  // namespace
