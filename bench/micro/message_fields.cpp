/// The cost of writing a message's fields into its frame, and of reading them from its image.
#include <benchmark/benchmark.h>

#include <array>

#include "bench/micro/sample_frames.h"
#include "genner/output/CaptionNetMessage.h"
#include "genner/output/RelayConnectNetMessage.h"

using Orvex::CaptionNetMessage;
using Orvex::RelayConnectNetMessage;

namespace {

/// As after encryption: some of the bytes need escapes.
constexpr std::array<unsigned char, 16> kTicket = {0x00, 0x17, 0x5C, 0x7E, 0x99, 0xA0, 0x31, 0xFF,
                                                   0x42, 0x00, 0x08, 0xC3, 0x7E, 0x6B, 0xD4, 0x25};

void packCaption(benchmark::State& rState) {
    const std::string sCaption = Micro::sSampleCaption(static_cast<std::size_t>(rState.range(0)));
    const std::size_t nFrameBytes = Micro::sSampleFrame(sCaption.size()).size();
    CaptionNetMessage cnm;
    for (auto _ : rState) {
        cnm.SetCaption(sCaption.data(), static_cast<int>(sCaption.size()));
        const std::string_view svFrame = cnm.frame();
        benchmark::DoNotOptimize(svFrame.data());
        if (svFrame.size() != nFrameBytes) {
            rState.SkipWithError("the frame has another length");
        }
    }
    rState.SetItemsProcessed(rState.iterations());
}

void unpackCaption(benchmark::State& rState) {
    const std::string sCaption = Micro::sSampleCaption(static_cast<std::size_t>(rState.range(0)));
    const std::string sImage = Micro::sSampleFrame(sCaption.size()).substr(1);
    for (auto _ : rState) {
        const CaptionNetMessage cnm(sImage.data(), static_cast<int>(sImage.size()));
        if (cnm.GetCaption() != sCaption) {
            rState.SkipWithError("the caption has changed");
        }
    }
    rState.SetItemsProcessed(rState.iterations());
}

void packTicket(benchmark::State& rState) {
    RelayConnectNetMessage rcnm;
    for (auto _ : rState) {
        rcnm.SetClientID(Micro::kSampleSender);
        rcnm.SetTicket(kTicket.data(), static_cast<int>(kTicket.size()));
        benchmark::DoNotOptimize(rcnm.frame().data());
    }
    rState.SetItemsProcessed(rState.iterations());
}

void unpackTicket(benchmark::State& rState) {
    RelayConnectNetMessage rcnmSent(Micro::kSampleSender, kTicket.data(),
                                    static_cast<int>(kTicket.size()));
    const std::string sImage(rcnmSent.frame().substr(1));
    for (auto _ : rState) {
        const RelayConnectNetMessage rcnm(sImage.data(), static_cast<int>(sImage.size()));
        if (rcnm.GetClientID() != Micro::kSampleSender ||
            rcnm.GetTicket().size() != kTicket.size()) {
            rState.SkipWithError("the fields have changed");
        }
    }
    rState.SetItemsProcessed(rState.iterations());
}

BENCHMARK(packCaption)->ArgName("bytes")->Arg(64)->Arg(200)->Arg(490);
BENCHMARK(unpackCaption)->ArgName("bytes")->Arg(64)->Arg(200)->Arg(490);
BENCHMARK(packTicket);
BENCHMARK(unpackTicket);

}  // namespace
