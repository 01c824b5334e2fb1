#include "connserver/file_system_ops.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace {

TEST(FileSystemOps, SucceedsWithoutDoingAnything) {
    FileSystemOps ops;
    char achTemplate[] = "XXXXXX";
    EXPECT_EQ(0, ops.changeFileMode("a", 0));
    EXPECT_EQ(0, ops.moveFile("a", "b"));
    EXPECT_EQ(0, ops.makeTempFile(achTemplate));
    EXPECT_STREQ("XXXXXX", achTemplate);
    EXPECT_FALSE(ops.testingRedundancy());
}

TEST(FileSystemOps, LeavesFilesAlone) {
    char achPath[] = "/tmp/file_system_opsXXXXXX";
    const int fd = mkstemp(achPath);
    ASSERT_LE(0, fd);
    FileSystemOps ops;
    EXPECT_EQ(0, ops.changeFileMode(achPath, 0777));
    EXPECT_EQ(0, ops.moveFile(achPath, std::string(achPath) + "2"));
    struct stat status {};
    EXPECT_EQ(0, stat(achPath, &status));
    EXPECT_EQ(0600U, status.st_mode & 07777U);
    close(fd);
    std::filesystem::remove(achPath);
}

/// Replaces one operation, as the tests of the redundancy writer do.
class OwnMove : public FileSystemOps {
  public:
    int moveFile(const std::string&, const std::string&) override { return -7; }
};

TEST(FileSystemOps, CanBeReplacedOneByOne) {
    OwnMove own;
    FileSystemOps& rOps = own;
    EXPECT_EQ(-7, rOps.moveFile("a", "b"));
    EXPECT_EQ(0, rOps.changeFileMode("a", 0));
}

}  // namespace
