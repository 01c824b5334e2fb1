/// Conversion of IPv4 addresses and ports between socket addresses and text. Any thread.
#pragma once

#include <netinet/in.h>

#include <string>

/// "10.1.2.3" for an address in network byte order.
std::string sDottedAddress(in_addr address);

/// The same for the address part of a socket address, without its port.
std::string sDottedAddress(const sockaddr_in& siAddress);

/// The port of a socket address, in host byte order.
int nPortOf(const sockaddr_in& siAddress);

/// Parses a strict dotted quad: four decimal numbers 0..255 without leading zeros, and nothing
/// around them. Stores the result in network byte order; any other text gives false and leaves
/// `address` unchanged.
[[nodiscard]] bool bParseIPv4(const std::string& sText, in_addr& address);
