/// Payloads that wait to be posted, oldest first, and how many bytes they have. Not locked; the
/// owner must do that.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <string>
#include <utility>

/// One text to post.
struct Payload {
    std::string sText;
    /// Must not be posted before `steadyNow` has reached this.
    std::chrono::steady_clock::time_point tEarliest;
};

class PayloadQueue {
  public:
    /// Adds the newest payload.
    void push(Payload payload) {
        _nBytes += payload.sText.size();
        _payloads.push_back(std::move(payload));
    }

    /// The oldest payload; the queue must not be empty.
    [[nodiscard]] const Payload& front() const { return _payloads.front(); }

    /// Removes and returns the oldest payload; the queue must not be empty.
    Payload pop() {
        Payload payload = std::move(_payloads.front());
        _payloads.pop_front();
        _nBytes -= payload.sText.size();
        return payload;
    }

    /// Moves up to `nMost` payloads, oldest first, to the end of `rTo`.
    void moveOldestTo(PayloadQueue& rTo, std::size_t nMost) {
        for (; nMost > 0 && !empty(); --nMost) {
            rTo.push(pop());
        }
    }

    /// Exchanges the contents of both queues.
    void swap(PayloadQueue& rOther) noexcept {
        std::swap(_payloads, rOther._payloads);
        std::swap(_nBytes, rOther._nBytes);
    }

    [[nodiscard]] bool empty() const { return _payloads.empty(); }
    [[nodiscard]] std::size_t size() const { return _payloads.size(); }
    /// The total length of all texts, in bytes.
    [[nodiscard]] std::size_t nBytes() const { return _nBytes; }

  private:
    std::deque<Payload> _payloads;
    std::size_t _nBytes = 0;
};
