#include "base/ip_utils.h"

#include <arpa/inet.h>

std::string sDottedAddress(in_addr address) {
    char achText[INET_ADDRSTRLEN];
    // Cannot fail: the family is known and the buffer holds every IPv4 address.
    return inet_ntop(AF_INET, &address, achText, sizeof achText);
}

std::string sDottedAddress(const sockaddr_in& siAddress) {
    return sDottedAddress(siAddress.sin_addr);
}

int nPortOf(const sockaddr_in& siAddress) {
    return ntohs(siAddress.sin_port);
}

bool bParseIPv4(const std::string& sText, in_addr& address) {
    // inet_pton stops at a NUL character and would not see garbage after it.
    if (sText.find('\0') != std::string::npos) {
        return false;
    }
    in_addr parsed{};
    if (inet_pton(AF_INET, sText.c_str(), &parsed) != 1) {
        return false;
    }
    address = parsed;
    return true;
}
