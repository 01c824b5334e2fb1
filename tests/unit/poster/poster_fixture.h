/// A poster that posts to a scripted endpoint, with the clock stopped and standard output captured.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "base/clock.h"
#include "poster/Poster.h"
#include "tests/unit/connserver/stdout_capture.h"
#include "tests/unit/poster/scripted_endpoint.h"

class PosterFixture : public testing::Test {
  protected:
    static constexpr std::time_t kStart = 1'700'000'000;
    /// The worker checks the clock several times within this: what has not happened by then does
    /// not happen.
    static constexpr std::chrono::milliseconds kSeveralChecks{170};

    PosterFixture();
    ~PosterFixture() override;

    /// "p0", "p1", ... up to before `nEnd`.
    static std::vector<std::string> payloads(int nBegin, int nEnd);

    /// Queues payloads so that the worker finds all of them waiting at once. For that it is started
    /// and interrupted first.
    void queueAtOnce(const std::vector<std::string>& texts);

    /// How often `sText` has been printed.
    [[nodiscard]] int nPrinted(const std::string& sText) const {
        return nOccurrences(stdout_.sText(), sText);
    }
    /// The number of refused attempts.
    [[nodiscard]] int nRefusals() const { return nPrinted("error sending POST (code 7)"); }

    [[nodiscard]] bool bHasStatus(const std::string& sStatus);
    [[nodiscard]] bool bHasPrinted(const std::string& sText) const;
    [[nodiscard]] bool bHasRequests(std::size_t nRequests);

    /// Waits for the `nWanted`th refusal, which must come without a pause.
    [[nodiscard]] bool bIsRefused(int nWanted);
    /// Lets pauses pass until the `nWanted`th refusal; the worker must be pausing already.
    [[nodiscard]] bool bIsRefusedAfterPauses(int nWanted);
    /// Lets pauses pass until `condition` holds; the worker must be pausing already.
    [[nodiscard]] static bool bHoldsAfterPauses(const std::function<bool()>& condition);
    /// Whether `condition` stays true while the worker checks the clock several times.
    [[nodiscard]] static bool bStays(const std::function<bool()>& condition);

    StdoutCapture stdout_;
    ScriptedEndpoint endpoint_;
    CaptionPoster poster_;
};
