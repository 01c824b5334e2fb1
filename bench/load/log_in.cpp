// Tickets are DES: the network requires it.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "bench/load/log_in.h"

#include <netinet/in.h>
#include <openssl/des.h>

#include <algorithm>
#include <ctime>

#include "genner/output/ResponseNetMessage.h"
#include "orvex/orvex.h"

namespace Load {

namespace {

constexpr std::size_t kBlockLen = 8;
constexpr std::size_t kTicketLen = 16;
constexpr Orvex::ReturnCode kOk{0};

}  // namespace

Orvex::RelayConnectNetMessage makeTicketMessage(unsigned nClientId, const ticket_key_t& achKey) {
    std::array<unsigned char, kTicketLen> achTicket{};
    const auto nLoopback = static_cast<std::int32_t>(htonl(INADDR_LOOPBACK));
    Orvex::KTicket(nClientId, nLoopback, std::time(nullptr)).SerializeToChars(achTicket, nullptr);
    DES_cblock dcbKey;
    std::copy(achKey.begin(), achKey.end(), dcbKey);
    DES_key_schedule schedule;
    DES_set_key_unchecked(&dcbKey, &schedule);
    for (std::size_t i = 0; i < kTicketLen; i += kBlockLen) {
        auto* const pBlock = reinterpret_cast<DES_cblock*>(achTicket.data() + i);
        DES_ecb_encrypt(pBlock, pBlock, &schedule, DES_ENCRYPT);
    }
    return {nClientId, achTicket.data(), static_cast<int>(kTicketLen)};
}

std::string makeLogInFrame(unsigned nClientId, const ticket_key_t& achKey) {
    Orvex::RelayConnectNetMessage message = makeTicketMessage(nClientId, achKey);
    message.ChangeSenderID(nClientId);
    std::string sFrame;
    message.GetSendBuffer(true, sFrame);
    return sFrame;
}

Answer judgeAnswer(std::string_view svInput) {
    if (svInput.empty() || svInput.size() < 2 * static_cast<unsigned char>(svInput[0])) {
        return Answer::kIncomplete;
    }
    const int nImageLen = 2 * static_cast<unsigned char>(svInput[0]) - 1;
    const Orvex::ResponseNetMessage response(svInput.data() + 1, nImageLen);
    const bool bAdmitted =
        response.GetNetMsgType() == Orvex::NetMessageType(Orvex::ResponseNetMessage::nTYPE) &&
        response.GetReturnCode() == kOk;
    return bAdmitted ? Answer::kAdmitted : Answer::kRefused;
}

}  // namespace Load
