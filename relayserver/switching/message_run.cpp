#include "relayserver/switching/message_run.h"

#include "genner/output/message_types.h"
#include "orvex/net_message.h"

using Orvex::NetMessage;

namespace {

int nPipeOf(std::string_view svImage) {
    return nPipeType(static_cast<unsigned char>(svImage.front()));
}

unsigned nSourceOf(std::string_view svImage) {
    return GetNetMessageSenderID(svImage.data(), static_cast<int>(svImage.size()));
}

/// The stream frame of an image: its length byte lies just before the image.
std::string_view svFrameOf(std::string_view svImage) {
    return {svImage.data() - 1, svImage.size() + 1};
}

}  // namespace

bool bTravelsInRuns(std::string_view svImage) {
    if (bIsOwnDecision(static_cast<unsigned char>(svImage.front()))) {
        return false;
    }
    // A longer image must be padded; without padding it is too large to forward.
    return svImage.size() <= NetMessage::nMAX_MSG_LEN || svImage.back() == NetMessage::chDELIM;
}

bool bAddToRun(MessageRun& rRun, std::string_view svImage) {
    const std::string_view svFrame = svFrameOf(svImage);
    if (rRun.bEmpty()) {
        rRun.svFrames = svFrame;
        rRun.nSource = nSourceOf(svImage);
        rRun.nPipe = nPipeOf(svImage);
    } else if (svFrame.data() == rRun.svFrames.data() + rRun.svFrames.size() &&
               rRun.nSource == nSourceOf(svImage) && rRun.nPipe == nPipeOf(svImage)) {
        rRun.svFrames = {rRun.svFrames.data(), rRun.svFrames.size() + svFrame.size()};
    } else {
        return false;
    }
    ++rRun.nCount;
    return true;
}
