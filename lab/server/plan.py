"""What a connection server maintains by itself: joined relays, routes.

Servers that stand in for one another share a plan, as they share the roster.
"""

from __future__ import annotations

import dataclasses
import threading

#: No pair is ordered together more often than this.
SPACING_SECS = 1.0
#: Relays give an outgoing connection 5 seconds and report no failure: then we retry.
RETRY_SECS = 6.0


@dataclasses.dataclass
class KeptPair:
    """Two relays by name: `opener` is ordered to connect to `peer`. Times are monotonic."""

    opener: str
    peer: str
    joined: bool = False
    ordered_at: float = float("-inf")
    due_at: float = 0.0

    def other(self, name: str) -> str:
        """The other relay of the pair; "" when `name` is neither of them."""
        return {self.opener: self.peer, self.peer: self.opener}.get(name, "")

    def part(self, now: float) -> None:
        """They have lost each other: the next order is due as soon as the spacing allows."""
        self.joined = False
        self.due_at = max(now, self.ordered_at + SPACING_SECS)

    def order(self, now: float) -> None:
        """An order is sent."""
        self.ordered_at = now
        self.due_at = now + RETRY_SECS


@dataclasses.dataclass(frozen=True)
class KeptRoute:
    """A route at the relay named `relay`; `to` is a client id or the name of another relay."""

    relay: str
    from_id: int
    to: int | str
    msg_class: int


class ServerPlan:
    """Pairs and routes. Hold `lock` while using them."""

    def __init__(self) -> None:
        self.lock = threading.Lock()
        #: Held while kept routes are sent, so that they stay in order.
        self.sending = threading.Lock()
        self.pairs: list[KeptPair] = []
        #: With the number of the relay's session in which the route was sent last.
        self.routes: dict[KeptRoute, int] = {}

    def pair(self, opener: str, peer: str) -> KeptPair | None:
        """The pair of these two relays, in either role."""
        return next((one for one in self.pairs if {one.opener, one.peer} == {opener, peer}), None)
