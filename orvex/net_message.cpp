#include "orvex/net_message.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ostream>

#include "orvex/rsa_decrypter.h"
#include "orvex/rsa_encrypter.h"

unsigned nSenderID = 0;

void assignSenderID(unsigned nID) {
    nSenderID = nID;
}

namespace {

constexpr int kSenderOffset = 1;
constexpr int kDestOffset = 5;
constexpr int kDatagramSenderOffset = 12;
constexpr int kDatagramHeaderLen = 16;
// One cipher block of the largest key that the library works with, 16384 bits.
constexpr std::size_t kMaxCipherLen = 2048;

unsigned readId(const char* from) {
    unsigned nId;
    std::memcpy(&nId, from, sizeof nId);
    return nId;
}

void writeId(char* to, unsigned nId) {
    std::memcpy(to, &nId, sizeof nId);
}

bool bNeedsEscape(char ch) {
    return ch == Orvex::NetMessage::chESC || ch == Orvex::NetMessage::chDELIM || ch == '\0';
}

/// Truncates an escaped field to `nRoom` bytes without leaving half of an escape pair at its end.
void truncateField(std::string& srField, std::size_t nRoom) {
    srField.resize(nRoom);
    std::size_t nTrailing = 0;
    while (nTrailing < nRoom) {
        const char ch = srField[nRoom - 1 - nTrailing];
        if (ch != Orvex::NetMessage::chESC && ch != Orvex::NetMessage::chDELIM) {
            break;
        }
        ++nTrailing;
    }
    if (nTrailing % 2 == 1) {
        std::puts("(TRACE) in truncation, needed to tear off an extra unpaired esc char");
        srField.resize(nRoom - 1);
    }
}

void printHex(std::ostream& osrStream, unsigned char byte) {
    constexpr char kDigits[] = "0123456789abcdef";
    osrStream << '[' << kDigits[byte >> 4U] << kDigits[byte & 0x0FU] << ']';
}

/// The low seven bits as a character, ^A..^Z for control codes, hexadecimal for the other controls.
void printReadable(std::ostream& osrStream, unsigned char byte) {
    const int v = byte & 0x7F;
    if (v > 31) {
        osrStream << static_cast<char>(v);
    } else if (v >= 1 && v <= 26) {
        osrStream << '^' << static_cast<char>(v + 64);
    } else {
        printHex(osrStream, byte);
    }
}

}  // namespace

unsigned GetNetMessageSenderID(const char* chpInMsg, int nInMsgLen) {
    if (chpInMsg == nullptr || nInMsgLen < Orvex::NetMessage::nMSG_HDR_LEN) {
        return ~0U;
    }
    return readId(chpInMsg + kSenderOffset);
}

namespace Orvex {

// The array is initialised only as far as it is used: see its declaration.
NetMessage::NetMessage() {
    basePack(nullptr);
}

NetMessage::NetMessage(long type) : nmtNetMsgType(type), bInSync(true) {
    basePack(nullptr);
}

NetMessage::NetMessage(bool bCreate, long type, const char* buf, int len) : nmtNetMsgType(type) {
    if (bCreate) {
        basePack(nullptr);
    } else {
        assignImage(buf, len);
        bInSync = true;
    }
}

NetMessage::NetMessage(const char* buf, int len) : bInSync(true) {
    assignImage(buf, len);
}

NetMessage::NetMessage(const NetMessage& rOther) {
    copyFrom(rOther);
}

NetMessage& NetMessage::operator=(const NetMessage& rOther) {
    if (this != &rOther) {
        copyFrom(rOther);
    }
    return *this;
}

void NetMessage::copyFrom(const NetMessage& rOther) {
    nmtNetMsgType = rOther.nmtNetMsgType;
    nDestID = rOther.nDestID;
    nMsgLen = rOther.nMsgLen;
    bInSync = rOther.bInSync;
    bOversize = rOther.bOversize;
    std::memcpy(image(), rOther.image(), static_cast<std::size_t>(std::max(nMsgLen, nMSG_HDR_LEN)));
}

void NetMessage::assignImage(const char* buf, int len) {
    bOversize = buf != nullptr && len > nMAX_PADDED_MSG_LEN;
    nMsgLen = buf == nullptr ? 0 : std::clamp(len, 0, nMAX_PADDED_MSG_LEN);
    if (nMsgLen < nMSG_HDR_LEN) {
        std::memset(image(), 0, nMSG_HDR_LEN);
    }
    if (nMsgLen > 0) {
        std::memmove(image(), buf, static_cast<std::size_t>(nMsgLen));
    }
    baseUnpack();
}

void NetMessage::basePack(int* npMsgHdrLen) {
    nmtNetMsgType.ToChars(image(), nullptr);
    writeId(image() + kSenderOffset, nSenderID);
    writeId(image() + kDestOffset, nDestID);
    if (npMsgHdrLen != nullptr) {
        *npMsgHdrLen = nMSG_HDR_LEN;
    }
}

void NetMessage::baseUnpack() {
    nmtNetMsgType = GetNetMsgType();
    nDestID = GetDestID();
}

void NetMessage::GetNetMsgType(NetMessageType& nmtrOutType) const {
    nmtrOutType = GetNetMsgType();
}

NetMessageType NetMessage::GetNetMsgType() const {
    return {image(), nMsgLen};
}

void NetMessage::GetSenderID(unsigned& nrOutSenderID) const {
    nrOutSenderID = GetSenderID();
}

unsigned NetMessage::GetSenderID() const {
    return readId(image() + kSenderOffset);
}

void NetMessage::ChangeSenderID(unsigned nNewSenderID) {
    writeId(image() + kSenderOffset, nNewSenderID);
}

void NetMessage::GetDestID(unsigned& nrOutDestID) const {
    nrOutDestID = GetDestID();
}

unsigned NetMessage::GetDestID() const {
    return readId(image() + kDestOffset);
}

void NetMessage::SetDestID(unsigned nNewDestID) {
    nDestID = nNewDestID;
    writeId(image() + kDestOffset, nNewDestID);
}

int NetMessage::UpdateLength(int nPayloadLen) {
    constexpr int kMaxPaddedPayload = nMAX_PADDED_MSG_LEN - nMSG_HDR_LEN;
    bOversize = nPayloadLen > kMaxPaddedPayload;
    nMsgLen = std::clamp(nPayloadLen, 0, kMaxPaddedPayload) + nMSG_HDR_LEN;
    return nMsgLen;
}

void NetMessage::Pack(int* npMsgHdrLen) {
    doPack(npMsgHdrLen);
    MarkInSync();
}

void NetMessage::Unpack() {
    baseUnpack();
    doUnpack();
    MarkInSync();
}

void NetMessage::doPack(int* /*npMsgHdrLen*/) {}

void NetMessage::doUnpack() {}

bool NetMessage::bCreateFromNetMsg(const NetMessage& fromMsg) {
    if (!(nmtNetMsgType == -1) && !(fromMsg.GetNetMsgType() == nmtNetMsgType)) {
        return false;
    }
    const bool bFromOversize = fromMsg.bOversize;
    assignImage(fromMsg.image(), fromMsg.nMsgLen);
    bOversize = bFromOversize;
    Unpack();
    return true;
}

void NetMessage::SetField(std::string sInField, int& nrIndex, char* chpOutData) {
    if (nrIndex < 0) {
        return;
    }
    const std::size_t nUnescapedLen = sInField.size();
    AddEscapes(sInField);
    const int nRoom = static_cast<int>(nMAX_MSG_DATA_LEN) - 1 - nrIndex;
    if (nRoom < 0 || sInField.size() > static_cast<std::size_t>(nRoom)) {
        std::printf(
            "(TRACE) Data passed into a net message field with too much data to encode - %zu bytes "
            "with %d "
            "space (pre-escaped it was %zu bytes). Will try to truncate\n",
            sInField.size(), nRoom, nUnescapedLen);
        if (nRoom < 0) {
            return;
        }
        truncateField(sInField, static_cast<std::size_t>(nRoom));
    }
    sInField += chDELIM;
    std::memcpy(chpOutData + nrIndex, sInField.data(), sInField.size());
    nrIndex += static_cast<int>(sInField.size());
}

void NetMessage::GetField(const char* chpInData, int& nrLen, int& nrIndex,
                          std::string& srOutField) {
    bool bEscaped = false;
    int i = 0;
    for (; i < nrLen; ++i) {
        const char ch = chpInData[nrIndex + i];
        if (ch == chDELIM && !bEscaped) {
            break;
        }
        bEscaped = ch == chESC && !bEscaped;
    }
    if (i > 0) {
        const auto nFieldLen = std::min(static_cast<unsigned>(i), nMAX_MSG_DATA_LEN);
        srOutField.assign(chpInData + nrIndex, nFieldLen);
        DeleteEscapes(srOutField);
    } else {
        srOutField.clear();
    }
    // The delimiter is skipped even if it is missing, so that the remaining length becomes
    // negative.
    nrLen -= i + 1;
    nrIndex += i + 1;
}

void NetMessage::AddEscapes(std::string& srInString) {
    const auto nEscapes = std::count_if(srInString.begin(), srInString.end(), bNeedsEscape);
    if (nEscapes == 0) {
        return;
    }
    std::string sEscaped;
    sEscaped.reserve(srInString.size() + static_cast<std::size_t>(nEscapes));
    for (const char ch : srInString) {
        if (bNeedsEscape(ch)) {
            sEscaped += chESC;
        }
        sEscaped += ch;
    }
    srInString = std::move(sEscaped);
}

void NetMessage::DeleteEscapes(std::string& srInString) {
    std::size_t nKept = 0;
    for (std::size_t i = 0; i < srInString.size(); ++i) {
        if (srInString[i] == chESC && ++i == srInString.size()) {
            break;
        }
        srInString[nKept++] = srInString[i];
    }
    srInString.resize(nKept);
}

bool NetMessage::bFitsFrame() const {
    return !bOversize && (nMsgLen <= nMAX_MSG_LEN || image()[nMAX_MSG_LEN] == chDELIM);
}

int NetMessage::nBareLen() const {
    return bFitsFrame() ? std::min(nMsgLen, nMAX_MSG_LEN) : 0;
}

void NetMessage::ToChars(char* chpOutNetMsg, int* npOutNetMsgLen) const {
    if (chpOutNetMsg != nullptr) {
        std::memcpy(chpOutNetMsg, image(), static_cast<std::size_t>(nMsgLen));
    }
    if (npOutNetMsgLen != nullptr) {
        *npOutNetMsgLen = nMsgLen;
    }
}

std::string_view NetMessage::frame() {
    if (!isInSync()) {
        Pack(nullptr);
    }
    if (!bFitsFrame()) {
        return {};
    }
    if (nMsgLen % 2 == 0) {
        image()[nMsgLen++] = chDELIM;
    }
    achFrame[0] = static_cast<char>(static_cast<unsigned char>((nMsgLen + 1) / 2));
    return {achFrame.data(), static_cast<std::size_t>(nMsgLen) + 1};
}

std::string_view NetMessage::bareImage() {
    if (!isInSync()) {
        Pack(nullptr);
    }
    return {image(), static_cast<std::size_t>(nBareLen())};
}

void NetMessage::GetSendBuffer(bool bSendLen, std::string& out) {
    out += bSendLen ? frame() : bareImage();
}

int NetMessage::writeDatagram(unsigned nSender, char* chpOut) const {
    if (!bFitsFrame()) {
        return 0;
    }
    if (chpOut != nullptr) {
        std::memset(chpOut, 0, kDatagramSenderOffset);
        writeId(chpOut + kDatagramSenderOffset, nSender);
        std::memcpy(chpOut + kDatagramHeaderLen, image(), static_cast<std::size_t>(nBareLen()));
    }
    return kDatagramHeaderLen + nBareLen();
}

int NetMessage::GetUdpSendToBuffer(char* out, int* outlen) const {
    const bool bRoom = out != nullptr && *outlen >= static_cast<int>(nMAX_UDP_MSG_LEN);
    *outlen = bRoom ? writeDatagram(nSenderID, out) : 0;
    return *outlen;
}

void NetMessage::ToRTPFormatChars(char* chpOutNetMsg, int* npOutNetMsgLen) const {
    const int nLen = writeDatagram(GetSenderID(), chpOutNetMsg);
    if (npOutNetMsgLen != nullptr) {
        *npOutNetMsgLen = nLen;
    }
}

int NetMessage::SendTo(int nUdpSock, sockaddr_in sipTo) const {
    std::array<char, nMAX_UDP_MSG_LEN> achDatagram;
    int nLen = 0;
    ToRTPFormatChars(achDatagram.data(), &nLen);
    if (nLen == 0) {
        errno = EMSGSIZE;
        return -1;
    }
    return static_cast<int>(::sendto(nUdpSock, achDatagram.data(), static_cast<std::size_t>(nLen),
                                     0, reinterpret_cast<const sockaddr*>(&sipTo), sizeof sipTo));
}

void NetMessage::Print(std::ostream& osrStream, int nField, bool bHex) const {
    for (int i = 0; i < nMsgLen; ++i) {
        const auto byte = static_cast<unsigned char>(image()[i]);
        const bool bShown =
            nField == 0 || (nField == 1 && byte < 0x80) || (nField == 2 && byte >= 0x80);
        if (!bShown) {
            continue;
        }
        if (bHex) {
            printHex(osrStream, byte);
        } else {
            printReadable(osrStream, byte);
        }
    }
}

void NetMessage::replacePayload(const unsigned char* data, int nPayloadLen) {
    std::memcpy(payload(), data, static_cast<std::size_t>(nPayloadLen));
    (void)UpdateLength(nPayloadLen);
}

bool NetMessage::RSAEncrypt(RSAEncrypter* pEncrypter) {
    // A message not in sync would be packed when it is sent, which would restore the clear text.
    if (!isInSync()) {
        Pack(nullptr);
    }
    std::array<unsigned char, nMAX_MSG_DATA_LEN + 1> achPlain;
    std::array<unsigned char, kMaxCipherLen> achCipher;
    const int nPlainLen = std::max(nBareLen() - nMSG_HDR_LEN, 0);
    std::memcpy(achPlain.data(), payload(), static_cast<std::size_t>(nPlainLen));
    const int nResult =
        bFitsFrame() ? pEncrypter->encrypt(nPlainLen, achPlain.data(), achCipher.data()) : -1;
    if (nResult < 0 || nResult > static_cast<int>(nMAX_MSG_DATA_LEN)) {
        std::puts("RSA encryption failed");
        return false;
    }
    replacePayload(achCipher.data(), nResult);
    return true;
}

bool NetMessage::RSADecrypt(RSADecrypter* pDecrypter) {
    const int nCipherLen = nBareLen() - nMSG_HDR_LEN;
    if (nCipherLen <= 0) {
        return false;
    }
    std::array<unsigned char, kMaxCipherLen> achPlain;
    const auto* const cipher = reinterpret_cast<const unsigned char*>(payload());
    const int nResult = pDecrypter->decrypt(nCipherLen, cipher, achPlain.data());
    if (nResult < 0 || nResult > static_cast<int>(nMAX_MSG_DATA_LEN)) {
        std::puts("RSA decryption failed");
        return false;
    }
    replacePayload(achPlain.data(), nResult);
    Unpack();
    return true;
}

}  // namespace Orvex
