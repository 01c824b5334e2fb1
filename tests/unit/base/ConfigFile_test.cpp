#include "base/ConfigFile.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>

namespace {

class ConfigFileTest : public testing::Test {
  protected:
    ConfigFileTest() {
        sPath_ = testing::TempDir() + "config_" + std::to_string(getpid()) + ".conf";
    }
    ~ConfigFileTest() override { std::filesystem::remove(sPath_); }

    ConfigFile parsed(const std::string& sContent) {
        std::ofstream(sPath_, std::ios::binary) << sContent;
        return ConfigFile(sPath_);
    }

    std::string sPath_;
};

std::string sValue(const ConfigFile& config, const char* pszSection, const char* pszEntry) {
    const auto found = config.OptionalValue(pszSection, pszEntry);
    return found ? std::string(*found) : "(missing)";
}

TEST_F(ConfigFileTest, TrimsKeyAndValue) {
    const auto config = parsed("[Ports]\n  tcp = 9000  \n");
    EXPECT_EQ("9000", sValue(config, "Ports", "tcp"));
    EXPECT_EQ(9000.0, static_cast<double>(config.Value("Ports", "tcp")));
}

TEST_F(ConfigFileTest, TrimsTheSectionName) {
    EXPECT_EQ("1", sValue(parsed("[ Ports ]\na=1\n"), "Ports", "a"));
}

TEST_F(ConfigFileTest, EndsTheSectionNameAtTheFirstBracket) {
    EXPECT_EQ("1", sValue(parsed("[A]B]\na=1\n"), "A", "a"));
}

TEST_F(ConfigFileTest, TakesTheRestOfTheLineWithoutAClosingBracket) {
    EXPECT_EQ("1", sValue(parsed("[ A B \r\na=1\n"), "A B", "a"));
}

TEST_F(ConfigFileTest, AcceptsAnEmptySectionName) {
    EXPECT_EQ("1", sValue(parsed("[A]\n[]\na=1\n"), "", "a"));
    EXPECT_EQ("1", sValue(parsed("[A]\n[\na=1\n"), "", "a"));
}

TEST_F(ConfigFileTest, KeepsKeysBeforeTheFirstSectionUnderTheEmptyName) {
    EXPECT_EQ("x", sValue(parsed("name=x\n[A]\n"), "", "name"));
}

TEST_F(ConfigFileTest, SkipsCommentsOfBothKinds) {
    const auto config = parsed("[A]\n#x=1\n;y=2\n\nz=3\n");
    EXPECT_EQ("(missing)", sValue(config, "A", "x"));
    EXPECT_EQ("(missing)", sValue(config, "A", "#x"));
    EXPECT_EQ("(missing)", sValue(config, "A", ";y"));
    EXPECT_EQ("3", sValue(config, "A", "z"));
}

TEST_F(ConfigFileTest, TreatsAnIndentedCommentSignAsAKey) {
    EXPECT_EQ("1", sValue(parsed("[A]\n #x=1\n"), "A", "#x"));
}

TEST_F(ConfigFileTest, TreatsAnIndentedBracketAsASetting) {
    const auto config = parsed("[A]\n [B]\nx=1\n");
    EXPECT_EQ("1", sValue(config, "A", "x"));
    EXPECT_EQ("[B]", sValue(config, "A", "[B]"));
}

TEST_F(ConfigFileTest, StoresALineWithoutEqualsAsKeyAndValue) {
    EXPECT_EQ("flag", sValue(parsed("[A]\n flag \n"), "A", "flag"));
}

TEST_F(ConfigFileTest, SplitsAtTheFirstEquals) {
    EXPECT_EQ("b=c", sValue(parsed("[A]\na=b=c\n"), "A", "a"));
}

TEST_F(ConfigFileTest, AcceptsEmptyKeysAndValues) {
    const auto config = parsed("[A]\nempty=\n=nameless\n");
    EXPECT_EQ("", sValue(config, "A", "empty"));
    EXPECT_EQ("nameless", sValue(config, "A", ""));
}

TEST_F(ConfigFileTest, KeepsQuotesBlanksAndCommentSignsInsideAValue) {
    EXPECT_EQ("\"a  b\" # c ; d", sValue(parsed("[A]\nv = \"a  b\" # c ; d\n"), "A", "v"));
}

TEST_F(ConfigFileTest, KeepsTheLastOfRepeatedKeys) {
    EXPECT_EQ("2", sValue(parsed("[A]\nx=1\n[B]\n[A]\nx=2\n"), "A", "x"));
}

TEST_F(ConfigFileTest, DistinguishesUpperAndLowerCase) {
    const auto config = parsed("[A]\nx=1\n");
    EXPECT_EQ("(missing)", sValue(config, "a", "x"));
    EXPECT_EQ("(missing)", sValue(config, "A", "X"));
}

TEST_F(ConfigFileTest, ReadsFilesWithCarriageReturns) {
    EXPECT_EQ("yes", sValue(parsed("[A]\r\n\r\nv=yes\r\n"), "A", "v"));
}

TEST_F(ConfigFileTest, ReadsALastLineWithoutALineEnd) {
    EXPECT_EQ("1", sValue(parsed("[A]\nv=1"), "A", "v"));
}

TEST_F(ConfigFileTest, KeepsNamesAndValuesOfAnyLength) {
    const std::string sLong(100'000, 'x');
    const auto config = parsed("[" + sLong + "]\n" + sLong + "=" + sLong + "y\n");
    EXPECT_EQ(sLong + "y", std::string(config.Value(sLong, sLong)));
}

TEST_F(ConfigFileTest, IsEmptyWithoutAFile) {
    const ConfigFile config("/nonexistent/file.conf");
    EXPECT_FALSE(config.OptionalValue("A", "x").has_value());
    const ConfigFile directory(testing::TempDir());
    EXPECT_FALSE(directory.OptionalValue("A", "x").has_value());
}

TEST_F(ConfigFileTest, ThrowsAPlainTextForAMissingKey) {
    const auto config = parsed("[A]\nx=1\n");
    try {
        (void)config.Value("A", "y");
        FAIL() << "nothing was thrown";
    } catch (const char* pszWhat) {
        EXPECT_STREQ("does not exist", pszWhat);
    }
}

TEST_F(ConfigFileTest, KeepsANumberDefault) {
    auto config = parsed("");
    EXPECT_EQ("60", std::string(config.Value("A", "n", 60)));
    EXPECT_EQ("60", sValue(config, "A", "n"));
    EXPECT_EQ(60.0, static_cast<double>(config.Value("A", "n", 70)));
}

TEST_F(ConfigFileTest, KeepsATextDefault) {
    auto config = parsed("");
    EXPECT_EQ("here", std::string(config.Value("A", "t", "here")));
    EXPECT_EQ("here", std::string(config.Value("A", "t", "there")));
    EXPECT_EQ("here", sValue(config, "A", "t"));
}

TEST_F(ConfigFileTest, PrefersTheFileToADefault) {
    auto config = parsed("[A]\nn=5\nt=\n");
    EXPECT_EQ("5", std::string(config.Value("A", "n", 60)));
    EXPECT_EQ("", std::string(config.Value("A", "t", "here")));
}

}  // namespace
