/// The cost of collecting captions for the archive, and of rendering them as the text that is
/// posted.
#include <benchmark/benchmark.h>

#include "base/clock.h"
#include "bench/micro/sample_frames.h"
#include "bench/micro/stopwatch.h"
#include "relayserver/archive/SccPChunker.h"

namespace {

constexpr std::time_t kFirstCaption = 1700000001;
/// About one line of text.
constexpr std::size_t kCaptionBytes = 32;

/// Captions a third of a second apart: of those in the same microsecond only one is kept.
void collect(SccPChunker& rChunker, int nCaptions) {
    const std::string sCaption = Micro::sSampleCaption(kCaptionBytes);
    setClockForTest(kFirstCaption);
    for (int i = 0; i < nCaptions; ++i) {
        rChunker.add(sCaption);
        advanceClockForTest(std::chrono::milliseconds(333));
    }
    resetClockForTest();
}

void collectCaptions(benchmark::State& rState) {
    const auto nCaptions = static_cast<int>(rState.range(0));
    SccPChunker chunker(Micro::kSampleSender);
    for (auto _ : rState) {
        const Micro::Stopwatch stopwatch;
        collect(chunker, nCaptions);
        stopwatch.stop(rState);
        if (chunker.getBufferedSize() != static_cast<std::size_t>(nCaptions)) {
            rState.SkipWithError("not every caption was kept");
        }
        chunker.clear();
    }
    rState.SetItemsProcessed(rState.iterations() * nCaptions);
}

void renderChunk(benchmark::State& rState) {
    const auto nCaptions = static_cast<int>(rState.range(0));
    SccPChunker chunker(Micro::kSampleSender);
    std::size_t nRendered = 0;
    for (auto _ : rState) {
        collect(chunker, nCaptions);
        const Micro::Stopwatch stopwatch;
        const std::string sText = chunker.getChunkPayloadJson();
        stopwatch.stop(rState);
        nRendered += sText.size();
        if (sText.size() < kCaptionBytes * static_cast<std::size_t>(nCaptions)) {
            rState.SkipWithError("captions are missing in the text");
        }
    }
    rState.SetItemsProcessed(rState.iterations() * nCaptions);
    rState.SetBytesProcessed(static_cast<std::int64_t>(nRendered));
}

BENCHMARK(collectCaptions)->ArgName("captions")->Arg(1000)->UseManualTime();
BENCHMARK(renderChunk)->ArgName("captions")->Arg(10)->Arg(1000)->UseManualTime();

}  // namespace
