#include "base/get_strerror.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

TEST(GetStrerror, DescribesTheError) {
    EXPECT_EQ("No such file or directory", get_strerror(ENOENT));
    EXPECT_EQ("Success", get_strerror(0));
}

TEST(GetStrerror, NamesAnUnknownErrorByItsNumber) {
    EXPECT_EQ("Unknown error 99999", get_strerror(99999));
}

}  // namespace
