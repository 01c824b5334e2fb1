#include "bench/load/payload.h"

#include <array>

namespace Load {

namespace {

constexpr std::array<char, 16> kDigits = {'0', '1', '2', '3', '4', '5', '6', '7',
                                          '8', '9', 'a', 'b', 'c', 'd', 'e', 'f'};
constexpr unsigned char kNoDigit = 0xFF;

constexpr std::array<unsigned char, 256> makeValues() {
    std::array<unsigned char, 256> values{};
    values.fill(kNoDigit);
    for (std::size_t i = 0; i < kDigits.size(); ++i) {
        values[static_cast<unsigned char>(kDigits[i])] = static_cast<unsigned char>(i);
    }
    return values;
}

constexpr std::array<unsigned char, 256> kValues = makeValues();

void writeDigits(char* pOut, std::uint64_t nValue, std::size_t nDigits) {
    for (std::size_t i = nDigits; i-- > 0; nValue >>= 4) {
        pOut[i] = kDigits[nValue & 0xF];
    }
}

bool bReadDigits(const char* pIn, std::size_t nDigits, std::uint64_t& nrValue) {
    std::uint64_t nValue = 0;
    unsigned char nSeen = 0;
    for (std::size_t i = 0; i < nDigits; ++i) {
        const unsigned char nDigit = kValues[static_cast<unsigned char>(pIn[i])];
        nSeen |= nDigit;
        nValue = nValue << 4 | nDigit;
    }
    if ((nSeen & 0xF0) != 0) {
        return false;
    }
    nrValue = nValue;
    return true;
}

}  // namespace

std::string makePayload(std::size_t nLen) {
    std::string sPayload(nLen, '0');
    for (std::size_t i = kStampLen; i < nLen; ++i) {
        sPayload[i] = static_cast<char>('A' + i % 26);
    }
    return sPayload;
}

void stampPayload(char* pPayload, std::uint32_t nSequence, std::uint64_t nTimeNs) {
    writeDigits(pPayload, nSequence, kSequenceDigits);
    writeDigits(pPayload + kSequenceDigits, nTimeNs, kTimeDigits);
}

bool bReadSequence(const char* pPayload, std::uint32_t& nrSequence) {
    std::uint64_t nValue = 0;
    if (!bReadDigits(pPayload, kSequenceDigits, nValue)) {
        return false;
    }
    nrSequence = static_cast<std::uint32_t>(nValue);
    return true;
}

bool bReadTime(const char* pPayload, std::uint64_t& nrTimeNs) {
    return bReadDigits(pPayload + kSequenceDigits, kTimeDigits, nrTimeNs);
}

}  // namespace Load
