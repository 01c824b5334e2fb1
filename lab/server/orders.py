"""What a stand-in connection server orders: routes, permissions, connections between relays.

Without `relay` an order goes to the newest link. Relays are named as in lab.server.relays.

    server.orders.join("east", "west")                       # east connects to west
    server.orders.join("east", "west", tcp_port=1)           # a malformed order
    server.orders.route_across(2001, "east", 2002, "west", messages.PIPE_CAPTION)
    server.orders.keep_joined("east", "west")                # and again after each loss
"""

from __future__ import annotations

import dataclasses
import threading
import time
from typing import Any

from lab.protocol import messages
from lab.protocol.tickets import address_value, make_ticket
from lab.server.known_relay import KnownRelay
from lab.server.link import ServerLink
from lab.server.links import ServerLinks
from lab.server.plan import KeptPair, KeptRoute, ServerPlan
from lab.server.relays import RelayName, ServerRelays
from lab.server.roster import RelayRoster
from lab.support.channel import PeerClosed
from lab.support.waiting import LabTimeout


@dataclasses.dataclass(frozen=True)
class SentOrder:
    """A connect order, the relay it went to, and when (monotonic)."""

    relay: str
    order: messages.ConnectOrder
    at: float


class ServerOrders:
    """Orders, built and sent. Safe from any thread."""

    def __init__(
        self,
        links: ServerLinks,
        relays: ServerRelays,
        roster: RelayRoster,
        plan: ServerPlan,
        changed: threading.Condition,
    ) -> None:
        """`changed` is notified when the plan gets a new pair to join."""
        self._links = links
        self._relays = relays
        self._roster = roster
        self._plan = plan
        self._changed = changed
        #: Every connect order that was sent, in order.
        self.sent_orders: list[SentOrder] = []

    def _link_to(self, relay: RelayName | None) -> ServerLink:
        return self._links.newest if relay is None else self._relays[relay].link

    def send(self, message: messages.Message, relay: RelayName | None = None) -> None:
        """Sends a message of any kind."""
        self._link_to(relay).send(message)

    def send_raw(self, data: bytes, relay: RelayName | None = None) -> None:
        """Sends bytes unchanged."""
        self._link_to(relay).send_raw(data)

    def send_challenge(self, number: int | None = None, relay: RelayName | None = None) -> None:
        """Sends a challenge, whether or not one is due."""
        self._link_to(relay).send_challenge(number)

    def heartbeat(self, relay: RelayName | None = None) -> None:
        """Sends one heartbeat."""
        self.send(messages.Heartbeat(), relay)

    def log_out_relay(self, name: str = "connserver", relay: RelayName | None = None) -> None:
        """Tells the relay that its session is over; `name` is the name in the message."""
        self.send(messages.LogOut(name), relay)

    def grant_video(self, from_id: int, to_id: int, relay: RelayName | None = None) -> None:
        """Permits video from one client to another."""
        self.send(messages.PremiumFeatureResponse(from_id, to_id, return_code="OK"), relay)

    def deny_video(
        self, from_id: int, to_id: int, code: str = "UNAUTHORIZED", relay: RelayName | None = None
    ) -> None:
        """Denies video from one client to another; `code` is the return code."""
        self.send(messages.PremiumFeatureResponse(from_id, to_id, return_code=code), relay)

    # -- routes ----------------------------------------------------------------------------

    def connect_route(
        self, from_id: int, to_id: int, msg_class: int, relay: RelayName | None = None
    ) -> None:
        """Orders a route; see the PIPE_ constants of lab.protocol.messages."""
        self.send(messages.RoutingUpdate("CONNECT", from_id, to_id, msg_class), relay)

    def disconnect_route(
        self, from_id: int, to_id: int, msg_class: int, relay: RelayName | None = None
    ) -> None:
        """Orders a route removed; an id of 0 means any."""
        self.send(messages.RoutingUpdate("DISCONNECT", from_id, to_id, msg_class), relay)

    def route_across(
        self,
        source_id: int,
        source_at: RelayName,
        to_id: int,
        to_at: RelayName,
        msg_class: int,
        *,
        keep: bool = False,
    ) -> None:
        """Orders a route from a client of one relay to a client of another: at the source's
        relay to the other relay, and there to the client. `keep`: as keep_route does."""
        first, last = self._relays[source_at], self._relays[to_at]
        if keep:
            self.keep_route(source_id, to_id, msg_class, last)
            self.keep_route(source_id, last.name, msg_class, first)
        else:
            self.connect_route(source_id, to_id, msg_class, last)
            self.connect_route(source_id, last.id, msg_class, first)

    def keep_route(
        self, from_id: int, to: int | str, msg_class: int, relay: RelayName
    ) -> None:
        """Orders a route at `relay` now or at its next log-in, and again whenever that relay
        begins a new session. `to` is a client id or the name of another relay."""
        name = relay if isinstance(relay, str) else self._relays[relay].name
        with self._plan.lock:
            self._plan.routes.setdefault(KeptRoute(name, from_id, to, msg_class), 0)
        self.send_kept_routes(name)

    def drop_route(self, from_id: int, to: int | str, msg_class: int, relay: RelayName) -> None:
        """Orders a kept route removed and stops keeping it."""
        name = relay if isinstance(relay, str) else self._relays[relay].name
        with self._plan.lock:
            self._plan.routes.pop(KeptRoute(name, from_id, to, msg_class), None)
        found = self._relays.find(name)
        if found is not None and found.logged_in:
            self.disconnect_route(from_id, self._target_id(to), msg_class, found)

    def send_kept_routes(self, name: str) -> None:
        """Sends a relay the kept routes that it has not been sent in its present session, if
        it is logged in here."""
        with self._plan.sending:
            relay = self._relays.find(name)
            if relay is None or not relay.logged_in:
                return
            session = self._roster.session(name)
            with self._plan.lock:
                missing = [
                    route
                    for route, sent_in in self._plan.routes.items()
                    if route.relay == name and sent_in != session
                ]
            for route in missing:
                self._send_kept_route(relay, route, session)

    def _send_kept_route(self, relay: KnownRelay, route: KeptRoute, session: int) -> None:
        try:
            to_id = self._target_id(route.to)
            self.connect_route(route.from_id, to_id, route.msg_class, relay)
        except (PeerClosed, LabTimeout):
            return  # It is sent at the next log-in.
        with self._plan.lock:
            if route in self._plan.routes:
                self._plan.routes[route] = session

    def _target_id(self, to: int | str) -> int:
        return self._roster.id_of(to) if isinstance(to, str) else to

    # -- relays to relays ------------------------------------------------------------------

    def connect_order(
        self,
        opener: RelayName,
        peer: RelayName,
        request: str = "CONNECT",
        *,
        ticket_age_secs: int = 0,
        bad_ticket: bool = False,
        address: str = "",
        **changes: Any,
    ) -> messages.ConnectOrder:
        """An order for `opener` to connect to `peer`, with a fresh ticket under the peer's key.
        A bad ticket is under another key. `changes` replace fields of the order."""
        source, target = self._relays[opener], self._relays[peer]
        key = bytes(byte ^ 0x5A for byte in target.des_key) if bad_ticket else target.des_key
        ticket = make_ticket(source.id, key, age_secs=ticket_age_secs, address=source.address)
        order = messages.ConnectOrder(
            target.id,
            address_value(address or target.address),
            target.tcp_port,
            ticket,
            request,
            target.udp_port,
            target.tls_port,
        )
        return dataclasses.replace(order, **changes)

    def order_connect(
        self, order: messages.ConnectOrder, relay: RelayName | None = None
    ) -> messages.ConnectOrder:
        """Sends a connect order of any kind."""
        link = self._link_to(relay)
        # Noted first, so that it is here when the order arrives.
        sent = SentOrder(link.relay_name, order, time.monotonic())
        self.sent_orders.append(sent)
        try:
            link.send(order)
        except (PeerClosed, LabTimeout):
            self.sent_orders.remove(sent)
            raise
        return order

    def join(self, opener: RelayName, peer: RelayName, **changes: Any) -> messages.ConnectOrder:
        """Orders `opener` to connect to `peer`; options as of connect_order."""
        return self.order_connect(self.connect_order(opener, peer, **changes), opener)

    def order_udp_registration(
        self, relay: RelayName, peer: RelayName, **changes: Any
    ) -> messages.ConnectOrder:
        """Orders `relay` to register its UDP addresses with `peer` again."""
        order = self.connect_order(relay, peer, **{"request": "UDP_REG", **changes})
        return self.order_connect(order, relay)

    def keep_joined(self, opener: RelayName, peer: RelayName) -> None:
        """Joins two relays as soon as both are logged in, and again whenever one of them has
        lost the other or begins a new session; at most once a second."""
        names = [one if isinstance(one, str) else self._relays[one].name for one in (opener, peer)]
        with self._changed:
            with self._plan.lock:
                if self._plan.pair(*names) is None:
                    self._plan.pairs.append(KeptPair(*names))
            self._changed.notify_all()

    def stop_keeping_joined(self, opener: RelayName, peer: RelayName) -> None:
        """Stops keeping two relays joined; an existing connection stays."""
        names = [one if isinstance(one, str) else self._relays[one].name for one in (opener, peer)]
        with self._plan.lock:
            kept = self._plan.pair(*names)
            self._plan.pairs = [one for one in self._plan.pairs if one is not kept]
