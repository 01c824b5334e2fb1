"""The relays that a stand-in connection server knows, by log-in name, id or object.

    server.relays["east"].send(message)
    server.relays["east"].udp_port
    server.relays.wait_for("east", logins=2)    # logged in for the second time
"""

from __future__ import annotations

import threading
from collections.abc import Iterator
from typing import Union

from lab.protocol import messages
from lab.server.known_relay import KnownRelay
from lab.server.link import ServerLink
from lab.server.record import Received, ServerRecord
from lab.server.roster import RelayRoster, unsigned
from lab.support.waiting import Deadline, LabTimeout

#: How a test names a relay: log-in name, id, or the object itself.
RelayName = Union[str, int, KnownRelay]


class ServerRelays:
    """All relays that ever logged in, in the order in which they first did. Safe from any
    thread."""

    def __init__(
        self, changed: threading.Condition, roster: RelayRoster, record: ServerRecord
    ) -> None:
        """`changed` is notified of every log-in, and by the links when one is complete."""
        self._changed = changed
        self._roster = roster
        self._record = record
        self._relays: dict[str, KnownRelay] = {}

    def __iter__(self) -> Iterator[KnownRelay]:
        return iter(list(self._relays.values()))

    def find(self, which: RelayName) -> KnownRelay | None:
        """A relay that has logged in here, or None."""
        if isinstance(which, KnownRelay):
            return self._relays.get(which.name)
        if isinstance(which, str):
            return self._relays.get(which)
        return next((one for one in self if one.id == unsigned(which)), None)

    def __getitem__(self, which: RelayName) -> KnownRelay:
        """A relay that has logged in here; LabTimeout when it has not."""
        found = self.find(which)
        if found is None:
            raise LabTimeout(f"no relay {which!r} has logged in; {list(self)}")
        return found

    def admit(self, login: messages.LogIn, link: ServerLink) -> int:
        """Notes an accepted log-in and returns the relay's id."""
        relay_id = self._roster.id_of(login.name)
        with self._changed:
            fresh = KnownRelay(login.name, self._roster, self._record)
            relay = self._relays.setdefault(login.name, fresh)
            if login.function != "CONTINUE":
                self._roster.begin_session(login.name)
                relay.clients.clear()
            relay.logins.append(login)
            if link not in relay.links:
                relay.links.append(link)
            link.relay_name = login.name
            self._changed.notify_all()
        return relay_id

    def note(self, message: messages.Message, link: ServerLink) -> None:
        """Has the relay that logged in on a link, if any, updated by a message from it."""
        with self._changed:
            relay = self._relays.get(link.relay_name)
            if relay is not None:
                relay.note(message)

    def wait_for(
        self, which: RelayName, within_secs: float = 10.0, *, logins: int = 1
    ) -> KnownRelay:
        """Waits until a relay is logged in, for the `logins`-th time or later."""
        deadline = Deadline(within_secs)
        with self._changed:
            while True:
                found = self.find(which)
                if found is not None and found.logged_in and len(found.logins) >= logins:
                    return found
                if not self._changed.wait(deadline.left()) and deadline.passed():
                    late = f"relay {which!r} not logged in within {within_secs} s"
                    raise LabTimeout(f"{late}; {list(self)}, {self._record}")

    def wait_joined(
        self, one: RelayName, other: RelayName, within_secs: float = 10.0, *, since: int = 0
    ) -> None:
        """Waits until one of two relays has confirmed the other as its client, since a mark of
        the record."""
        ids = {self[which].id for which in (one, other)}

        def confirms(received: Received) -> bool:
            message, relay = received.message, self.find(received.link.relay_name)
            if relay is None or not isinstance(message, messages.ConnectConfirm):
                return False
            return {relay.id, unsigned(message.client_id)} == ids

        self._record.wait_for_received(confirms, within_secs, since=since)
