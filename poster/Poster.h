/// Delivers archive payloads to an HTTP address by POST, on a worker thread. The thread that queues
/// payloads never waits for the network.
///
/// What happens to a payload:
///   answer 200                     delivered
///   another answer, a bad address  dropped
///   no connection, a time-out      retried every 2 s; from the tenth consecutive failure on, each
///                                  one drops all waiting payloads but the newest 20
///   another transport error        dropped
/// Nothing is kept on disk: payloads still waiting when the process ends are lost.
///
/// Prints what it does on standard output, because only the main thread writes to the log.
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
    /// No destination, no worker.
    CaptionPoster() = default;
    /// Interrupts the worker and waits for it, for about a second at most.
    ~CaptionPoster();
    CaptionPoster(const CaptionPoster&) = delete;
    CaptionPoster& operator=(const CaptionPoster&) = delete;

    // Configuration: by the thread that queues, while no worker runs.

    /// The destination: an HTTP or HTTPS address of at most 1023 characters. A longer one is
    /// rejected, and without a destination every payload fails with "Can't resolve URL". A new
    /// destination starts the sequence numbers again; setting the same one again has no effect.
    void setDestination(const std::string& url);
    /// The same for "host:port/path".
    void setDestination(const std::string& host, int port, const std::string& path);
    /// Sets the credentials for digest authentication. User and password of more than 254
    /// characters together are rejected.
    void setDigestAuth(const std::string& user, const std::string& password);
    /// The media type of payloads; "text/json" if not set.
    void setContentType(const std::string& contentType);
    /// Whether "&seq=" and a number that rises with each new payload are appended to the address.
    void appendSeqToURI(bool bAppend);

    // Any thread, but only one that queues.

    /// Queues a payload for posting in `delay` seconds at the earliest; later payloads wait for it.
    /// Starts the worker if none runs; if that fails, the next payload tries again.
    void queuePayload(std::string payload, unsigned delay = 0);
    /// The number of waiting payloads and of their bytes, without those (up to ten) that the worker
    /// has taken.
    [[nodiscard]] std::size_t getPayloadQueueSize();
    [[nodiscard]] std::size_t getPayloadQueueBytes();
    /// Drops the payloads that these count.
    void clearQueue();

    /// "Idle" before the first attempt and after an interruption; otherwise the outcome of the last
    /// attempt: "HTTP OK", "HTTP <status>", "Can't connect to server", "Can't resolve URL", "Send
    /// Error".
    [[nodiscard]] std::string getLastStatusCode();
    /// The time of the last delivery in seconds since the epoch; 0 if there was none.
    [[nodiscard]] std::time_t getLastOK();
    /// The body of the last answer, as far as it has been received; its first 64 KiB.
    [[nodiscard]] std::string getLastResponse();
    /// Replaces that text.
    void setLastResponse(const std::string& response);
    /// Appends to it, up to 64 KiB in all.
    void addResponse(const char* bytes, std::size_t nBytes);

    // Ending the worker: by the thread that queues.

    /// Ends the worker, within about a second, and waits for it. Payloads that it had taken but not
    /// posted wait again; the next payload starts a new worker.
    void _interruptWorkThread();
    /// Asks the worker to end, without waiting for it.
    void askToEnd();
    /// Whether no worker runs. Does not wait.
    [[nodiscard]] bool bHasEnded();
    /// Closes the connection and forgets the destination. Returns false, with nothing done, while a
    /// worker runs. Does not wait.
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
    /// Guarded by `_mQueue`; `_cvMsgWaiting` signals a new payload to the worker.
    PayloadQueue _payloadQueue;
    boost::condition_variable _cvMsgWaiting;

    boost::mutex _mStatus;
    /// Guarded by `_mStatus`.
    std::string _sStatus = "Idle";
    std::time_t _ttLastOK = 0;

    boost::mutex _mResponse;
    /// Guarded by `_mResponse`.
    std::string _sLastResponse;

    /// Used by the thread that queues.
    boost::thread _workerThread;

    /// The rest is used by the worker while it runs, otherwise by the thread that configures.
    HttpPost _httpPost;
    char _achBaseURL[1024] = "";
    char _achSeqURL[1024] = "";
    char _achUserPwd[256] = "";
    std::string _sContentType = "text/json";
    bool _bSendSeq = false;
    std::uint32_t _seq = 1;
    PayloadQueue _batch;
    int _nConsecutiveErrors = 0;
    /// Whether the last attempt must be repeated.
    bool _bRetrying = false;
};
