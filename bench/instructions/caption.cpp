#include "bench/instructions/caption.h"

#include <sys/socket.h>

#include <algorithm>

#include "bench/instructions/engine_harness.h"
#include "bench/instructions/give_up.h"
#include "genner/output/CaptionNetMessage.h"
#include "genner/output/message_types.h"

using Orvex::CaptionNetMessage;

namespace {

constexpr int kSourceID = 1001;
constexpr int kFirstReceiverID = 2001;
constexpr std::size_t kCaptionBytes = 200;

std::string sMakeFrame() {
    const std::string sText(kCaptionBytes, 'c');
    CaptionNetMessage cnm(true, sText.data(), static_cast<int>(sText.size()));
    cnm.ChangeSenderID(kSourceID);
    return std::string(cnm.frame());
}

std::string sRepeated(const std::string& sPart, int nTimes) {
    std::string sAll;
    for (int i = 0; i < nTimes; ++i) {
        sAll += sPart;
    }
    return sAll;
}

}  // namespace

Caption::Caption(int nReceivers) : sFrame(sMakeFrame()), fdSource(fdAdmitClient(kSourceID)) {
    for (int i = 0; i < nReceivers; ++i) {
        receivers.push_back(fdAdmitClient(kFirstReceiverID + i));
    }
    addRoute(kSourceID, nPipeType(CaptionNetMessage::nTYPE), kFirstReceiverID,
             static_cast<unsigned>(nReceivers));
}

void Caption::send(int nMessages) {
    const std::string sBurst = sRepeated(sFrame, nMessages);
    require(
        ::send(fdSource, sBurst.data(), sBurst.size(), 0) == static_cast<ssize_t>(sBurst.size()),
        "sending captions");
}

bool Caption::bAllReceived(int nMessages) {
    const std::string sBurst = sRepeated(sFrame, nMessages);
    return std::all_of(receivers.begin(), receivers.end(),
                       [&](int fd) { return bReceives(fd, sBurst); });
}
