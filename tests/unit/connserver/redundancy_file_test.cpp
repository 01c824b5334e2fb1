#include "connserver/redundancy_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <cstring>

#include "connserver/file_system_ops.h"
#include "connserver/logging.h"
#include "tests/unit/connserver/stdout_capture.h"

namespace {

using testing::_;
using testing::HasSubstr;
using testing::InSequence;
using testing::Invoke;
using testing::NiceMock;
using testing::Return;
using testing::StrictMock;

class MockOps : public FileSystemOps {
  public:
    MOCK_METHOD(int, changeFileMode, (const std::string&, unsigned), (override));
    MOCK_METHOD(int, moveFile, (const std::string&, const std::string&), (override));
    MOCK_METHOD(int, makeTempFile, (char*), (override));
    MOCK_METHOD(bool, testingRedundancy, (), (override));
};

class RedundancyFile : public testing::Test {
  protected:
    RedundancyFile() {
        EXPECT_EQ(0, pipe(nEnds_));
        // Ends simple logging, which an earlier test may have chosen, although the attempt fails.
        const StdoutCapture silence;
        (void)setupLogging(false, "/nonexistent/");
    }
    ~RedundancyFile() override {
        closeLog();
        close(nEnds_[0]);
    }

    /// Names the file as the real function does and lets it be written into the pipe.
    int makeNamed(char* pszTemplate) const {
        EXPECT_STREQ("/home/kov/dbserver/tmp/csXXXXXX", pszTemplate);
        std::memcpy(pszTemplate + 25, "abc123", 6);
        return nEnds_[1];
    }
    /// What was written; needs the writing end to be closed.
    std::string sWritten() const {
        char achBuffer[1000];
        const ssize_t nRead = read(nEnds_[0], achBuffer, sizeof achBuffer);
        return nRead > 0 ? std::string(achBuffer, static_cast<std::size_t>(nRead)) : "";
    }

    int nEnds_[2] = {-1, -1};
    StdoutCapture stdout_;
};

TEST_F(RedundancyFile, WritesATransactionAndMovesTheFile) {
    StrictMock<MockOps> ops;
    const InSequence inThisOrder;
    EXPECT_CALL(ops, makeTempFile(_)).WillOnce(Invoke([&](char* p) { return makeNamed(p); }));
    EXPECT_CALL(ops, changeFileMode("/home/kov/dbserver/tmp/csabc123", 0755));
    EXPECT_CALL(ops, moveFile("/home/kov/dbserver/tmp/csabc123",
                              "/home/kov/dbserver/readyForOutbound/csabc123"));
    redundantInfoToSend("INSERT 1", &ops);
    EXPECT_EQ("BEGIN;\nINSERT 1;\nCOMMIT;\n", sWritten());
    EXPECT_EQ(-1, close(nEnds_[1]));  // It was closed.
    EXPECT_EQ("", stdout_.sText());
}

TEST_F(RedundancyFile, ChangesModeAndMovesEvenWithoutAFile) {
    StrictMock<MockOps> ops;
    EXPECT_CALL(ops, makeTempFile(_)).WillOnce(Return(-1));
    EXPECT_CALL(ops, changeFileMode("/home/kov/dbserver/tmp/csXXXXXX", 0755));
    EXPECT_CALL(ops, moveFile("/home/kov/dbserver/tmp/csXXXXXX",
                              "/home/kov/dbserver/readyForOutbound/csXXXXXX"))
        .WillOnce(Return(-1));
    redundantInfoToSend("INSERT 1", &ops);
    EXPECT_THAT(stdout_.sText(), HasSubstr("not moved"));
    close(nEnds_[1]);
}

TEST_F(RedundancyFile, DoesNothingInSimpleLogging) {
    ASSERT_TRUE(setupLogging(true, ""));
    StrictMock<MockOps> ops;
    EXPECT_CALL(ops, testingRedundancy()).WillOnce(Return(false));
    redundantInfoToSend("INSERT 1", &ops);
    close(nEnds_[1]);
}

TEST_F(RedundancyFile, IsWrittenInSimpleLoggingForATest) {
    ASSERT_TRUE(setupLogging(true, ""));
    NiceMock<MockOps> ops;
    EXPECT_CALL(ops, testingRedundancy()).WillOnce(Return(true));
    EXPECT_CALL(ops, makeTempFile(_)).WillOnce(Invoke([&](char* p) { return makeNamed(p); }));
    redundantInfoToSend("X", &ops);
    EXPECT_EQ("BEGIN;\nX;\nCOMMIT;\n", sWritten());
}

TEST_F(RedundancyFile, ReportsAFailureToWrite) {
    NiceMock<MockOps> ops;
    // The reading end cannot be written to.
    EXPECT_CALL(ops, makeTempFile(_)).WillOnce(Return(dup(nEnds_[0])));
    EXPECT_CALL(ops, moveFile(_, _)).WillOnce(Return(0));
    redundantInfoToSend("X", &ops);
    EXPECT_THAT(stdout_.sText(), HasSubstr("redundancy file not written: Bad file descriptor"));
    close(nEnds_[1]);
}

TEST_F(RedundancyFile, DoesNotMoveAFileWithAnotherName) {
    NiceMock<MockOps> ops;
    EXPECT_CALL(ops, makeTempFile(_)).WillOnce(Invoke([](char* pszTemplate) {
        std::strcpy(pszTemplate, "/short");
        return -1;
    }));
    EXPECT_CALL(ops, moveFile(_, _)).Times(0);
    redundantInfoToSend("X", &ops);
    EXPECT_THAT(stdout_.sText(), HasSubstr("/short not moved"));
    close(nEnds_[1]);
}

TEST_F(RedundancyFile, ClosingWithoutAnOpenFileIsHarmless) {
    closeRedundancyInfoFile();
    NiceMock<MockOps> ops;
    EXPECT_CALL(ops, makeTempFile(_)).WillOnce(Return(-1));
    redundantInfoToSend("X", &ops);
    closeRedundancyInfoFile();
    closeRedundancyInfoFile();
    close(nEnds_[1]);
}

/// Ends the calling thread in the middle of its work. This runs the same clean-up as a
/// cancellation, but at a known place.
class EndingOps : public FileSystemOps {
  public:
    int makeTempFile(char*) override { pthread_exit(nullptr); }
};

TEST_F(RedundancyFile, IsFreeAgainAfterItsThreadWasEnded) {
    EndingOps ending;
    pthread_t ptt = 0;
    const auto body = [](void* pOps) -> void* {
        redundantInfoToSend("X", static_cast<EndingOps*>(pOps));
        return nullptr;
    };
    ASSERT_EQ(0, pthread_create(&ptt, nullptr, body, &ending));
    pthread_join(ptt, nullptr);
    NiceMock<MockOps> ops;
    EXPECT_CALL(ops, makeTempFile(_)).WillOnce(Invoke([&](char* p) { return makeNamed(p); }));
    redundantInfoToSend("X", &ops);  // Would block for ever.
    EXPECT_EQ("BEGIN;\nX;\nCOMMIT;\n", sWritten());
}

TEST(SemCleanupHandler, PostsTheSemaphore) {
    sem_t sem;
    sem_init(&sem, 0, 0);
    semCleanupHandler(&sem);
    EXPECT_EQ(0, sem_trywait(&sem));
    sem_destroy(&sem);
}

}  // namespace
