#include "bench/load/topic.h"

namespace Load {

std::string sTopicOf(int nGroup) {
    constexpr int nFirst = 10000;
    return "g" + std::to_string(nFirst + nGroup);
}

Frame makeFrame(const std::string& sBefore, const std::string& sPayload, std::string_view svAfter) {
    return {(sBefore + sPayload).append(svAfter), sBefore.size()};
}

void awaitText(Connection& rConnection, std::string_view svText) {
    std::string sGot;
    while (sGot.find(svText) == std::string::npos) {
        sGot += rConnection.sReadSome();
    }
}

std::string awaitBytes(Connection& rConnection, std::size_t nBytes) {
    std::string sGot;
    while (sGot.size() < nBytes) {
        sGot += rConnection.sReadSome();
    }
    return sGot;
}

}  // namespace Load
