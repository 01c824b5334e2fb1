/// IPv4 addresses and ports between the forms of the socket interface and those of people.
#pragma once

#include <netinet/in.h>

#include <string>

/// "10.1.2.3" for an address in network byte order. Any thread.
std::string sDottedAddress(in_addr address);

/// The address part of a socket address; its port is not shown.
std::string sDottedAddress(const sockaddr_in& siAddress);

/// The port of a socket address, in host byte order.
int nPortOf(const sockaddr_in& siAddress);

/// Reads a strict dotted quad: four decimal numbers 0..255 without leading zeros and nothing else
/// around them. The result is in network byte order. False leaves `address` untouched.
[[nodiscard]] bool bParseIPv4(const std::string& sText, in_addr& address);
