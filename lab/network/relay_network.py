"""Several relays at one connection server, joined by its orders, with stations at each.

    with Cluster() as cluster, RelayNetwork(cluster, ("east", "west")) as network:
        network.join("east", "west")
        captioner = network.station(Captioner, at="east")
        encoder = network.station(Encoder, at="west")
        network.route(captioner, encoder, messages.PIPE_CAPTION)
        captioner.caption(b"AB")
        encoder.receive_caption()
"""

from __future__ import annotations

from collections.abc import Iterable
from typing import TypeVar

from lab.network.relay_nodes import READY_SECS, RelayNodes
from lab.relay import join_log
from lab.stations.caption_stations import Station
from lab.support.waiting import Deadline

S = TypeVar("S", bound=Station)

#: Two relays need more than one period of the limit on log-ins to register all programs.
_AUDIO_SECS = 30.0


class RelayNetwork(RelayNodes):
    """Joins its relays, and connects stations to them."""

    def __init__(self, *arguments: object, **options: object) -> None:
        """Arguments as of RelayNodes."""
        super().__init__(*arguments, **options)
        self._homes: dict[int, str] = {}

    # -- joined relays ---------------------------------------------------------------------

    def mark(self) -> dict[str, int]:
        """A point in all logs, for `since`."""
        return {name: node.log.mark() for name, node in self.nodes.items()}

    def join(self, opener: str, peer: str, *, keep: bool = False, audio: bool = False) -> None:
        """Joins two relays and waits until they and the server know; `keep`: joins them again
        after every loss; `audio`: waits for the registrations of all programs too."""
        since, server = self.mark(), self.server_of(opener)
        told = server.record.mark()
        if keep:
            server.orders.keep_joined(opener, peer)
        else:
            server.orders.join(opener, peer)
        self.wait_joined(opener, peer, since=since)
        server.relays.wait_joined(opener, peer, since=told)
        if audio:
            self.wait_audio_joined(opener, peer, since=since)

    def wait_joined(
        self,
        opener: str,
        peer: str,
        within_secs: float = READY_SECS,
        *,
        since: dict[str, int] | None = None,
    ) -> None:
        """Waits until `peer` has admitted `opener` and told it so, since a mark."""
        since = since or {}
        ends = []
        for name in (opener, peer):
            ends += [self[name].log, self.server.roster.id_of(name), since.get(name, 0)]
        join_log.wait_admitted(*ends, within_secs)

    def wait_audio_joined(
        self,
        one: str,
        other: str,
        within_secs: float = _AUDIO_SECS,
        *,
        programs: Iterable[int] = join_log.PROGRAMS,
        since: dict[str, int] | None = None,
    ) -> None:
        """Waits until each of two relays has the other's audio addresses, since a mark."""
        deadline, programs = Deadline(within_secs), list(programs)
        for at, peer in ((one, other), (other, one)):
            peer_id, start = self.server.roster.id_of(peer), (since or {}).get(at, 0)
            join_log.wait_registered(self[at].log, peer_id, start, deadline.left(), programs)

    # -- stations --------------------------------------------------------------------------

    def connect(
        self, kind: type[S] = Station, *, at: str, tls: bool | None = None, **options: object
    ) -> S:
        """A station connected to a relay and not logged in; by TLS if the network is."""
        relay = self[at].relay
        tls = self.tls if tls is None else tls
        port = relay.tls_port if tls else relay.tcp_port
        station = kind.connect(relay.address, port, tls=tls, **options)
        self.stations.append(station)
        return station

    def station(
        self,
        kind: type[S] = Station,
        *,
        at: str,
        client_id: int | None = None,
        heartbeats: bool = True,
        **options: object,
    ) -> S:
        """A station logged in to a relay with a fresh ticket, under a new client id by default."""
        station = self.connect(kind, at=at, **options)
        client_id = self.server.new_client_id() if client_id is None else client_id
        station.login(client_id, self.ticket_for(client_id, at))
        self._homes[client_id] = at
        if heartbeats:
            station.start_heartbeats()
        return station

    def ticket_for(self, client_id: int, at: str) -> bytes:
        """A fresh ticket for the relay `at`."""
        return self.known(at).ticket_for(client_id)

    def home_of(self, station: Station | int) -> str:
        """The relay to which a station logged in last."""
        return self._homes[_id_of(station)]

    def route(
        self, source: Station | int, to: Station | int, msg_class: int, *, keep: bool = False
    ) -> None:
        """Has a route ordered between stations at the same relay or two joined ones; returns
        when it is in effect. `keep`: it is ordered again in every new session of a relay."""
        from_id, to_id = _id_of(source), _id_of(to)
        first, last = self.home_of(from_id), self.home_of(to_id)
        server = self.server_of(first)
        if first != last:
            server.orders.route_across(from_id, first, to_id, last, msg_class, keep=keep)
        elif keep:
            server.orders.keep_route(from_id, to_id, msg_class, first)
        else:
            server.orders.connect_route(from_id, to_id, msg_class, first)
        self.wait_routed(from_id, to_id, msg_class)

    def wait_routed(self, source: Station | int, to: Station | int, msg_class: int) -> None:
        """Waits until the route is in the table of each relay on the path."""
        from_id, to_id = _id_of(source), _id_of(to)
        first, last = self.home_of(from_id), self.home_of(to_id)
        self[last].schema.wait_for_route((from_id, to_id, msg_class))
        if first != last:
            peer_id = self.server.roster.id_of(last)
            self[first].schema.wait_for_route((from_id, peer_id, msg_class))


def _id_of(station: Station | int) -> int:
    return station if isinstance(station, int) else station.client_id
