"""The clerk of a stand-in connection server: does by itself what no test wants to do by hand.

Answers relays that ask for a ticket to a peer, and keeps relays joined and routes in force as
the plan says. Works in a thread of its own, after the record of what relays sent.
"""

from __future__ import annotations

import dataclasses
import heapq
import itertools
import threading
import time
from typing import TYPE_CHECKING, Callable

from lab import messages
from lab.channel import PeerClosed
from lab.known_relay import KnownRelay, unsigned
from lab.server_plan import KeptPair
from lab.server_record import Received
from lab.waiting import LabTimeout

if TYPE_CHECKING:
    from lab.connection_server import ConnectionServer

_JOIN_SECS = 10.0


@dataclasses.dataclass
class TicketAnswers:
    """How requests for tickets are answered; may be changed at any time."""

    enabled: bool = True
    delay_secs: float = 0.0
    #: So many of the next answers carry a ticket that the peer refuses; float("inf"): all.
    bad_tickets: float = 0


class ServerClerk:
    """Runs from `start` to `stop`, any number of times, and misses nothing in between."""

    def __init__(self, server: ConnectionServer) -> None:
        self._server = server
        self._seen = 0
        self._tasks: list[tuple[float, int, Callable[[], None]]] = []
        self._task_numbers = itertools.count()
        self._stopping = False
        self._thread: threading.Thread | None = None

    def start(self) -> None:
        """Nothing new when it runs already."""
        if self._thread is not None:
            return
        self._stopping = False
        self._thread = threading.Thread(target=self._run, name="server-clerk", daemon=True)
        self._thread.start()

    def stop(self) -> None:
        """Ends the thread; answers still delayed are never given."""
        if self._thread is None:
            return
        with self._server.changed:
            self._stopping = True
            self._server.changed.notify_all()
        self._thread.join(_JOIN_SECS)
        self._thread = None
        self._tasks.clear()

    # -- the clerk's own thread ------------------------------------------------------------

    def _run(self) -> None:
        while True:
            news = self._wait_for_work()
            if self._stopping:
                return
            for one in news:
                if one.link.relay is not None:
                    self._take(one, one.link.relay)
            self._do_what_is_due()

    def _wait_for_work(self) -> list[Received]:
        """What was received meanwhile, as soon as there is something or something is due."""
        server = self._server
        with server.changed:
            while not self._stopping and self._seen == len(server.received):
                secs = self._secs_to_next()
                if secs is not None and secs <= 0:
                    break
                server.changed.wait(secs)
            news = server.received[self._seen :]
            if not self._stopping:
                self._seen += len(news)
            return news

    def _secs_to_next(self) -> float | None:
        times = [self._tasks[0][0]] if self._tasks else []
        with self._server.plan.lock:
            times += [pair.due_at for pair in self._server.plan.pairs if self._is_ours(pair)]
        return min(times) - time.monotonic() if times else None

    def _is_ours(self, pair: KeptPair) -> bool:
        """Whether a pair is apart and we could join it."""
        relays = [self._server.find_relay(name) for name in (pair.opener, pair.peer)]
        return not pair.joined and all(one is not None and one.logged_in for one in relays)

    def _do_what_is_due(self) -> None:
        now = time.monotonic()
        while self._tasks and self._tasks[0][0] <= now:
            self._try(heapq.heappop(self._tasks)[2])
        with self._server.plan.lock:
            due = [
                pair
                for pair in self._server.plan.pairs
                if pair.due_at <= now and self._is_ours(pair)
            ]
            for pair in due:
                pair.order(now)
        for pair in due:
            self._try(lambda one=pair: self._server.join(one.opener, one.peer))
            # Sending takes time, and the spacing is to hold from order to order.
            with self._server.plan.lock:
                pair.order(time.monotonic())

    @staticmethod
    def _try(action: Callable[[], None]) -> None:
        try:
            action()
        except (PeerClosed, LabTimeout):
            pass  # The relay has gone; it will report again.

    def _take(self, one: Received, relay: KnownRelay) -> None:
        message = one.message
        if isinstance(message, messages.TicketRequest):
            self._take_request(message, relay)
        elif isinstance(message, messages.RelayPort):
            if one.link.login is not None and one.link.login.function != "CONTINUE":
                self._part(relay.name, "")
            self._try(lambda: self._server.send_kept_routes(relay.name))
        elif isinstance(message, (messages.ConnectConfirm, messages.LostConnection)):
            peer = self._server.find_relay(unsigned(message.client_id))
            if peer is not None and isinstance(message, messages.LostConnection):
                self._part(relay.name, peer.name)
            elif peer is not None:
                self._meet(relay.name, peer.name)

    def _part(self, name: str, peer: str) -> None:
        """A relay has lost a peer, or with a new session all of them."""
        now = time.monotonic()
        with self._server.plan.lock:
            for pair in self._server.plan.pairs:
                other = pair.other(name)
                if other and peer in ("", other):
                    pair.part(now)

    def _meet(self, name: str, peer: str) -> None:
        with self._server.plan.lock:
            pair = self._server.plan.pair(name, peer)
            if pair is not None:
                pair.joined = True

    def _take_request(self, request: messages.TicketRequest, relay: KnownRelay) -> None:
        answers = self._server.answers
        peer = self._server.find_relay(request.requested_id)
        if not answers.enabled or request.request != "UDP_REG" or peer in (None, relay):
            return
        at = time.monotonic() + answers.delay_secs
        task = (at, next(self._task_numbers), lambda: self._answer(relay, peer))
        heapq.heappush(self._tasks, task)

    def _answer(self, relay: KnownRelay, peer: KnownRelay) -> None:
        answers = self._server.answers
        bad = answers.bad_tickets > 0
        if bad:
            answers.bad_tickets -= 1
        self._server.order_udp_registration(relay, peer, bad_ticket=bad)
