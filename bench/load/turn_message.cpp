#include "bench/load/turn_message.h"

#include <arpa/inet.h>

namespace Load {

namespace {

constexpr std::uint32_t kCookie = 0x2112A442;
constexpr std::uint16_t kAllocate = 0x0003;
constexpr std::uint16_t kChannelBind = 0x0009;
/// Bits that turn the type of a request into that of its answer.
constexpr std::uint16_t kSuccessBits = 0x0100;
constexpr std::uint16_t kErrorBits = 0x0110;

constexpr std::uint16_t kErrorCode = 0x0009;
constexpr std::uint16_t kChannelNumber = 0x000C;
constexpr std::uint16_t kXorPeerAddress = 0x0012;
constexpr std::uint16_t kRequestedTransport = 0x0019;

constexpr std::uint32_t kUdp = 17;
constexpr std::uint16_t kIpv4 = 1;

constexpr std::size_t kLengthAt = 2;
constexpr std::size_t kTransactionAt = 8;
constexpr std::size_t kTransactionLen = 12;
constexpr std::size_t kHeadLen = 20;
constexpr std::size_t kAttributeHeadLen = 4;

void append16(std::string& rsOut, unsigned nValue) {
    rsOut += static_cast<char>(nValue >> 8 & 0xFF);
    rsOut += static_cast<char>(nValue & 0xFF);
}

void append32(std::string& rsOut, std::uint32_t nValue) {
    append16(rsOut, nValue >> 16);
    append16(rsOut, nValue & 0xFFFF);
}

/// Two bytes, which must be present.
unsigned nRead16(std::string_view svIn, std::size_t nAt) {
    return static_cast<unsigned>(static_cast<unsigned char>(svIn[nAt])) << 8 |
           static_cast<unsigned char>(svIn[nAt + 1]);
}

void appendAttribute(std::string& rsOut, std::uint16_t nType, const std::string& sValue) {
    append16(rsOut, nType);
    append16(rsOut, static_cast<unsigned>(sValue.size()));
    rsOut += sValue;
}

std::string sMakeMessage(std::uint16_t nType, std::uint32_t nTransaction,
                         const std::string& sAttributes) {
    std::string sMessage;
    append16(sMessage, nType);
    append16(sMessage, static_cast<unsigned>(sAttributes.size()));
    append32(sMessage, kCookie);
    append32(sMessage, 0);
    append32(sMessage, 0);
    append32(sMessage, nTransaction);
    return sMessage + sAttributes;
}

std::size_t nPadded(std::size_t nLength) {
    return (nLength + 3) / 4 * 4;
}

}  // namespace

std::string sMakeAllocate(std::uint32_t nTransaction) {
    std::string sTransport;
    append32(sTransport, kUdp << 24);
    std::string sAttributes;
    appendAttribute(sAttributes, kRequestedTransport, sTransport);
    return sMakeMessage(kAllocate, nTransaction, sAttributes);
}

std::string sMakeChannelBind(std::uint32_t nTransaction, std::uint16_t nChannel,
                             const sockaddr_in& siPeer) {
    std::string sNumber;
    append16(sNumber, nChannel);
    append16(sNumber, 0);
    std::string sPeer;
    append16(sPeer, kIpv4);
    append16(sPeer, ntohs(siPeer.sin_port) ^ kCookie >> 16);
    append32(sPeer, ntohl(siPeer.sin_addr.s_addr) ^ kCookie);
    std::string sAttributes;
    appendAttribute(sAttributes, kChannelNumber, sNumber);
    appendAttribute(sAttributes, kXorPeerAddress, sPeer);
    return sMakeMessage(kChannelBind, nTransaction, sAttributes);
}

std::string sMakeChannelHead(std::uint16_t nChannel, std::size_t nLength) {
    std::string sHead;
    append16(sHead, nChannel);
    append16(sHead, static_cast<unsigned>(nLength));
    return sHead;
}

TurnAnswer judgeTurnAnswer(std::string_view svAnswer, std::string_view svRequest) {
    if (svAnswer.size() < kHeadLen || nRead16(svAnswer, kLengthAt) != svAnswer.size() - kHeadLen ||
        svAnswer.substr(kTransactionAt, kTransactionLen) !=
            svRequest.substr(kTransactionAt, kTransactionLen)) {
        return TurnAnswer::kOther;
    }
    const unsigned nRequested = nRead16(svRequest, 0);
    const unsigned nType = nRead16(svAnswer, 0);
    if (nType == (nRequested | kSuccessBits)) {
        return TurnAnswer::kSuccess;
    }
    return nType == (nRequested | kErrorBits) ? TurnAnswer::kError : TurnAnswer::kOther;
}

int nTurnErrorCode(std::string_view svAnswer) {
    std::size_t nAt = kHeadLen;
    while (nAt + kAttributeHeadLen <= svAnswer.size()) {
        const std::size_t nLength = nRead16(svAnswer, nAt + kLengthAt);
        const std::size_t nValueAt = nAt + kAttributeHeadLen;
        if (nRead16(svAnswer, nAt) == kErrorCode && nLength >= 4 &&
            nValueAt + 4 <= svAnswer.size()) {
            return (svAnswer[nValueAt + 2] & 7) * 100 + svAnswer[nValueAt + 3];
        }
        nAt = nValueAt + nPadded(nLength);
    }
    return 0;
}

}  // namespace Load
