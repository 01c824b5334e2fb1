/// Checks that a relay has reported each of its clients to the connection server exactly once.
#pragma once

#include <cstdint>
#include <gsl/span>
#include <unordered_set>
#include <vector>

namespace Load {

class Identification {
  public:
    /// `expected`: the ids of all clients that are connected.
    explicit Identification(const std::vector<unsigned>& expected)
        : missing(expected.begin(), expected.end()) {}

    /// Takes the ids that the relay has reported.
    void note(gsl::span<const unsigned> named);
    /// Clients reported so far.
    [[nodiscard]] std::int64_t nNamed() const { return nRight; }
    [[nodiscard]] std::int64_t nMissing() const {
        return static_cast<std::int64_t>(missing.size());
    }
    /// Ids that are unknown or were reported before.
    [[nodiscard]] std::int64_t nWrong() const { return nUnexpected; }

  private:
    std::unordered_set<unsigned> missing;
    std::int64_t nRight = 0;
    std::int64_t nUnexpected = 0;
};

}  // namespace Load
