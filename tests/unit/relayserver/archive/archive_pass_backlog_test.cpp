#include "relayserver/archive/archive_pass.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <utility>

#include "tests/unit/relayserver/archive/archive_pass_fixture.h"

using testing::ElementsAre;

namespace {

TEST_F(ArchivePass, DropsWhatIsDueWhileMoreThan9999PayloadsWait) {
    holdWorker();
    queue(10000);
    caption(7);
    lookAfter(15);
    EXPECT_EQ(10000U, nQueued());
    EXPECT_EQ(0U, nBuffered(7)) << "rendered and lost";
    EXPECT_THAT(
        loggedLines(),
        ElementsAre("Newly collecting caption feedback from source 7 for archive\n", kBacklogFull));
    lookAfter(15);
    EXPECT_EQ(2U, nLogged(kBacklogFull)) << "again in each pass";
}

TEST_F(ArchivePass, A9999thWaitingPayloadIsNotTooMany) {
    holdWorker();
    queue(9999);
    caption(7);
    lookAfter(15);
    EXPECT_EQ(10000U, nQueued());
    EXPECT_EQ(0U, nLogged(kBacklogFull));
}

TEST_F(ArchivePass, ABacklogThatFillsUpWithinAPassIsNotExceeded) {
    holdWorker();
    queue(9998);
    for (unsigned nID = 1; nID <= 5; ++nID) {
        caption(nID);
    }
    lookAfter(15);
    EXPECT_EQ(10000U, nQueued());
    EXPECT_EQ(0U, nBuffered(5));
}

TEST_F(ArchivePass, ABacklogThatEmptiesTakesPayloadsAgain) {
    holdWorker();
    queue(10000);
    lookAfter(15);
    ArchivePostThreader.clearQueue();
    caption(7);
    lookAfter(15);
    EXPECT_EQ(1U, nQueued());
    EXPECT_EQ(1U, nLogged(kBacklogFull));
}

/// A payload that counts as `nBytes`, but whose memory goes back to the system at once.
void queueWithoutMemory(std::size_t nBytes) {
    std::string sLarge;
    sLarge.reserve(nBytes);
    const auto nPage = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto nBegin = reinterpret_cast<std::uintptr_t>(sLarge.data());
    const std::uintptr_t nFirstPage = (nBegin + nPage - 1) / nPage * nPage;
    const std::uintptr_t nEndPage = (nBegin + nBytes) / nPage * nPage;
    char* const pFirstPage = sLarge.data() + (nFirstPage - nBegin);
    (void)madvise(pFirstPage, nEndPage - nFirstPage, MADV_HUGEPAGE);  // faster, if there are any
    sLarge.resize(nBytes);
    ASSERT_EQ(0, madvise(pFirstPage, nEndPage - nFirstPage, MADV_DONTNEED));
    ArchivePostThreader.queuePayload(std::move(sLarge));
}

TEST_F(ArchivePass, DropsWhatIsDueWhileMoreThanAGibibyteWaits) {
    holdWorker();
    for (int i = 0; i < 32; ++i) {
        queueWithoutMemory(std::size_t{1} << 25);
    }
    EXPECT_EQ(kMaxArchiveBacklogBytes, ArchivePostThreader.getPayloadQueueBytes());
    caption(7);
    lookAfter(15);
    EXPECT_EQ(33U, nQueued()) << "a gibibyte alone is not too much";
    caption(7);
    lookAfter(15);
    EXPECT_EQ(33U, nQueued());
    EXPECT_EQ(0U, nBuffered(7));
    EXPECT_EQ(1U, nLogged(kBacklogFull));
}

}  // namespace
