/// Socket helpers with time-outs, and reads and writes of a whole buffer. All time-outs are
/// `timeoutSecs` * 1000 + `timeoutMicroSecs` / 1000 milliseconds (integer division).
/// Diagnostics go to standard output. Any thread, but no other may use the descriptor meanwhile.
#pragma once

#include <openssl/ssl.h>
#include <sys/socket.h>

/// Writes all `n` bytes, retrying immediately when interrupted or when there is no room, without a
/// limit in time. Returns `n`, or -1 on any other error. Never raises SIGPIPE.
[[nodiscard]] int util_write_n(int fd, const void* buf, int n);

/// Reads until `n` bytes have arrived or the stream has ended, retrying immediately when
/// interrupted or when there is nothing to read, without a limit in time. Returns the bytes read,
/// or -1 on any other error.
[[nodiscard]] int util_read_n(int fd, void* buf, int n);

/// As `write_n_with_timeout_ssl` without a TLS session.
[[nodiscard]] int write_n_with_timeout(int f, const void* addr, int n, int timeoutSecs,
                                       int timeoutMicroSecs);

/// Writes `n` bytes, waiting for room before each part for at most the time-out. Returns `n`, fewer
/// after a time-out, or -1 on failure (including a full buffer right after it was reported ready).
/// `ssl` may be null for a plain connection. Never raises SIGPIPE; the descriptor keeps its flags.
[[nodiscard]] int write_n_with_timeout_ssl(int f, const void* addr, int n, int timeoutSecs,
                                           int timeoutMicroSecs, SSL* ssl);

/// Connects to the `sockaddr_in` at `sa`, waiting for at most the time-out. 0 on success, -1
/// otherwise. Only readiness is checked: a connection that is refused after the call has begun may
/// be reported as made, and then fails at its first read or write. The descriptor keeps its flags.
[[nodiscard]] int connect_with_timeout(int f, sockaddr* sa, int timeoutSecs, int timeoutMicroSecs);

/// Accepts one pending connection without ever blocking and stores the peer's `sockaddr_in` in
/// `sa`. Returns the new descriptor, or -1 with `errno` as `accept` left it. The listener keeps its
/// flags.
[[nodiscard]] int accept_nonblock(int f, sockaddr* sa);
