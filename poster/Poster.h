/// Delivers archive payloads to an HTTP address by POST, on a thread of its own. Whoever queues
/// payloads never waits for the network.
///
/// What becomes of a payload:
///   the answer is 200              delivered
///   another answer, a bad address  dropped
///   no connection, a time-out      tried again every 2 s; from the tenth failure in a row on, only
///                                  the newest 20 of all waiting payloads are kept after each
///   another transport error        dropped
/// Nothing is kept on disk: what waits when the process ends is lost.
///
/// Prints what it does on standard output, since only the main thread writes to the log.
#pragma once

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

#include "poster/http_post.h"
#include "poster/payload_queue.h"

class CaptionPoster {
  public:
    CaptionPoster() = default;
    /// Interrupts the worker and waits for it.
    ~CaptionPoster();
    CaptionPoster(const CaptionPoster&) = delete;
    CaptionPoster& operator=(const CaptionPoster&) = delete;

    // Configuration: before the first payload is queued, by the thread that will queue.

    /// Where payloads go: an HTTP or HTTPS address of at most 1023 characters. A longer one is
    /// refused, and there is no destination then; every payload fails with "Can't resolve URL".
    void setDestination(const std::string& url);
    /// The same for "host:port/path".
    void setDestination(const std::string& host, int port, const std::string& path);
    /// Authenticates by digest. User and password of more than 254 characters together are refused.
    void setDigestAuth(const std::string& user, const std::string& password);
    /// The media type that payloads are declared as; "text/json" if not set.
    void setContentType(const std::string& contentType);
    /// Whether "&seq=" and a number that each new payload raises are appended to the address.
    void appendSeqToURI(bool bAppend);

    // Any thread, but one that queues.

    /// Queues a payload that is to be posted in `delay` seconds at the earliest; payloads behind it
    /// wait as well. Starts the worker if none runs.
    void queuePayload(std::string payload, unsigned delay = 0);
    /// Payloads that wait, and the bytes they take; those (up to ten) that the worker has taken are
    /// not counted.
    [[nodiscard]] std::size_t getPayloadQueueSize();
    [[nodiscard]] std::size_t getPayloadQueueBytes();
    void clearQueue();

    /// "Idle" before the first attempt and after an interruption; then the outcome of the last one:
    /// "HTTP OK", "HTTP <status>", "Can't connect to server", "Can't resolve URL", "Send Error".
    [[nodiscard]] std::string getLastStatusCode();
    /// Time of the last delivery; 0 for never.
    [[nodiscard]] std::time_t getLastOK();
    /// What the last answer said, as far as it has come; its first 64 KiB.
    [[nodiscard]] std::string getLastResponse();
    void setLastResponse(const std::string& response);
    void addResponse(const char* bytes, std::size_t nBytes);

    // The end of the worker; by the thread that queues.

    /// Ends the worker, within about a second, and waits for it. What it had not posted waits
    /// again; the next payload starts a new worker.
    void _interruptWorkThread();
    /// Asks the worker to end and does not wait.
    void askToEnd();
    /// Whether no worker runs. Does not wait.
    [[nodiscard]] bool bHasEnded();
    /// Closes the connection; there is no destination afterwards. False, and nothing happens, while
    /// a worker runs. Does not wait.
    [[nodiscard]] bool bClose();

  private:
    enum class Verdict { kDelivered, kGiveUp, kRetry };
    static constexpr int _kConsecutiveErrorsBeforeDrop = 10;
    static constexpr std::size_t _kNumToSaveAfterDrop = 20;
    static constexpr std::size_t _kBatchSize = 10;

    void _startWorkThread();
    void _workThreadFn();
    void _takeBatch();
    void _postBatch();
    void _returnBatch();
    [[nodiscard]] Verdict _attempt(const std::string& payload);
    [[nodiscard]] PostResult _perform(const std::string& payload);
    [[nodiscard]] bool _bSetSequenceURL();
    [[nodiscard]] Verdict _onTransportError(int nCode, std::size_t nBytes);
    [[nodiscard]] Verdict _onAnswer(long nHttpCode);
    void _prepareRetry();
    [[nodiscard]] std::size_t _nTrimBacklog();
    void _setStatus(const std::string& sStatus);

    boost::mutex _mQueue;
    /// Guarded by `_mQueue`; `_cvMsgWaiting` tells the worker of a new payload.
    PayloadQueue _payloadQueue;
    boost::condition_variable _cvMsgWaiting;

    boost::mutex _mStatus;
    /// Guarded by `_mStatus`.
    std::string _sStatus = "Idle";
    std::time_t _ttLastOK = 0;

    boost::mutex _mResponse;
    /// Guarded by `_mResponse`.
    std::string _sLastResponse;

    /// The thread that queues.
    boost::thread _workerThread;

    /// The worker, once it runs; before, the thread that configures.
    HttpPost _httpPost;
    char _achBaseURL[1024] = "";
    char _achSeqURL[1024] = "";
    char _achUserPwd[256] = "";
    std::string _sContentType = "text/json";
    bool _bSendSeq = false;
    std::uint32_t _seq = 1;
    PayloadQueue _batch;
    int _nConsecutiveErrors = 0;
    /// Whether the last attempt is to be repeated.
    bool _bRetrying = false;
};
