#include "base/trim.h"

#include <gtest/gtest.h>

namespace {

TEST(Trim, CutsEveryListedCharacterOffBothEnds) {
    EXPECT_EQ("a b", trim(" \t a b \r\n", " \t\r\n"));
}

TEST(Trim, CutsOnlyListedCharacters) {
    EXPECT_EQ("\ta", trim(" \ta ", " "));
}

TEST(Trim, MakesATextOfOnlySuchCharactersEmpty) {
    EXPECT_EQ("", trim(" \r ", " \r"));
    EXPECT_EQ("", trim("", " "));
}

TEST(Trim, LeavesTheTextAloneWithoutCharactersToCut) {
    EXPECT_EQ(" a ", trim(" a ", ""));
}

}  // namespace
