#include "base/printable_str.h"

#include <gtest/gtest.h>

namespace {

const char kLetterAndOne[] = {0x41, 0x01};

TEST(PrintableStr, WritesUnprintableBytesInBrackets) {
    EXPECT_EQ("A[1]", printableStr(kLetterAndOne, 2, asciiAndDecimal));
    EXPECT_EQ("A[01]", printableStr(kLetterAndOne, 2, asciiAndHex));
}

TEST(PrintableStr, WritesEveryByteAsANumberWhenAsked) {
    EXPECT_EQ("[41][01]", printableStr(kLetterAndOne, 2, allHex));
    EXPECT_EQ("[65][1]", printableStr(kLetterAndOne, 2, allDecimal));
}

TEST(PrintableStr, TreatsBytesAsUnsigned) {
    const char achHigh[] = {'\xff', '\x80', '\0', '\x7f'};
    EXPECT_EQ("[255][128][0][127]", printableStr(achHigh, 4, asciiAndDecimal));
    EXPECT_EQ("[ff][80][00][7f]", printableStr(achHigh, 4, allHex));
}

TEST(PrintableStr, KeepsBlanksAndTheBracketsOfTheTextItself) {
    EXPECT_EQ(" [~[10]", printableStr(" [~\n", 4, asciiAndDecimal));
}

TEST(PrintableStr, IsEmptyWithoutBytes) {
    EXPECT_EQ("", printableStr(nullptr, 5, allHex));
    EXPECT_EQ("", printableStr("abc", 0, asciiAndDecimal));
    EXPECT_EQ("", printableStr("abc", -1, asciiAndDecimal));
}

TEST(PrintableStr, NumbersItsFormatsAsAgreed) {
    EXPECT_EQ(0, static_cast<int>(allHex));
    EXPECT_EQ(1, static_cast<int>(allDecimal));
    EXPECT_EQ(2, static_cast<int>(asciiAndHex));
    EXPECT_EQ(3, static_cast<int>(asciiAndDecimal));
}

}  // namespace
