#include "orvex/relay_client.h"

#include <cstdio>
#include <cstring>

#include "base/clock.h"

namespace Orvex {

void RelayClient::SetMessageSocket(const RelayMessageSocket& socket) {
    msMessageSocket = socket;
    hook.keysChanged();
}

void RelayClient::SetClientID(int nID) {
    nClientID = nID;
    hook.keysChanged();
}

void RelayClient::StartRcvAudio(unsigned idx, const sockaddr_in& addr) {
    if (idx < kAudioPrograms) {
        siUdpRcvAddress[idx] = addr;
        bRcvAudio[idx] = true;
    }
}

void RelayClient::StartSrcAudio(unsigned idx, const sockaddr_in& addr) {
    if (idx < kAudioPrograms) {
        siUdpSrcAddress[idx] = addr;
        bSrcAudio[idx] = true;
    }
}

void RelayClient::StopRcvAudio(unsigned idx) {
    if (idx < kAudioPrograms) {
        bRcvAudio[idx] = false;
    }
}

void RelayClient::StopSrcAudio(unsigned idx) {
    if (idx < kAudioPrograms) {
        bSrcAudio[idx] = false;
    }
}

bool RelayClient::bIsRcvAudio(unsigned idx) const {
    return idx < kAudioPrograms && bRcvAudio[idx];
}

bool RelayClient::bIsSrcAudio(unsigned idx) const {
    return idx < kAudioPrograms && bSrcAudio[idx];
}

void RelayClient::GetAudioRcvAddress(unsigned idx, sockaddr_in& addr) const {
    if (idx < kAudioPrograms) {
        addr = siUdpRcvAddress[idx];
    }
}

void RelayClient::GetAudioSrcAddress(unsigned idx, sockaddr_in& addr) const {
    if (idx < kAudioPrograms) {
        addr = siUdpSrcAddress[idx];
    }
}

void RelayClient::SetTicket(const unsigned char* ticket, int len) {
    if (len < 0 || len > nMAX_TICKET_LEN) {
        std::printf("orvex 3539: improper ticket length of %d\n", len);
        nTicketLen = 0;
        return;
    }
    if (len > 0) {  // a ticket is cleared with a null pointer, which memcpy must not see
        std::memcpy(achTicket.data(), ticket, static_cast<std::size_t>(len));
    }
    nTicketLen = static_cast<unsigned>(len);
    ttTicketAge = nowSecs();
}

void RelayClient::GetTicket(unsigned char* out, int& len, long& age) const {
    std::memcpy(out, achTicket.data(), nTicketLen);
    len = static_cast<int>(nTicketLen);
    age = ttTicketAge;
}

}  // namespace Orvex
