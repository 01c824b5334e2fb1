#include "orvex/message_codes.h"

namespace Orvex {

namespace {

constexpr long kUnknown = -1;
constexpr std::string_view kUnknownText = "INVALID";
constexpr unsigned char kUnsetTypeByte = 255;

long lValueOf(std::span<const code_text_t> codes, std::string_view sText) {
    for (const code_text_t& rCode : codes) {
        if (rCode.sText == sText) {
            return rCode.lValue;
        }
    }
    return kUnknown;
}

std::string_view sTextOf(std::span<const code_text_t> codes, long lValue) {
    for (const code_text_t& rCode : codes) {
        if (rCode.lValue == lValue) {
            return rCode.sText;
        }
    }
    return kUnknownText;
}

}  // namespace

NetMessageType::NetMessageType(const char* buf, int /*len*/) {
    const auto byte = static_cast<unsigned char>(buf[0]);
    lValue = byte == kUnsetTypeByte ? kUnknown : byte;
}

void NetMessageType::ToChars(char* chpOutNetMsgType, int* npOutNetMsgTypeLen) const {
    if (chpOutNetMsgType != nullptr) {
        *chpOutNetMsgType = static_cast<char>(static_cast<unsigned char>(lValue & 0xFF));
    }
    if (npOutNetMsgTypeLen != nullptr) {
        *npOutNetMsgTypeLen = 1;
    }
}

ReturnCode::ReturnCode(const std::string& sText) : lValue(lValueOf(kReturnCodes, sText)) {}

void ReturnCode::ToString(std::string& srOutText) const {
    srOutText = ToString();
}

std::string_view ReturnCode::ToString() const {
    return sTextOf(kReturnCodes, lValue);
}

RequestCode::RequestCode(const std::string& sText) : lValue(lValueOf(kRequestCodes, sText)) {}

void RequestCode::ToString(std::string& srOutText) const {
    srOutText = ToString();
}

std::string_view RequestCode::ToString() const {
    return sTextOf(kRequestCodes, lValue);
}

Function::Function(const std::string& sText) : lValue(lValueOf(kFunctions, sText)) {}

void Function::ToString(std::string& srOutText) const {
    srOutText = ToString();
}

std::string_view Function::ToString() const {
    return sTextOf(kFunctions, lValue);
}

}  // namespace Orvex
