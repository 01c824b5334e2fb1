/// What it takes to find the messages in what one large read brought.
#include <benchmark/benchmark.h>

#include <cstring>

#include "bench/micro/sample_frames.h"
#include "bench/micro/stopwatch.h"
#include "orvex/input_buffer.h"

using Orvex::InputBuffer;

namespace {

void fill(InputBuffer& rInput, const std::string& sBurst) {
    (void)rInput.nMakeRoom(InputBuffer::kBlockSize);
    std::memcpy(rInput.pTail(), sBurst.data(), sBurst.size());
    rInput.added(static_cast<int>(sBurst.size()));
}

void cutFrames(benchmark::State& rState) {
    const auto nCaptionBytes = static_cast<std::size_t>(rState.range(0));
    const std::string sBurst = Micro::sSampleBurst(nCaptionBytes, InputBuffer::kBlockSize);
    const std::size_t nFrames = sBurst.size() / Micro::sSampleFrame(nCaptionBytes).size();
    InputBuffer input;
    for (auto _ : rState) {
        fill(input, sBurst);
        std::size_t nCut = 0;
        const Micro::Stopwatch stopwatch;
        while (const auto svImage = input.peekView()) {
            benchmark::DoNotOptimize(svImage->data());
            input.pop();
            ++nCut;
        }
        stopwatch.stop(rState);
        if (nCut != nFrames || input.size() != 0) {
            rState.SkipWithError("not every frame was cut");
        }
    }
    rState.SetItemsProcessed(rState.iterations() * static_cast<std::int64_t>(nFrames));
}

BENCHMARK(cutFrames)->ArgName("bytes")->Arg(64)->Arg(200)->Arg(490)->UseManualTime();

}  // namespace
