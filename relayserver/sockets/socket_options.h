/// Options of sockets, as the configuration wants them. All take plain descriptors, return false on
/// failure and log why. Main thread only.
#pragma once

#include <netinet/in.h>

/// 8 MiB: what the links to the connection server and to other relays may hold unsent.
constexpr int kLinkTxBufBytes = 8388608;

/// Sets the file status flags to exactly O_NONBLOCK.
bool makeNonBlocking(int fd);

/// Raises the send or receive buffer to `nBytes`. The kernel books twice what is asked for and may
/// cap it; a buffer that is large enough is left alone.
bool bIncreaseSockTxBuf(int fd, int nBytes);
bool bIncreaseSockRxBuf(int fd, int nBytes);

/// Binds to the configured interface (`sBindDev`), if one is.
[[nodiscard]] bool bSetSocketInterface(int fd);

/// Binds an outgoing socket to the configured local address (`sBindAddr`), if one is, with any
/// port.
[[nodiscard]] bool bSetLocalSourceAddress(int fd);

/// Sends small messages at once (TCP_NODELAY).
[[nodiscard]] bool bDisableNagle(int fd);

/// The address that a listening socket binds to: `sBindAddr`, or any address when that is empty or,
/// logged with the protocol's name (`sProtocol`: TCP, SSL, UDP), when it is no address.
[[nodiscard]] sockaddr_in siListenAddress(const char* sProtocol, int nPort);
