"""The record of everything that relays sent to the stand-in connection server, with waits."""

from __future__ import annotations

import dataclasses
import threading
import time
from typing import Any, Callable, TypeVar

from lab.protocol import messages
from lab.server.link import ServerLink
from lab.support.waiting import Deadline, LabTimeout

M = TypeVar("M", bound=messages.Message)


@dataclasses.dataclass(frozen=True)
class Received:
    """A message from a relay, the link that it came on, and when (monotonic seconds)."""

    message: messages.Message
    link: ServerLink
    at: float = dataclasses.field(default_factory=time.monotonic)


class ServerRecord:
    """Messages in the order of arrival, of all links. Relays are given by log-in name. Safe from
    any thread."""

    def __init__(self, changed: threading.Condition) -> None:
        """`changed` is notified of every message."""
        self._changed = changed
        self.received: list[Received] = []
        #: What relays did that no correct relay does; empty after a good test.
        self.problems: list[str] = []

    def add(self, message: messages.Message, link: ServerLink) -> None:
        """Records a message that came on a link."""
        with self._changed:
            self.received.append(Received(message, link))
            self._changed.notify_all()

    def note_problem(self, text: str) -> None:
        """Records something that no correct relay does."""
        with self._changed:
            self.problems.append(text)
            self._changed.notify_all()

    def mark(self) -> int:
        """A point in the record: `since=mark` looks only at what came later."""
        with self._changed:
            return len(self.received)

    def messages_of(self, kind: type[M], since: int = 0, *, relay: str | None = None) -> list[M]:
        """The recorded messages of one class, in order of arrival: all, or those of a relay."""
        with self._changed:
            found = self.received[since:]
        return [
            one.message
            for one in found
            if isinstance(one.message, kind) and relay in (None, one.link.relay_name)
        ]

    def wait_for_received(
        self, predicate: Callable[[Received], Any], within_secs: float = 5.0, *, since: int = 0
    ) -> Received:
        """The first entry of the record, old or new, for which `predicate` holds."""
        deadline = Deadline(within_secs)
        with self._changed:
            while True:
                while since < len(self.received):
                    one = self.received[since]
                    since += 1
                    if predicate(one):
                        return one
                if not self._changed.wait(deadline.left()) and deadline.passed():
                    raise LabTimeout(f"message not received within {within_secs} s; {self}")

    def wait_for(
        self,
        predicate: Callable[[messages.Message], Any],
        within_secs: float = 5.0,
        *,
        since: int = 0,
        relay: str | None = None,
    ) -> messages.Message:
        """The first recorded message, old or new, for which `predicate` holds."""

        def fits(one: Received) -> bool:
            return relay in (None, one.link.relay_name) and predicate(one.message)

        return self.wait_for_received(fits, within_secs, since=since).message

    def wait_for_type(
        self,
        kind: type[M],
        within_secs: float = 5.0,
        *,
        since: int = 0,
        relay: str | None = None,
        **values: Any,
    ) -> M:
        """Waits for a message of a class whose fields have the given values."""

        def fits(message: messages.Message) -> bool:
            return isinstance(message, kind) and all(
                getattr(message, name) == value for name, value in values.items()
            )

        return self.wait_for(fits, within_secs, since=since, relay=relay)

    def __repr__(self) -> str:
        last = [one.message for one in self.received[-10:]]
        return f"last {last}, problems {self.problems}"
