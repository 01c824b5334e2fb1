"""The record of everything that relays sent to the stand-in connection server, with waits."""

from __future__ import annotations

import dataclasses
import threading
import time
from typing import TYPE_CHECKING, Any, Callable, TypeVar

from lab import messages
from lab.waiting import Deadline, LabTimeout

if TYPE_CHECKING:
    from lab.known_relay import RelayName
    from lab.server_link import ServerLink

M = TypeVar("M", bound=messages.Message)


@dataclasses.dataclass(frozen=True)
class Received:
    """A message from a relay, the link that it came on, and when (monotonic seconds)."""

    message: messages.Message
    link: ServerLink
    at: float = dataclasses.field(default_factory=time.monotonic)


class ServerRecord:
    """Messages in the order of arrival, of all links. Safe from any thread."""

    def __init__(self) -> None:
        self.changed = threading.Condition()
        self.received: list[Received] = []
        #: What relays did that no sound relay does; empty after a good test.
        self.problems: list[str] = []

    def record(self, message: messages.Message, link: ServerLink, stage: str = "") -> None:
        """Records a message together with the stage that it brings its link to, if any."""
        with self.changed:
            link.stage = stage or link.stage
            if link.relay is not None:
                link.relay.note(message)
            self.received.append(Received(message, link))
            self.changed.notify_all()

    def note_problem(self, text: str) -> None:
        with self.changed:
            self.problems.append(text)
            self.changed.notify_all()

    def mark(self) -> int:
        """A point in the record: `since=mark` looks only at what came later."""
        with self.changed:
            return len(self.received)

    def messages_of(
        self, kind: type[M], since: int = 0, *, relay: RelayName | None = None
    ) -> list[M]:
        """The recorded messages of one class, in order of arrival: all, or those of a relay."""
        with self.changed:
            found = self.received[since:]
        return [
            one.message
            for one in found
            if isinstance(one.message, kind) and self._is_from(one, relay)
        ]

    def _is_from(self, one: Received, relay: RelayName | None) -> bool:
        if relay is None:
            return True
        return one.link.relay is not None and one.link.relay is self.find_relay(relay)

    def wait_for_received(
        self, predicate: Callable[[Received], Any], within_secs: float = 5.0, *, since: int = 0
    ) -> Received:
        """The first entry of the record, old or new, for which `predicate` holds."""
        deadline = Deadline(within_secs)
        with self.changed:
            while True:
                while since < len(self.received):
                    one = self.received[since]
                    since += 1
                    if predicate(one):
                        return one
                if not self.changed.wait(deadline.left()) and deadline.passed():
                    raise LabTimeout(f"message not received within {within_secs} s; {self}")

    def wait_for(
        self,
        predicate: Callable[[messages.Message], Any],
        within_secs: float = 5.0,
        *,
        since: int = 0,
        relay: RelayName | None = None,
    ) -> messages.Message:
        """The first recorded message, old or new, for which `predicate` holds."""

        def fits(one: Received) -> bool:
            return self._is_from(one, relay) and predicate(one.message)

        return self.wait_for_received(fits, within_secs, since=since).message

    def wait_for_type(
        self,
        kind: type[M],
        within_secs: float = 5.0,
        *,
        since: int = 0,
        relay: RelayName | None = None,
        **values: Any,
    ) -> M:
        """Waits for a message of a class whose fields have the given values."""

        def fits(message: messages.Message) -> bool:
            return isinstance(message, kind) and all(
                getattr(message, name) == value for name, value in values.items()
            )

        return self.wait_for(fits, within_secs, since=since, relay=relay)
