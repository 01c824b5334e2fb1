#include "relayserver/clients/video_gate.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>

#include "connserver/logging.h"
#include "genner/output/VideoFeedbackNetMessage.h"
#include "relayserver/sockets/socket_options.h"

using Orvex::RelayClient;
using Tessel_Routing::PermissionsCache;

PermissionsCache& videoPermissions = *new PermissionsCache;

namespace {

constexpr int kVideoTxBufBytes = 2097152;

int nUnsentBytes(int fd) {
    int nUnsent = 0;
    return ioctl(fd, SIOCOUTQ, &nUnsent) == -1 ? 0 : nUnsent;
}

}  // namespace

bool bVideoPermitted(unsigned nSource, RelayClient& destination) {
    const int nFrom = static_cast<int>(nSource);
    const int nTo = destination.GetClientID();
    const int nCode = videoPermissions.getCode(nFrom, nTo);
    if ((nCode & PermissionsCache::kAskAgain) != 0) {
        videoPermissions.Grant(nFrom, nTo);
        bIncreaseSockTxBuf(destination.GetMessageSocket()->getMsgSockFileDesc(), kVideoTxBufBytes);
    }
    // The code from before the grant counts: the first message of a pair is dropped.
    return (nCode & PermissionsCache::kGranted) != 0;
}

bool bVideoPageFits(int nPage, RelayClient& destination) {
    if (nPage != 1) {
        return !destination.IsVideoThrottled();
    }
    const int fd = destination.GetMessageSocket()->getMsgSockFileDesc();
    if (nUnsentBytes(fd) <= kMaxVideoFullness) {
        destination.SetVideoThrottle(false);
        return true;
    }
    if (!destination.IsVideoThrottled()) {
        destination.SetVideoThrottle(true);
        writeToLog(true,
                   "INFO: throttling video frames to client %u due to its outstanding TCP buffer "
                   "size\n",
                   static_cast<unsigned>(destination.GetClientID()));
    }
    return false;
}

int nVideoPage(const Orvex::NetMessage& nmMessage) {
    char achMsg[Orvex::NetMessage::nMAX_PADDED_MSG_LEN];
    int nMsgLen = 0;
    nmMessage.ToChars(achMsg, &nMsgLen);
    return Orvex::VideoFeedbackNetMessage(achMsg, nMsgLen).GetPageNumber();
}
