/// The descriptors that the load program waits for.
#pragma once

#include <sys/epoll.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <gsl/span>

namespace Load {

/// The owner of a ready descriptor.
enum class Party : std::uint32_t { kReceiver, kSource, kTimer, kAdapter, kEntrant };

class EventSet {
  public:
    EventSet();
    ~EventSet();
    EventSet(const EventSet&) = delete;
    EventSet& operator=(const EventSet&) = delete;

    /// Watches for input, level-triggered.
    void watch(int fd, Party party, std::size_t nIndex);
    /// Watches for input and for room for output, edge-triggered.
    void watchChanges(int fd, Party party, std::size_t nIndex);
    /// The ready descriptors; waits at most `nTimeoutMs`. Valid until the next call.
    [[nodiscard]] gsl::span<const epoll_event> wait(int nTimeoutMs);

    [[nodiscard]] static Party partyOf(const epoll_event& event) {
        return static_cast<Party>(event.data.u64 >> 32);
    }
    [[nodiscard]] static std::size_t nIndexOf(const epoll_event& event) {
        return event.data.u64 & 0xFFFFFFFF;
    }

  private:
    void add(int fd, std::uint32_t nEvents, Party party, std::size_t nIndex);

    int fdEpoll;
    std::array<epoll_event, 1024> events{};
};

}  // namespace Load
