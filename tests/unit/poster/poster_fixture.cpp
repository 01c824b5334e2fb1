#include "tests/unit/poster/poster_fixture.h"

#include <cstdlib>
#include <iostream>
#include <thread>

using std::chrono::milliseconds;
using std::chrono::steady_clock;

PosterFixture::PosterFixture() {
    setenv("no_proxy", "*", 1);  // whatever proxy the environment sets
    setClockForTest(kStart);
}

/// The worker ends first: it uses the clock and may wait for the endpoint.
PosterFixture::~PosterFixture() {
    poster_._interruptWorkThread();
    resetClockForTest();
    if (HasFailure()) {
        std::cerr << "Captured output:\n" << stdout_.sText();
    }
}

std::vector<std::string> PosterFixture::payloads(int nBegin, int nEnd) {
    std::vector<std::string> texts;
    for (int i = nBegin; i < nEnd; ++i) {
        texts.push_back('p' + std::to_string(i));
    }
    return texts;
}

void PosterFixture::queueAtOnce(const std::vector<std::string>& texts) {
    // A worker that has to wait for the first payload takes what is there and, interrupted, puts it
    // back.
    for (const std::string& sText : texts) {
        if (&sText != &texts.back()) {
            poster_.queuePayload(sText, 1);
        }
    }
    poster_._interruptWorkThread();
    advanceClockForTest(1);
    poster_.queuePayload(texts.back());
}

bool PosterFixture::bHasStatus(const std::string& sStatus) {
    return bEventually([&] { return poster_.getLastStatusCode() == sStatus; });
}

bool PosterFixture::bHasPrinted(const std::string& sText) const {
    return bEventually([&] { return nPrinted(sText) > 0; });
}

bool PosterFixture::bHasRequests(std::size_t nRequests) {
    return bEventually([&] { return endpoint_.nRequests() >= nRequests; });
}

bool PosterFixture::bIsRefused(int nWanted) {
    return bEventually([&] { return nRefusals() >= nWanted; }) && nRefusals() == nWanted;
}

bool PosterFixture::bIsRefusedAfterPauses(int nWanted) {
    for (int nNext = nRefusals(); nNext < nWanted; ++nNext) {
        if (!bHoldsAfterPauses([&] { return nRefusals() > nNext; })) {
            return false;
        }
    }
    return nRefusals() == nWanted;
}

/// A worker may have reported a failure without having read the clock for its pause yet: advancing
/// the clock then does not shorten the pause, and two more seconds are needed.
bool PosterFixture::bHoldsAfterPauses(const std::function<bool()>& condition) {
    const auto deadline = steady_clock::now() + std::chrono::seconds(10);
    while (steady_clock::now() < deadline) {
        advanceClockForTest(2);
        const auto nextPause = steady_clock::now() + std::chrono::seconds(3);
        while (steady_clock::now() < nextPause) {
            if (condition()) {
                return true;
            }
            std::this_thread::sleep_for(milliseconds(2));
        }
    }
    return false;
}

bool PosterFixture::bStays(const std::function<bool()>& condition) {
    const auto end = steady_clock::now() + kSeveralChecks;
    while (steady_clock::now() < end) {
        if (!condition()) {
            return false;
        }
        std::this_thread::sleep_for(milliseconds(5));
    }
    return true;
}
