#include "relayserver/audio/packet_counts.h"

#include "connserver/logging.h"
#include "genner/output/AudioConfirmNetMessage.h"
#include "relayserver/cslink/client_loss.h"

using Orvex::RelayClient;

unsigned nAudioPacketsRcvd = 0;

namespace {

constexpr unsigned kPacketsPerConfirm = 300;
constexpr unsigned kPacketsPerReport = 100000;

void confirm(RelayClient& client, unsigned nProgram) {
    Orvex::AudioConfirmNetMessage acnm(nProgram);
    if (acnm.Send(true, *client.GetMessageSocket()) <= 0) {
        CleanBadSocket(client.GetMessageSocket()->getMsgSockFileDesc(), LeaveReason::kSendFailed);
    }
}

}  // namespace

void countSourcedPacket(RelayClient& client, unsigned nProgram) {
    const auto nClientID = static_cast<unsigned>(client.GetClientID());
    ++nAudioPacketsRcvd;
    if (++client.nPacketsSourced[nProgram] >= kPacketsPerConfirm) {
        client.nPacketsSourced[nProgram] = 0;
        confirm(client, nProgram);
    }
    if (nAudioPacketsRcvd % kPacketsPerReport == 0) {
        writeToLog(true,
                   "%u audio packets received from local senders, this packet from client %u\n",
                   nAudioPacketsRcvd, nClientID);
    }
}
