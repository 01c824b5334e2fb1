/// Payloads that wait to be posted, oldest first, and how much memory they take. Not locked: its
/// owner sees to that.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <string>
#include <utility>

struct Payload {
    std::string sText;
    /// Not to be posted before this moment of `steadyNow`.
    std::chrono::steady_clock::time_point tEarliest;
};

class PayloadQueue {
  public:
    void push(Payload payload) {
        _nBytes += payload.sText.size();
        _payloads.push_back(std::move(payload));
    }

    /// The oldest payload; there has to be one.
    [[nodiscard]] const Payload& front() const { return _payloads.front(); }

    /// Removes and returns the oldest payload; there has to be one.
    Payload pop() {
        Payload payload = std::move(_payloads.front());
        _payloads.pop_front();
        _nBytes -= payload.sText.size();
        return payload;
    }

    /// Moves up to `nMost` payloads, the oldest first, to the end of `rTo`.
    void moveOldestTo(PayloadQueue& rTo, std::size_t nMost) {
        for (; nMost > 0 && !empty(); --nMost) {
            rTo.push(pop());
        }
    }

    void swap(PayloadQueue& rOther) noexcept {
        std::swap(_payloads, rOther._payloads);
        std::swap(_nBytes, rOther._nBytes);
    }

    [[nodiscard]] bool empty() const { return _payloads.empty(); }
    [[nodiscard]] std::size_t size() const { return _payloads.size(); }
    /// Length of all their texts together.
    [[nodiscard]] std::size_t nBytes() const { return _nBytes; }

  private:
    std::deque<Payload> _payloads;
    std::size_t _nBytes = 0;
};
