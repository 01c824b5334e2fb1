/// The cost of finding the messages in the bytes of one large read.
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

void splitFrames(benchmark::State& rState) {
    const auto nCaptionBytes = static_cast<std::size_t>(rState.range(0));
    const std::string sBurst = Micro::sSampleBurst(nCaptionBytes, InputBuffer::kBlockSize);
    const std::size_t nFrames = sBurst.size() / Micro::sSampleFrame(nCaptionBytes).size();
    InputBuffer input;
    for (auto _ : rState) {
        fill(input, sBurst);
        std::size_t nSplit = 0;
        const Micro::Stopwatch stopwatch;
        while (const auto svImage = input.peekView()) {
            benchmark::DoNotOptimize(svImage->data());
            input.pop();
            ++nSplit;
        }
        stopwatch.stop(rState);
        if (nSplit != nFrames || input.size() != 0) {
            rState.SkipWithError("not every frame was found");
        }
    }
    rState.SetItemsProcessed(rState.iterations() * static_cast<std::int64_t>(nFrames));
}

BENCHMARK(splitFrames)->ArgName("bytes")->Arg(64)->Arg(200)->Arg(490)->UseManualTime();

}  // namespace
