/// Socket helpers that bound how long they wait. All time-outs are
/// `timeoutSecs` * 1000 + `timeoutMicroSecs` / 1000 milliseconds (integer division).
/// Diagnostics go to standard output. No other thread may use the descriptor meanwhile.
#pragma once

#include <openssl/ssl.h>
#include <sys/socket.h>

/// Writes all `n` bytes, retrying at once when interrupted or when there is no room. Returns `n`,
/// or -1 on any other error.
[[nodiscard]] int util_write_n(int fd, const void* buf, int n);

/// Reads until `n` bytes came or the stream ended, retrying at once when interrupted or when
/// nothing waits. Returns the bytes read, or -1 on any other error.
[[nodiscard]] int util_read_n(int fd, void* buf, int n);

/// As `write_n_with_timeout_ssl` without a TLS session.
[[nodiscard]] int write_n_with_timeout(int f, const void* addr, int n, int timeoutSecs,
                                       int timeoutMicroSecs);

/// Writes `n` bytes, waiting for room at most the time-out before each part. Returns `n`, fewer
/// after a time-out, -1 on failure (a full buffer right after it was reported ready included).
/// Never raises SIGPIPE; the descriptor's flags are afterwards as they were.
[[nodiscard]] int write_n_with_timeout_ssl(int f, const void* addr, int n, int timeoutSecs,
                                           int timeoutMicroSecs, SSL* ssl);

/// Connects to the `sockaddr_in` behind `sa`, waiting at most the time-out. 0 on success, -1
/// otherwise. Readiness alone counts: a connection refused after the call began may count as made
/// and then fails at its first read or write. The descriptor's flags are afterwards as they were.
[[nodiscard]] int connect_with_timeout(int f, sockaddr* sa, int timeoutSecs, int timeoutMicroSecs);

/// Accepts one waiting connection without ever blocking; the peer's `sockaddr_in` goes to `sa`.
/// The new descriptor, or -1 with `errno` as `accept` left it. The listener keeps its flags.
[[nodiscard]] int accept_nonblock(int f, sockaddr* sa);
