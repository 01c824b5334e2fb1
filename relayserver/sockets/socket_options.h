/// Socket options. The functions that return a bool take a plain descriptor and return false on
/// failure; all but `makeNonBlocking` and `bDisableNagle` then log why. Main thread only.
#pragma once

#include <netinet/in.h>

/// Send buffer of the links to the connection server and to other relays: 8 MiB.
constexpr int kLinkTxBufBytes = 8388608;

/// Sets the file status flags to exactly O_NONBLOCK.
bool makeNonBlocking(int fd);

/// Raises the send or receive buffer to `nBytes`; one that is already large enough is left alone.
/// The kernel reserves twice the size requested and may cap it. A descriptor below 1 fails without
/// a log line.
bool bIncreaseSockTxBuf(int fd, int nBytes);
bool bIncreaseSockRxBuf(int fd, int nBytes);

/// Binds the socket to the configured network interface (`sBindDev`), if there is one.
[[nodiscard]] bool bSetSocketInterface(int fd);

/// Binds an outgoing socket to the configured local address (`sBindAddr`), if there is one, with
/// any port.
[[nodiscard]] bool bSetLocalSourceAddress(int fd);

/// Sends small messages at once (TCP_NODELAY).
[[nodiscard]] bool bDisableNagle(int fd);

/// The address that a listening socket binds to, with port `nPort` (host byte order, low 16 bits):
/// `sBindAddr`, or any address if that is empty or not an IPv4 address. The latter is logged with
/// the name of the protocol (`sProtocol`: TCP, SSL, UDP).
[[nodiscard]] sockaddr_in siListenAddress(const char* sProtocol, int nPort);
