"""Answers relays that ask the stand-in connection server for a ticket to a peer."""

from __future__ import annotations

import heapq
import itertools
import time

from lab.protocol import messages
from lab.server.known_relay import KnownRelay
from lab.server.orders import ServerOrders
from lab.server.relays import ServerRelays
from lab.support.channel import PeerClosed
from lab.support.waiting import LabTimeout


class TicketIssuer:
    """Takes requests and issues tickets, both in the thread of lab.server.upkeep. How it answers
    may be changed at any time, from any thread."""

    def __init__(self, relays: ServerRelays, orders: ServerOrders) -> None:
        self.enabled = True
        self.delay_secs = 0.0
        #: How many of the next tickets are bad, so that the peer refuses them; float("inf"): all.
        self.bad_tickets: float = 0
        self._relays = relays
        self._orders = orders
        # When the ticket is due, a number that keeps the order, the relay, its peer.
        self._due: list[tuple[float, int, KnownRelay, KnownRelay]] = []
        self._numbers = itertools.count()

    def take(self, request: messages.TicketRequest, relay: KnownRelay) -> None:
        """Plans the answer to a relay's request, if it gets one."""
        peer = self._relays.find(request.requested_id)
        if not self.enabled or request.request != "UDP_REG" or peer in (None, relay):
            return
        at = time.monotonic() + self.delay_secs
        heapq.heappush(self._due, (at, next(self._numbers), relay, peer))

    def next_due_at(self) -> float | None:
        """When the next ticket is due (monotonic seconds); None when there is none."""
        return self._due[0][0] if self._due else None

    def issue_due(self, now: float) -> None:
        """Issues every ticket that is due."""
        while self._due and self._due[0][0] <= now:
            _, _, relay, peer = heapq.heappop(self._due)
            try:
                self._issue(relay, peer)
            except (PeerClosed, LabTimeout):
                pass  # The relay has gone; it will ask again.

    def _issue(self, relay: KnownRelay, peer: KnownRelay) -> None:
        bad = self.bad_tickets > 0
        if bad:
            self.bad_tickets -= 1
        self._orders.order_udp_registration(relay, peer, bad_ticket=bad)

    def forget_requests(self) -> None:
        """Tickets that are not issued yet never will be."""
        self._due.clear()
