"""What a stand-in connection server does by itself, in response to what relays send.

Keeps relays joined and routes in effect as the plan says, and answers requests for tickets.
"""

from __future__ import annotations

import threading
import time
from typing import Callable

from lab.protocol import messages
from lab.server.known_relay import KnownRelay
from lab.server.orders import ServerOrders
from lab.server.plan import KeptPair, ServerPlan
from lab.server.record import Received, ServerRecord
from lab.server.relays import ServerRelays
from lab.server.roster import unsigned
from lab.server.ticket_issuer import TicketIssuer
from lab.support.channel import PeerClosed
from lab.support.waiting import LabTimeout

_JOIN_SECS = 10.0


class ServerUpkeep:
    """Works in a thread of its own from `start` to `stop`, any number of times, and misses
    nothing in between."""

    def __init__(
        self,
        record: ServerRecord,
        relays: ServerRelays,
        orders: ServerOrders,
        plan: ServerPlan,
        tickets: TicketIssuer,
        changed: threading.Condition,
    ) -> None:
        """`changed` announces changes of the record and the plan."""
        self._record = record
        self._relays = relays
        self._orders = orders
        self._plan = plan
        self._tickets = tickets
        self._changed = changed
        self._seen = 0
        self._stopping = False
        self._thread: threading.Thread | None = None

    def start(self) -> None:
        """Does nothing when it is running already."""
        if self._thread is not None:
            return
        self._stopping = False
        self._thread = threading.Thread(target=self._run, name="server-upkeep", daemon=True)
        self._thread.start()

    def stop(self) -> None:
        """Ends the thread; answers still delayed are never given."""
        if self._thread is None:
            return
        with self._changed:
            self._stopping = True
            self._changed.notify_all()
        self._thread.join(_JOIN_SECS)
        self._thread = None
        self._tickets.forget_requests()

    # -- the thread ------------------------------------------------------------------------

    def _run(self) -> None:
        while True:
            news = self._wait_for_work()
            if self._stopping:
                return
            for one in news:
                relay = self._relays.find(one.link.relay_name)
                if relay is not None:
                    self._take(one, relay)
            self._tickets.issue_due(time.monotonic())
            self._join_due(time.monotonic())

    def _wait_for_work(self) -> list[Received]:
        """What was received meanwhile; returns as soon as that or anything due is there."""
        received = self._record.received
        with self._changed:
            while not self._stopping and self._seen == len(received):
                secs = self._secs_to_next()
                if secs is not None and secs <= 0:
                    break
                self._changed.wait(secs)
            news = received[self._seen :]
            if not self._stopping:
                self._seen += len(news)
            return news

    def _secs_to_next(self) -> float | None:
        ticket_at = self._tickets.next_due_at()
        times = [] if ticket_at is None else [ticket_at]
        with self._plan.lock:
            times += [pair.due_at for pair in self._plan.pairs if self._can_join(pair)]
        return min(times) - time.monotonic() if times else None

    def _can_join(self, pair: KeptPair) -> bool:
        """Whether a pair is disconnected and both its relays are logged in here."""
        relays = [self._relays.find(name) for name in (pair.opener, pair.peer)]
        return not pair.joined and all(one is not None and one.logged_in for one in relays)

    def _join_due(self, now: float) -> None:
        with self._plan.lock:
            due = [
                pair for pair in self._plan.pairs if pair.due_at <= now and self._can_join(pair)
            ]
            for pair in due:
                pair.order(now)
        for pair in due:
            self._try(lambda one=pair: self._orders.join(one.opener, one.peer))
            # Sending takes time, and the spacing has to hold from order to order.
            with self._plan.lock:
                pair.order(time.monotonic())

    @staticmethod
    def _try(action: Callable[[], object]) -> None:
        try:
            action()
        except (PeerClosed, LabTimeout):
            pass  # The relay has gone; it will report again.

    def _take(self, one: Received, relay: KnownRelay) -> None:
        message = one.message
        if isinstance(message, messages.TicketRequest):
            self._tickets.take(message, relay)
        elif isinstance(message, messages.RelayPort):
            if one.link.login is not None and one.link.login.function != "CONTINUE":
                self._part(relay.name, "")
            self._try(lambda: self._orders.send_kept_routes(relay.name))
        elif isinstance(message, (messages.ConnectConfirm, messages.LostConnection)):
            peer = self._relays.find(unsigned(message.client_id))
            if peer is not None and isinstance(message, messages.LostConnection):
                self._part(relay.name, peer.name)
            elif peer is not None:
                self._meet(relay.name, peer.name)

    def _part(self, name: str, peer: str) -> None:
        """A relay has lost a peer, or with a new session all of them."""
        now = time.monotonic()
        with self._plan.lock:
            for pair in self._plan.pairs:
                other = pair.other(name)
                if other and peer in ("", other):
                    pair.part(now)

    def _meet(self, name: str, peer: str) -> None:
        """A relay has confirmed a peer."""
        with self._plan.lock:
            pair = self._plan.pair(name, peer)
            if pair is not None:
                pair.joined = True
