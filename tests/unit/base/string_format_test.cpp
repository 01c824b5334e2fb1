#include "base/string_format.h"

#include <gtest/gtest.h>

namespace {

TEST(StringFormat, FormatsAsPrintfDoes) {
    EXPECT_EQ("id 42 of abc, 1f", string_format("id %d of %s, %02x", 42, "abc", 31));
    EXPECT_EQ("", string_format("%s", ""));
}

TEST(StringFormat, KeepsTextsAroundTheBufferSizeComplete) {
    for (const std::size_t nLength : {1022U, 1023U, 1024U, 1025U}) {
        const std::string sText(nLength, 'x');
        EXPECT_EQ(sText, string_format("%s", sText.c_str())) << nLength;
    }
}

TEST(StringFormat, ReadsItsArgumentsAgainForALongText) {
    const std::string sText(100'000, 'y');
    EXPECT_EQ("1 " + sText + " 2", string_format("%d %s %d", 1, sText.c_str(), 2));
}

TEST(StringFormat, KeepsANulCharacterInsideTheText) {
    EXPECT_EQ(std::string("a\0b", 3), string_format("a%cb", 0));
}

TEST(StringFormat, IsEmptyWhenTheTextCannotBeFormatted) {
    const wchar_t awchBad[] = {static_cast<wchar_t>(0x7fffffff), 0};
    EXPECT_EQ("", string_format("%ls", awchBad));
}

}  // namespace
