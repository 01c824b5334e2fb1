/// The timed write that `write_n_with_timeout`, `write_n_with_timeout_ssl` and the member of
/// `RelayMessageSocket` are built on; they differ only in how they report failures. Any thread, but
/// no other may use the descriptor or the session meanwhile.
#pragma once

#include <openssl/ssl.h>

#include <string>

/// One write of `nBytes` bytes at `pData`, which must stay valid until it ends.
struct TimedWrite {
    int fd;
    const unsigned char* pData;
    int nBytes;
    int nTimeoutMillis;  ///< of each wait for room; as `poll` takes it
    SSL* pSSL;           ///< null: plain; otherwise `fd` must be non-blocking
    /// Receives the text of a TLS failure; if null, its code goes to standard output.
    std::string* psErrorText;
    /// Receives the number of bytes written, even if the write fails; may be null.
    int* pnWritten = nullptr;
};

/// `timeoutSecs` and `timeoutMicroSecs` together in whole milliseconds, as `poll` takes them;
/// clamped to the range of an int.
[[nodiscard]] int nTimeoutMillis(int timeoutSecs, int timeoutMicroSecs);

/// Tries to write before it waits for room, so that a socket with room costs one system call.
/// Returns the bytes written, fewer than `nBytes` after a time-out, or -1 on failure. What went
/// wrong goes to standard output.
[[nodiscard]] int nTimedWrite(const TimedWrite& job);

/// The rest of such a write, for a caller that has made the first attempt at all of it: `nResult`
/// is the result of `nWritePlain` with MSG_DONTWAIT or of `SSL_write`, and errno or OpenSSL's error
/// queue is as that call left it. Returns as `nTimedWrite` does.
[[nodiscard]] int nFinishWrite(const TimedWrite& job, int nResult);

/// One `send` to a socket, or `write` to any other descriptor, without SIGPIPE. Of `nFlags`, only
/// MSG_DONTWAIT applies to other descriptors. Returns the bytes written, or -1 with errno set.
[[nodiscard]] int nWritePlain(int fd, const void* pData, int nBytes, int nFlags);
