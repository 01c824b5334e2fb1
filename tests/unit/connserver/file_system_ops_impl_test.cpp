#include "connserver/file_system_ops_impl.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace {

class FileSystemOpsImplTest : public testing::Test {
  protected:
    FileSystemOpsImplTest() {
        char achDirectory[] = "/tmp/file_system_opsXXXXXX";
        sDirectory_ = mkdtemp(achDirectory);
        std::filesystem::current_path(sDirectory_);
    }
    ~FileSystemOpsImplTest() override {
        std::filesystem::current_path(before_);
        std::filesystem::remove_all(sDirectory_);
    }

    static unsigned nModeOf(const std::string& sPath) {
        struct stat status {};
        EXPECT_EQ(0, stat(sPath.c_str(), &status));
        return status.st_mode & 07777U;
    }
    static void makeFile(const std::string& sPath) {
        std::ofstream{sPath} << "x";
        EXPECT_EQ(0, chmod(sPath.c_str(), 0600));
    }

    std::filesystem::path before_ = std::filesystem::current_path();
    std::string sDirectory_;
    FileSystemOpsImpl ops_;
};

TEST_F(FileSystemOpsImplTest, ChangesTheModeOfMyfileAndThenOfTheFile) {
    makeFile("myfile");
    makeFile("other");
    EXPECT_EQ(0, ops_.changeFileMode(sDirectory_ + "/other", 0755));
    EXPECT_EQ(0755U, nModeOf("other"));
    EXPECT_EQ(0700U, nModeOf("myfile"));
}

TEST_F(FileSystemOpsImplTest, SetsTheRequestedModeOnMyfileItself) {
    makeFile("myfile");
    EXPECT_EQ(0, ops_.changeFileMode("./myfile", 0755));
    EXPECT_EQ(0755U, nModeOf("myfile"));
}

TEST_F(FileSystemOpsImplTest, DoesNotNeedMyfile) {
    makeFile("other");
    EXPECT_EQ(0, ops_.changeFileMode("other", 0640));
    EXPECT_EQ(0640U, nModeOf("other"));
}

TEST_F(FileSystemOpsImplTest, ReportsTheResultForTheFileAlone) {
    makeFile("myfile");
    EXPECT_EQ(-1, ops_.changeFileMode("missing", 0755));
}

TEST_F(FileSystemOpsImplTest, MovesByRenaming) {
    makeFile("from");
    EXPECT_EQ(0, ops_.moveFile("from", "to"));
    EXPECT_FALSE(std::filesystem::exists("from"));
    EXPECT_TRUE(std::filesystem::exists("to"));
    EXPECT_EQ(-1, ops_.moveFile("from", "to"));
}

TEST_F(FileSystemOpsImplTest, MakesATemporaryFileFromTheTemplate) {
    char achTemplate[] = "./csXXXXXX";
    const int fd = ops_.makeTempFile(achTemplate);
    ASSERT_LE(0, fd);
    EXPECT_STRNE("./csXXXXXX", achTemplate);
    EXPECT_TRUE(std::filesystem::exists(achTemplate));
    close(fd);
    char achMissing[] = "./missing/csXXXXXX";
    EXPECT_EQ(-1, ops_.makeTempFile(achMissing));
}

TEST_F(FileSystemOpsImplTest, IsNotForTesting) {
    EXPECT_FALSE(ops_.testingRedundancy());
}

}  // namespace
