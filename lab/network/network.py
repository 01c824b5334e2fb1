"""One relay with everything around it: database, connection server, stations.

    with Cluster() as cluster, Network(cluster) as network:
        captioner = network.station(Captioner)
        encoder = network.station(Encoder)
        network.route(captioner, encoder, messages.PIPE_CAPTION)
        captioner.caption(b"AB")
        encoder.receive_caption()
"""

from __future__ import annotations

import os
import tempfile
from pathlib import Path
from typing import TypeVar

from lab.database.cluster import Cluster
from lab.protocol.keys import write_certificate
from lab.relay.config import RelayConfig
from lab.relay.relay import Relay
from lab.server.connection_server import ConnectionServer
from lab.stations.caption_stations import Station
from lab.support.addresses import new_address

S = TypeVar("S", bound=Station)


class Network:
    """One relay, logged in, between one connection server and any number of stations."""

    def __init__(
        self,
        cluster: Cluster,
        config: RelayConfig | None = None,
        *,
        tls: bool = False,
        binary: str | os.PathLike[str] | None = None,
        server: ConnectionServer | None = None,
        env: dict[str, str] | None = None,
        **relay_options: object,
    ) -> None:
        """`tls` encrypts the link to the connection server and lets stations use TLS.
        `server` replaces the default one, and is started here. `env` is added to the relay's
        environment. Other options go to Relay."""
        self.tls = tls
        self.schema = cluster.new_schema()
        self._folder = tempfile.TemporaryDirectory(prefix="tessel-lab-")
        self.server = server or self._make_server()
        config = config or RelayConfig()
        config.servers = config.servers or [self.server.address]
        if self.server.tls:
            config.server_tls_port = self.server.port
        env = {**self.schema.env, **(env or {})}
        self.relay = Relay(config, env=env, binary=binary, tls=tls, **relay_options)
        self.stations: list[Station] = []

    def _make_server(self) -> ConnectionServer:
        if not self.tls:
            return ConnectionServer()
        address = new_address()
        folder = Path(self._folder.name)
        certificate = write_certificate(folder, "connserver", (address,))
        return ConnectionServer(address, port=0, certificate=certificate)

    def __enter__(self) -> Network:
        return self.start()

    def __exit__(self, *_: object) -> None:
        self.close()

    def start(self, within_secs: float = 20.0) -> Network:
        """Starts server and relay and waits until the relay is logged in."""
        try:
            self.server.start()
            if self.server.tls:
                self.relay.config.server_tls_port = self.server.port
            self.relay.start()
            self.relay.wait_ready(within_secs)
            self.server.wait_logged_in(within_secs)
        except BaseException:
            self.close()
            raise
        return self

    def close(self) -> None:
        """Shuts everything down, stations first."""
        for station in self.stations:
            station.close()
        self.stations.clear()
        self.relay.close()
        self.server.close()
        self._folder.cleanup()

    def connect(self, kind: type[S] = Station, *, tls: bool | None = None, **options: object) -> S:
        """A station connected to the relay and not logged in; by TLS if the network is."""
        tls = self.tls if tls is None else tls
        port = self.relay.tls_port if tls else self.relay.tcp_port
        station = kind.connect(self.relay.address, port, tls=tls, **options)
        self.stations.append(station)
        return station

    def station(
        self,
        kind: type[S] = Station,
        *,
        client_id: int | None = None,
        heartbeats: bool = False,
        **options: object,
    ) -> S:
        """A station logged in with a fresh ticket, under a new client id by default."""
        station = self.connect(kind, **options)
        client_id = self.server.new_client_id() if client_id is None else client_id
        station.login(client_id, self.server.ticket_for(client_id))
        if heartbeats:
            station.start_heartbeats()
        return station

    def route(self, source: Station | int, to: Station | int, msg_class: int) -> None:
        """Has the connection server order a route; returns when it is in effect."""
        from_id, to_id = _id_of(source), _id_of(to)
        self.server.orders.connect_route(from_id, to_id, msg_class)
        self.schema.wait_for_route((from_id, to_id, msg_class))

    def unroute(self, source: Station | int, to: Station | int, msg_class: int) -> None:
        """Has the route ordered removed; returns when it is out of the table."""
        route = (_id_of(source), _id_of(to), msg_class)
        self.server.orders.disconnect_route(*route)
        self.schema.wait_for_routes(self.schema.routes() - {route})


def _id_of(station: Station | int) -> int:
    return station if isinstance(station, int) else station.client_id
