/// The epoll set of the loop, the descriptors that wait for another turn, and the closing of
/// descriptors. Main thread only.
///
/// One batch of events may hold an event of a descriptor that an earlier event of the same batch
/// closed, and whose number a newcomer already has. Each registration therefore gets a number of
/// its own that travels with its events, above the descriptor in the event data; an event is
/// handled only while that registration lives. This works because every watched descriptor is
/// closed here.
#pragma once

#include <sys/epoll.h>

constexpr int kMaxEpollEvents = 9999;

/// The epoll descriptor; -1 before `bOpenEpollSet`.
extern int ep_fd;

/// What the last wait returned: `kMaxEpollEvents` entries.
extern epoll_event* ep_events;

/// Creates the set and the event buffer; false (with perror) when the system refuses.
[[nodiscard]] bool bOpenEpollSet();

/// Starts watching `fd` for input or for room to write. False with perror on failure, as when it is
/// watched already.
bool addToEpollForRead(int fd);
bool addToEpollForWrite(int fd);

/// Stops watching `fd`; false with perror when it was not watched.
bool removeFromEpoll(int fd);

/// Closes `fd`, watched or not; events of it that are still unhandled become stale.
void closeDescriptor(int fd);

/// Whether `epe` belongs to a registration that still lives.
[[nodiscard]] bool bIsCurrent(const epoll_event& epe);

/// The descriptor that `epe` is about.
[[nodiscard]] inline int nDescriptorOf(const epoll_event& epe) {
    return epe.data.fd;
}

/// Gives the watched `fd` another turn in the next pass although its peer may send nothing more:
/// for input that has left the kernel but could not be handled now. Nothing happens for a
/// descriptor that is not watched.
void offerAgain(int fd);

/// Whether some descriptor waits for another turn, so that the loop must not sleep.
[[nodiscard]] bool bTurnsWaiting();

/// Takes the next waiting turn as an input event; false when none of this round is left. Turns
/// asked for meanwhile belong to the next round, which `beginTurns` starts.
void beginTurns();
[[nodiscard]] bool bNextTurn(epoll_event& epe);

/// Closes the set and forgets all registrations.
void resetEpollSetForTest();
