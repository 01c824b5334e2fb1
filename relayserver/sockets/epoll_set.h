/// The event loop's epoll set, the descriptors that wait for another turn, and the closing of
/// descriptors. Main thread only.
///
/// A batch of events may contain one for a descriptor that an earlier event of the same batch
/// closed, and whose number a new connection already has. Each registration therefore has a unique
/// number, carried with its events above the descriptor in the event data; an event is handled only
/// while its registration is current. This works because every watched descriptor is closed here.
#pragma once

#include <sys/epoll.h>

/// The most events that one wait returns.
constexpr int kMaxEpollEvents = 9999;

/// The epoll descriptor; -1 before `bOpenEpollSet`.
extern int ep_fd;

/// The events of the last wait: `kMaxEpollEvents` entries; null before `bOpenEpollSet`.
extern epoll_event* ep_events;

/// Creates the set and the event buffer; false, after perror, on failure.
[[nodiscard]] bool bOpenEpollSet();

/// Starts watching `fd` for input or for writability. False, after perror, on failure, for example
/// if it is already watched.
bool addToEpollForRead(int fd);
bool addToEpollForWrite(int fd);

/// Stops watching `fd`; false, after perror, if it was not watched.
bool removeFromEpoll(int fd);

/// Closes `fd`, watched or not; its unhandled events become stale. A negative `fd` is ignored.
void closeDescriptor(int fd);

/// Whether the registration that `epe` belongs to is still current.
[[nodiscard]] bool bIsCurrent(const epoll_event& epe);

/// The descriptor of `epe`.
[[nodiscard]] inline int nDescriptorOf(const epoll_event& epe) {
    return epe.data.fd;
}

/// Gives `fd` another turn in the next pass even if its peer sends nothing more: for input that has
/// been read from the kernel but could not be handled yet. Does nothing if `fd` is not watched.
void offerAgain(int fd);

/// Whether a descriptor waits for another turn: the event loop must not sleep then.
[[nodiscard]] bool bTurnsWaiting();

/// Starts a round with the turns that wait now; those requested later belong to the next round.
void beginTurns();

/// Takes the next turn of this round as an input event; false if none is left.
[[nodiscard]] bool bNextTurn(epoll_event& epe);

/// Closes the set and forgets all registrations.
void resetEpollSetForTest();
