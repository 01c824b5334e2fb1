/// The cost of determining that consecutive messages may be sent as one run.
#include <benchmark/benchmark.h>

#include <vector>

#include "bench/micro/sample_frames.h"
#include "relayserver/switching/message_run.h"

namespace {

constexpr std::size_t kBurstBytes = 65536;

std::vector<std::string_view> imagesIn(const std::string& sBurst, std::size_t nFrameBytes) {
    std::vector<std::string_view> images;
    for (std::size_t nAt = 0; nAt < sBurst.size(); nAt += nFrameBytes) {
        images.emplace_back(sBurst.data() + nAt + 1, nFrameBytes - 1);
    }
    return images;
}

void gatherRun(benchmark::State& rState) {
    const auto nCaptionBytes = static_cast<std::size_t>(rState.range(0));
    const std::string sBurst = Micro::sSampleBurst(nCaptionBytes, kBurstBytes);
    const auto images = imagesIn(sBurst, Micro::sSampleFrame(nCaptionBytes).size());
    for (auto _ : rState) {
        MessageRun run;
        bool bTogether = true;
        for (const std::string_view svImage : images) {
            bTogether = bTravelsInRuns(svImage) && bAddToRun(run, svImage) && bTogether;
        }
        if (!bTogether || run.svFrames.size() != sBurst.size()) {
            rState.SkipWithError("the messages do not form one run");
        }
    }
    rState.SetItemsProcessed(rState.iterations() * static_cast<std::int64_t>(images.size()));
}

BENCHMARK(gatherRun)->ArgName("bytes")->Arg(200);

}  // namespace
