#include "poster/Poster.h"

#include <algorithm>
#include <cstdio>
#include <exception>

#include "base/clock.h"
#include "base/string_format.h"

using std::chrono::steady_clock;

namespace {

constexpr std::chrono::seconds kRetryPause{2};
constexpr std::size_t kMaxResponseBytes = 65536;

/// Copies a text with its terminator; returns false, and the copy is empty, if it does not fit.
template <std::size_t nSize>
[[nodiscard]] bool bCopyText(char (&achTo)[nSize], const std::string& sFrom) {
    const bool bFits = sFrom.size() < nSize;
    achTo[bFits ? sFrom.copy(achTo, nSize - 1) : 0] = '\0';
    return bFits;
}

/// Sleeps until `tEnd`, as an interruption point. Checks the clock repeatedly, as tests may move
/// it.
void sleepUntil(steady_clock::time_point tEnd) {
    constexpr steady_clock::duration kCheckInterval = std::chrono::milliseconds(50);
    for (auto left = tEnd - steadyNow(); left.count() > 0; left = tEnd - steadyNow()) {
        const auto nNanos = std::chrono::nanoseconds(std::min(left, kCheckInterval)).count();
        boost::this_thread::sleep_for(boost::chrono::nanoseconds(nNanos));
    }
}

}  // namespace

CaptionPoster::~CaptionPoster() {
    try {
        _interruptWorkThread();
    } catch (...) {
        std::terminate();  // a lock or the thread is in an invalid state
    }
}

void CaptionPoster::setDestination(const std::string& url) {
    if (url == _achBaseURL) {
        return;
    }
    _achSeqURL[0] = '\0';
    if (url.size() >= sizeof _achBaseURL) {
        std::printf("ERROR: archive URL of %zu characters is too long, not used\n", url.size());
        _httpPost = HttpPost();
        _achBaseURL[0] = '\0';
        return;
    }
    if (!_httpPost.bOpen(url.c_str())) {
        std::puts("Could not initialize CURL");
        return;
    }
    (void)bCopyText(_achBaseURL, url);  // it fits
    if (_achUserPwd[0] != '\0') {
        _httpPost.setDigestAuth(_achUserPwd);
    }
    std::printf("CURL base destination set to %s\n", _achBaseURL);
    _seq = 1;
}

void CaptionPoster::setDestination(const std::string& host, int port, const std::string& path) {
    setDestination(string_format("%s:%d/%s", host.c_str(), port, path.c_str()));
}

void CaptionPoster::setDigestAuth(const std::string& user, const std::string& password) {
    if (!bCopyText(_achUserPwd, user + ':' + password)) {
        std::puts("ERROR: archive user name and password are too long, not used");
        return;
    }
    if (_httpPost.bIsOpen()) {
        _httpPost.setDigestAuth(_achUserPwd);
    }
    std::printf("CURL digest auth set up for %s\n", _achUserPwd);
}

void CaptionPoster::setContentType(const std::string& contentType) {
    _sContentType = contentType;
}

void CaptionPoster::appendSeqToURI(bool bAppend) {
    _bSendSeq = bAppend;
}

void CaptionPoster::queuePayload(std::string payload, unsigned delay) {
    {
        const boost::lock_guard<boost::mutex> lock(_mQueue);
        _payloadQueue.push({std::move(payload), steadyNow() + std::chrono::seconds(delay)});
    }
    _cvMsgWaiting.notify_one();
    if (!_workerThread.joinable()) {
        _startWorkThread();
    }
}

/// Without a worker payloads wait; the next call tries to start it again.
void CaptionPoster::_startWorkThread() {
    try {
        _workerThread = boost::thread([this] { _workThreadFn(); });
    } catch (const boost::thread_resource_error& error) {
        std::printf("ERROR: cannot start the post worker thread: %s\n", error.what());
    }
}

std::size_t CaptionPoster::getPayloadQueueSize() {
    const boost::lock_guard<boost::mutex> lock(_mQueue);
    return _payloadQueue.size();
}

std::size_t CaptionPoster::getPayloadQueueBytes() {
    const boost::lock_guard<boost::mutex> lock(_mQueue);
    return _payloadQueue.nBytes();
}

void CaptionPoster::clearQueue() {
    PayloadQueue cleared;  // freed outside the lock, so that queuing does not wait for it
    const boost::lock_guard<boost::mutex> lock(_mQueue);
    _payloadQueue.swap(cleared);
}

std::string CaptionPoster::getLastStatusCode() {
    const boost::lock_guard<boost::mutex> lock(_mStatus);
    return _sStatus;
}

std::time_t CaptionPoster::getLastOK() {
    const boost::lock_guard<boost::mutex> lock(_mStatus);
    return _ttLastOK;
}

std::string CaptionPoster::getLastResponse() {
    const boost::lock_guard<boost::mutex> lock(_mResponse);
    return _sLastResponse;
}

void CaptionPoster::setLastResponse(const std::string& response) {
    const boost::lock_guard<boost::mutex> lock(_mResponse);
    _sLastResponse.assign(response, 0, kMaxResponseBytes);
}

void CaptionPoster::addResponse(const char* bytes, std::size_t nBytes) {
    const boost::lock_guard<boost::mutex> lock(_mResponse);
    _sLastResponse.append(bytes, std::min(nBytes, kMaxResponseBytes - _sLastResponse.size()));
}

void CaptionPoster::_interruptWorkThread() {
    if (_workerThread.joinable()) {
        _workerThread.interrupt();
        _workerThread.join();
    }
    _setStatus("Idle");
}

void CaptionPoster::askToEnd() {
    _workerThread.interrupt();
}

bool CaptionPoster::bHasEnded() {
    return !_workerThread.joinable() || _workerThread.try_join_for(boost::chrono::seconds(0));
}

bool CaptionPoster::bClose() {
    if (!bHasEnded()) {
        return false;
    }
    _httpPost = HttpPost();
    _achBaseURL[0] = '\0';
    return true;
}

void CaptionPoster::_workThreadFn() {
    try {
        for (;;) {
            _takeBatch();
            _postBatch();
        }
    } catch (const boost::thread_interrupted&) {
        _returnBatch();
        std::puts("Post worker thread interrupted");
    }
}

/// Waits for payloads. The error count starts again with each batch, unless the whole previous
/// batch was dropped while the server could not be reached.
void CaptionPoster::_takeBatch() {
    boost::unique_lock<boost::mutex> lock(_mQueue);
    while (_payloadQueue.empty()) {
        _cvMsgWaiting.wait(lock);
    }
    _payloadQueue.moveOldestTo(_batch, _kBatchSize);
    if (!_bRetrying) {
        _nConsecutiveErrors = 0;
    }
}

/// Puts payloads that were taken but not posted back at the head of the queue.
void CaptionPoster::_returnBatch() {
    _bRetrying = false;
    const boost::lock_guard<boost::mutex> lock(_mQueue);
    _payloadQueue.moveOldestTo(_batch, _payloadQueue.size());
    _payloadQueue.swap(_batch);
}

void CaptionPoster::_postBatch() {
    while (!_batch.empty()) {
        boost::this_thread::interruption_point();
        sleepUntil(_batch.front().tEarliest);
        const Verdict verdict = _attempt(_batch.front().sText);
        _bRetrying = verdict == Verdict::kRetry;
        if (_bRetrying) {
            _prepareRetry();
            continue;
        }
        if (verdict == Verdict::kDelivered) {
            _nConsecutiveErrors = 0;
        } else {
            std::puts("Won't retry");
        }
        (void)_batch.pop();
    }
}

CaptionPoster::Verdict CaptionPoster::_attempt(const std::string& payload) {
    const PostResult result = _perform(payload);
    if (result.nCurlCode == CURLE_ABORTED_BY_CALLBACK) {
        boost::this_thread::interruption_point();
    }
    return result.nCurlCode == CURLE_OK ? _onAnswer(result.nHttpCode)
                                        : _onTransportError(result.nCurlCode, payload.size());
}

/// Every attempt uses up a sequence number, but a retry keeps the address of the first attempt.
PostResult CaptionPoster::_perform(const std::string& payload) {
    ++_seq;
    if (_bSendSeq && _nConsecutiveErrors == 0 && !_bSetSequenceURL()) {
        return {CURLE_URL_MALFORMAT, 0};
    }
    setLastResponse("");
    return _httpPost.perform(payload, _sContentType, [this](const char* bytes, std::size_t nBytes) {
        addResponse(bytes, nBytes);
    });
}

bool CaptionPoster::_bSetSequenceURL() {
    if (!_httpPost.bIsOpen() ||
        !bCopyText(_achSeqURL, string_format("%s&seq=%u", _achBaseURL, _seq))) {
        return false;
    }
    _httpPost.setURL(_achSeqURL);
    std::printf("TRACE: URL set to %s\n", _achSeqURL);
    return true;
}

CaptionPoster::Verdict CaptionPoster::_onTransportError(int nCode, std::size_t nBytes) {
    std::printf("ERROR: error sending POST (code %d) for %zu bytes\n", nCode, nBytes);
    switch (nCode) {
        case CURLE_COULDNT_CONNECT:
        case CURLE_OPERATION_TIMEDOUT:
            _setStatus("Can't connect to server");
            ++_nConsecutiveErrors;
            return Verdict::kRetry;
        case CURLE_URL_MALFORMAT:
        case CURLE_COULDNT_RESOLVE_HOST:
            _setStatus("Can't resolve URL");
            std::printf("URL was %s\n", _bSendSeq ? _achSeqURL : _achBaseURL);
            return Verdict::kGiveUp;
        default:
            _setStatus("Send Error");
            ++_nConsecutiveErrors;
            return Verdict::kGiveUp;
    }
}

CaptionPoster::Verdict CaptionPoster::_onAnswer(long nHttpCode) {
    constexpr long kHttpOK = 200;
    if (nHttpCode != kHttpOK) {
        _setStatus(string_format("HTTP %lu", static_cast<unsigned long>(nHttpCode)));
        return Verdict::kGiveUp;
    }
    const boost::lock_guard<boost::mutex> lock(_mStatus);
    _sStatus = "HTTP OK";
    _ttLastOK = nowSecs();
    return Verdict::kDelivered;
}

/// Pauses after every failure, so that an unreachable server costs no processor time.
void CaptionPoster::_prepareRetry() {
    if (_nConsecutiveErrors < _kConsecutiveErrorsBeforeDrop) {
        std::printf("Consecutive retry errors: %d\n", _nConsecutiveErrors);
    } else {
        std::puts("Dropping data packets, max number of connsecutive errors exceeded");
        std::printf("Dropped %d packets\n", static_cast<int>(_nTrimBacklog()));
        _nConsecutiveErrors = _kConsecutiveErrorsBeforeDrop;
    }
    sleepUntil(steadyNow() + kRetryPause);
}

/// Drops the oldest payloads until `_kNumToSaveAfterDrop` are left; returns how many were dropped.
std::size_t CaptionPoster::_nTrimBacklog() {
    PayloadQueue dropped;  // freed outside the lock, so that queuing does not wait for it
    const boost::lock_guard<boost::mutex> lock(_mQueue);
    const std::size_t nAll = _batch.size() + _payloadQueue.size();
    const std::size_t nDrop = nAll - std::min(nAll, _kNumToSaveAfterDrop);
    _batch.moveOldestTo(dropped, nDrop);
    _payloadQueue.moveOldestTo(dropped, nDrop - dropped.size());
    return dropped.size();
}

void CaptionPoster::_setStatus(const std::string& sStatus) {
    const boost::lock_guard<boost::mutex> lock(_mStatus);
    _sStatus = sStatus;
}
