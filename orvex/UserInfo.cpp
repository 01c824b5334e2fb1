#include "orvex/UserInfo.h"

#include <cstring>

namespace Orvex {

namespace {

constexpr std::size_t kNumberSize = 4;
constexpr std::size_t kTextStart = 2 * kNumberSize;

static_assert(sizeof(int) == kNumberSize, "ids and flags travel as raw 32-bit integers");

}  // namespace

UserInfo::UserInfo(int nID, const std::string& sCompany, const std::string& sUsername, int nFlags)
    : flags(nFlags), cID(nID), company(sCompany), username(sUsername) {}

std::string UserInfo::GetNetMsgField() const {
    std::string sField(kTextStart, '\0');
    std::memcpy(sField.data(), &cID, kNumberSize);
    std::memcpy(sField.data() + kNumberSize, &flags, kNumberSize);
    return sField + company + delim + username + delim + reserved;
}

void UserInfo::SetFromNetMsgField(const std::string& sField) {
    if (sField.size() <= kTextStart) {
        return;
    }
    std::memcpy(&cID, sField.data(), kNumberSize);
    std::memcpy(&flags, sField.data() + kNumberSize, kNumberSize);

    const std::size_t nFirst = sField.find(delim, kTextStart);
    if (nFirst == std::string::npos) {
        return;
    }
    company = sField.substr(kTextStart, nFirst - kTextStart);

    const std::size_t nSecond = sField.find(delim, nFirst + 1);
    if (nSecond == std::string::npos) {
        return;
    }
    username = sField.substr(nFirst + 1, nSecond - nFirst - 1);
    reserved = sField.substr(nSecond + 1);
}

}  // namespace Orvex
