/// The one timed write behind `write_n_with_timeout`, `write_n_with_timeout_ssl` and the member
/// of `RelayMessageSocket`, which differ only in how they tell what went wrong.
#pragma once

#include <openssl/ssl.h>

#include <string>

struct TimedWrite {
    int fd;
    const unsigned char* pData;
    int nBytes;
    int nTimeoutMillis;  ///< for each wait
    SSL* pSSL;           ///< null: plain; otherwise `fd` is non-blocking
    /// Where a TLS failure is told in words; null: its code goes to standard output.
    std::string* psErrorText;
    /// Where the bytes written are counted, also of a write that fails; null: nowhere.
    int* pnWritten = nullptr;
};

/// `timeoutSecs` and `timeoutMicroSecs` in whole milliseconds, as `poll` takes them.
[[nodiscard]] int nTimeoutMillis(int timeoutSecs, int timeoutMicroSecs);

/// Writes before it asks for readiness, so that a socket with room costs one system call. Returns
/// the bytes written, fewer than asked for after a time-out, or -1 on failure.
[[nodiscard]] int nTimedWrite(const TimedWrite& job);

/// The rest of such a write, for whoever made the first attempt, over all of it, himself: with
/// MSG_DONTWAIT, or `SSL_write`. `nResult` and errno, or OpenSSL's error queue, are that attempt's.
[[nodiscard]] int nFinishWrite(const TimedWrite& job, int nResult);

/// One write to a descriptor that may be no socket, without SIGPIPE; `nFlags` as for `send`, of
/// which MSG_DONTWAIT is obeyed by descriptors of every kind. As `write` otherwise.
[[nodiscard]] int nWritePlain(int fd, const void* pData, int nBytes, int nFlags);
