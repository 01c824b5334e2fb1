#define OPENSSL_SUPPRESS_DEPRECATED
#include "tests/unit/relayserver/admission/ticket_maker.h"

#include <gsl/span>

#include "base/ip_utils.h"
#include "genner/output/RelayConnectNetMessage.h"
#include "orvex/orvex.h"
#include "relayserver/settings/session_keys.h"

std::string sEncryptedTicket(unsigned nClientID, std::time_t ttIssued,
                             const std::string& sAddress) {
    in_addr iaAddress{};
    if (!bParseIPv4(sAddress, iaAddress)) {
        return {};
    }
    unsigned char achTicket[16] = {};
    const Orvex::KTicket ktTicket(nClientID, static_cast<std::int32_t>(iaAddress.s_addr), ttIssued);
    ktTicket.SerializeToChars(gsl::span<unsigned char>(achTicket), nullptr);
    for (size_t nBlock = 0; nBlock < sizeof achTicket; nBlock += kDESKeyLen) {
        auto* const pdcbBlock = reinterpret_cast<DES_cblock*>(achTicket + nBlock);
        DES_ecb_encrypt(pdcbBlock, pdcbBlock, &dksDESKeySched, DES_ENCRYPT);
    }
    return {reinterpret_cast<const char*>(achTicket), sizeof achTicket};
}

std::string sLoginImage(unsigned nClaimedID, const std::string& sTicket) {
    Orvex::RelayConnectNetMessage rcnm(nClaimedID,
                                       reinterpret_cast<const unsigned char*>(sTicket.data()),
                                       static_cast<int>(sTicket.size()));
    return std::string(rcnm.frame().substr(1));
}
