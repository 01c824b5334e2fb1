"""The fixtures of every end-to-end test: a database, connection servers, relays, stations.

Everything that a test makes through these fixtures is shut down after it, and every relay is judged
at its end: it exits with status 0 (or with its `expected_status`), no sanitizer reports an error,
and the connection servers have received nothing that a correct relay does not send.
"""

from __future__ import annotations

import contextlib
import dataclasses
import sys
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from lab.database.cluster import Cluster, Schema  # noqa: E402
from lab.network.relay_network import RelayNetwork  # noqa: E402
from lab.protocol.keys import Certificate, write_certificate  # noqa: E402
from lab.protocol.messages import PIPE_CAPTION  # noqa: E402
from lab.pytest_plugins.relay_log import pytest_runtest_makereport  # noqa: E402, F401
from lab.pytest_plugins.scheduling import (  # noqa: E402, F401
    pytest_collection_modifyitems,
    pytest_xdist_make_scheduler,
)
from lab.relay.config import RelayConfig  # noqa: E402
from lab.relay.relay import Relay  # noqa: E402
from lab.server.connection_server import ConnectionServer  # noqa: E402
from lab.stations.caption_stations import Captioner, Encoder, Station  # noqa: E402
from lab.support.addresses import new_address  # noqa: E402
from peer_tools import StandInPeer  # noqa: E402
from scripted_endpoint import Answer, ScriptedEndpoint  # noqa: E402

#: How long a relay may take to start and log in, and to end.
READY_SECS = 20.0
EXIT_SECS = 15.0

_CONFIG_NAMES = {field.name for field in dataclasses.fields(RelayConfig)}


def pytest_configure(config: pytest.Config) -> None:
    # A traceback in a thread of the lab fails the test during which it occurs.
    config.addinivalue_line("filterwarnings", "error::pytest.PytestUnhandledThreadExceptionWarning")
    config.addinivalue_line(
        "markers", "threads: runs with the thread sanitizer too, for it keeps all threads busy"
    )
    config.addinivalue_line("markers", "long: waits half a minute or more, and so begins first")


class TestedRelay(Relay):
    """A relay that knows its schema and server and how it is expected to end."""

    #: The expected exit status; None accepts any.
    expected_status: int | None = 0
    schema: Schema
    server: ConnectionServer

    def end_and_judge(self) -> None:
        """Ends the relay if it still runs; AssertionError when its end is not as expected."""
        try:
            if self._process is None:
                return
            status = self.stop(EXIT_SECS) if self.running else self.wait_exit(EXIT_SECS)
            assert self.sanitizer_reports() == []
            if self.expected_status is not None:
                assert status == self.expected_status
        finally:
            self.close()


@pytest.fixture(scope="session")
def cluster() -> Iterator[Cluster]:
    """One database server per test process."""
    with Cluster() as cluster:
        yield cluster


@pytest.fixture
def own_cluster() -> Iterator[Cluster]:
    """A database server that the test may stop and start."""
    with Cluster() as cluster:
        yield cluster


@pytest.fixture
def make_server() -> Iterator[Callable[..., ConnectionServer]]:
    """Makes connection servers, started unless `start` is false; options go to its class."""
    servers: list[ConnectionServer] = []

    def make(*, start: bool = True, **options: object) -> ConnectionServer:
        server = ConnectionServer(**options)
        servers.append(server)
        return server.start() if start else server

    yield make
    for server in servers:
        server.close()
    for server in servers:
        assert server.record.problems == []


@pytest.fixture
def server(make_server: Callable[..., ConnectionServer]) -> ConnectionServer:
    """A plain connection server, started."""
    return make_server()


@pytest.fixture(scope="session")
def server_certificate(tmp_path_factory: pytest.TempPathFactory) -> Certificate:
    """The certificate of connection servers that speak TLS."""
    return write_certificate(tmp_path_factory.mktemp("certificate"), "connserver")


@pytest.fixture
def tls_server(
    make_server: Callable[..., ConnectionServer], server_certificate: Certificate
) -> ConnectionServer:
    """A connection server that speaks TLS, started at a port of its own."""
    return make_server(address=new_address(), port=0, certificate=server_certificate)


@pytest.fixture
def make_relay(cluster: Cluster, server: ConnectionServer) -> Iterator[Callable[..., TestedRelay]]:
    """Makes relays: `make_relay(servers=[...], max_time_away_secs=3, tls=True, ready=False)`.

    Names of RelayConfig fields set those, all others go to Relay. Without `servers` the relay
    logs in to `using` (the fixture `server` by default). Each gets a schema of its own, or
    `schema`. `start` starts it, `ready` waits until it is logged in.
    """
    relays: list[TestedRelay] = []

    def make(
        *,
        using: ConnectionServer | None = None,
        schema: Schema | None = None,
        start: bool = True,
        ready: bool = True,
        env: dict[str, str] | None = None,
        **options: object,
    ) -> TestedRelay:
        using = using or server
        config = RelayConfig(**{k: v for k, v in options.items() if k in _CONFIG_NAMES})
        if not config.servers:
            config.servers = [using.address]
            if using.tls and config.server_tls_port is None:
                config.server_tls_port = using.port
        schema = schema or cluster.new_schema()
        others = {k: v for k, v in options.items() if k not in _CONFIG_NAMES}
        relay = TestedRelay(config, env={**schema.env, **(env or {})}, **others)
        relay.schema, relay.server = schema, using
        relays.append(relay)
        if start:
            relay.start()
        if start and ready:
            relay.wait_ready(READY_SECS)
            using.wait_logged_in(READY_SECS)
        return relay

    yield make
    with contextlib.ExitStack() as ends:
        for relay in relays:
            ends.callback(relay.end_and_judge)


@pytest.fixture
def relay(make_relay: Callable[..., TestedRelay]) -> TestedRelay:
    """A relay logged in to `server`, on a schema of its own."""
    return make_relay()


@pytest.fixture
def tls_relay(make_relay: Callable[..., TestedRelay]) -> TestedRelay:
    """Like `relay`, and it listens for TLS clients too."""
    return make_relay(tls=True)


@pytest.fixture
def make_network(cluster: Cluster) -> Iterator[Callable[..., RelayNetwork]]:
    """Makes several relays at a connection server of their own, logged in:
    `make_network("east", "west", fec=True)`. Options go to RelayNetwork."""
    networks: list[RelayNetwork] = []

    def make(*names: str, **options: object) -> RelayNetwork:
        names = names or ("east", "west")
        networks.append(RelayNetwork(cluster, names, make_relay=TestedRelay, **options))
        return networks[-1].start()

    yield make
    with contextlib.ExitStack() as ends:
        for network in networks:
            ends.callback(_end_network, network)


def _end_network(network: RelayNetwork) -> None:
    """Ends a network, stations first, and judges each relay and the server."""
    with contextlib.ExitStack() as ends:
        ends.callback(network.close)
        for station in network.stations:
            station.close()
        for node in network.nodes.values():
            ends.callback(node.relay.end_and_judge)
    assert network.server.record.problems == []


@pytest.fixture
def network(make_network: Callable[..., RelayNetwork]) -> RelayNetwork:
    """The relays "east" and "west", not joined yet."""
    return make_network()


@pytest.fixture
def make_station() -> Iterator[Callable[..., Station]]:
    """Connects stations: `make_station(relay, Captioner)` is logged in, under a new id or
    `client_id`; `login=False` only connects. `tls` uses the TLS port. Heartbeats keep it from being
    dropped as idle. More options go to Station.connect."""
    stations: list[Station] = []

    def make(
        relay: TestedRelay,
        kind: type[Station] = Station,
        *,
        client_id: int | None = None,
        login: bool = True,
        tls: bool = False,
        heartbeats: bool = True,
        **options: object,
    ) -> Station:
        port = relay.tls_port if tls else relay.tcp_port
        station = kind.connect(relay.address, port, tls=tls, **options)
        stations.append(station)
        if login:
            client_id = relay.server.new_client_id() if client_id is None else client_id
            station.login(client_id, relay.server.ticket_for(client_id))
        if login and heartbeats:
            station.start_heartbeats()
        return station

    yield make
    for station in stations:
        station.close()


@pytest.fixture
def route() -> Callable[..., None]:
    """Orders a route between stations or ids and waits until it is in the table."""

    def order(
        relay: TestedRelay, source: Station | int, to: Station | int, msg_class: int
    ) -> None:
        from_id = source if isinstance(source, int) else source.client_id
        to_id = to if isinstance(to, int) else to.client_id
        relay.server.orders.connect_route(from_id, to_id, msg_class)
        relay.schema.wait_for_route((from_id, to_id, msg_class))

    return order


@pytest.fixture
def peer(server: ConnectionServer) -> Iterator[StandInPeer]:
    """A stand-in for another relay, which no order has named yet."""
    with StandInPeer(server.new_client_id()) as peer:
        yield peer


@pytest.fixture
def make_endpoint() -> Iterator[Callable[..., ScriptedEndpoint]]:
    """Makes archive endpoints, open unless `start` is false: `make_endpoint(500, Answer("reset"))`
    answers the first two posts so."""
    endpoints: list[ScriptedEndpoint] = []

    def make(*plan: Answer | int, start: bool = True) -> ScriptedEndpoint:
        endpoints.append(ScriptedEndpoint(*plan))
        return endpoints[-1].open() if start else endpoints[-1]

    yield make
    for endpoint in endpoints:
        endpoint.close()


@pytest.fixture
def bystanders(
    relay: TestedRelay, make_station: Callable[..., Station], route: Callable[..., None]
) -> Iterator[tuple[Captioner, Encoder]]:
    """A captioner and an encoder that have to be served to the end, whatever the test does to
    others."""
    captioner, encoder = make_station(relay, Captioner), make_station(relay, Encoder)
    route(relay, captioner, encoder, PIPE_CAPTION)
    yield captioner, encoder
    captioner.caption(b"still here")
    assert encoder.receive_caption()[0] == b"still here"
