"""Many connections at once, from as many addresses as a relay's limit per address requires.

Nothing here waits for one connection before it opens the next, so a crowd connects as fast as the
machine allows. Its members send nothing by themselves: call `send_heartbeats` within the relay's
time limits, which a crowd on a busy machine reaches sooner than expected.
"""

from __future__ import annotations

import resource
from collections.abc import Iterator

from lab.protocol import messages
from lab.server.connection_server import ConnectionServer
from lab.stations.station import Station
from lab.support.addresses import new_address

#: Relays refuse the 100th connection of an address; some room is left for tests.
PER_ADDRESS = 60


def raise_descriptor_limit() -> None:
    """Raises the soft limit on descriptors of this process to the hard limit."""
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))


def source_addresses() -> Iterator[str]:
    """Addresses to connect from, each as often as a relay accepts it."""
    while True:
        address = new_address()
        for _ in range(PER_ADDRESS):
            yield address


class Crowd:
    """Stations that come and go together. Use as a context manager, or call `close`."""

    def __init__(
        self, address: str, port: int, *, tls: bool = False, sources: Iterator[str] | None = None
    ) -> None:
        """`sources` are the addresses to connect from, for crowds that share them."""
        raise_descriptor_limit()
        self._where = (address, port)
        self._tls = tls
        self._sources = sources or source_addresses()
        self.stations: list[Station] = []

    def __enter__(self) -> Crowd:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def connect(self, count: int) -> list[Station]:
        """`count` more connections, not logged in."""
        new = [
            Station.connect(*self._where, source_ip=next(self._sources), tls=self._tls)
            for _ in range(count)
        ]
        self.stations += new
        return new

    @staticmethod
    def log_in(stations: list[Station], server: ConnectionServer, within_secs: float = 10) -> None:
        """Logs all in under new ids: every ticket is sent before the first answer is read."""
        for station in stations:
            Crowd.send_login(station, server)
        for station in stations:
            station.expect(messages.Response, within_secs, return_code="OK")

    @staticmethod
    def send_login(station: Station, server: ConnectionServer, client_id: int = 0) -> None:
        """Sends one log-in without waiting for the answer."""
        station.client_id = client_id or server.new_client_id()
        ticket = server.ticket_for(station.client_id)
        station.send(messages.RelayConnect(station.client_id, ticket))

    def admit(self, count: int, server: ConnectionServer, at_a_time: int = 200) -> list[Station]:
        """`count` more stations that are logged in."""
        new: list[Station] = []
        while len(new) < count:
            wave = self.connect(min(at_a_time, count - len(new)))
            self.log_in(wave, server)
            new += wave
        return new

    def send_heartbeats(self) -> None:
        """Sends one heartbeat from every station."""
        for station in self.stations:
            station.send(messages.Heartbeat())

    def close(self) -> None:
        """Closes all connections."""
        for station in self.stations:
            station.close()
        self.stations.clear()
