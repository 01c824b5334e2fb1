"""The ids of relays by name, new ids for clients, and the sessions of relays."""

from __future__ import annotations

import itertools
import threading


def unsigned(client_id: int) -> int:
    """Ids above 2**31 travel as negative numbers in some messages."""
    return client_id & 0xFFFFFFFF


class RelayRoster:
    """Ids of relays by log-in name, and ids for clients. Servers that stand in for one another
    share one, so that an id means the same at each. Safe from any thread."""

    def __init__(self, first_id: int, first_client_id: int) -> None:
        #: The id of the first relay, at its next log-in; may be changed at any time.
        self.first_id = first_id
        # None: follows `first_id`.
        self._ids: dict[str, int | None] = {}
        self._sessions: dict[str, int] = {}
        self._client_ids = itertools.count(first_client_id)
        self._lock = threading.Lock()

    def id_of(self, name: str) -> int:
        """The id of the relay that logs in as `name`; it never changes."""
        with self._lock:
            if name not in self._ids:
                self._ids[name] = self._next_id()
            known = self._ids[name]
            return self.first_id if known is None else known

    def _next_id(self) -> int | None:
        taken = set(self._ids.values())
        if None not in taken and self.first_id not in taken:
            return None
        return next(one for one in itertools.count(self.first_id + 1) if one not in taken)

    def assign(self, name: str, relay_id: int) -> None:
        """Gives a relay a chosen id, before it logs in."""
        with self._lock:
            self._ids[name] = relay_id

    def new_client_id(self) -> int:
        """An id that no client has been given yet."""
        return next(self._client_ids)

    def begin_session(self, name: str) -> None:
        """Counts a log-in that continues no session: the relay starts with empty tables."""
        with self._lock:
            self._sessions[name] = self.session(name) + 1

    def session(self, name: str) -> int:
        """The number of the relay's session, from 1; 0 before the first."""
        return self._sessions.get(name, 0)
