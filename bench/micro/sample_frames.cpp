#include "bench/micro/sample_frames.h"

#include "genner/output/CaptionNetMessage.h"

namespace Micro {

std::string sSampleCaption(std::size_t nBytes) {
    std::string sCaption(nBytes, '\0');
    for (std::size_t i = 0; i < nBytes; ++i) {
        sCaption[i] = static_cast<char>('A' + i % 26);
    }
    return sCaption;
}

std::string sSampleFrame(std::size_t nCaptionBytes) {
    const std::string sCaption = sSampleCaption(nCaptionBytes);
    Orvex::CaptionNetMessage cnm(true, sCaption.data(), static_cast<int>(sCaption.size()));
    cnm.ChangeSenderID(kSampleSender);
    return std::string(cnm.frame());
}

std::string sSampleBurst(std::size_t nCaptionBytes, std::size_t nBytes) {
    const std::string sFrame = sSampleFrame(nCaptionBytes);
    std::string sBurst;
    while (sBurst.size() + sFrame.size() <= nBytes) {
        sBurst += sFrame;
    }
    return sBurst;
}

}  // namespace Micro
