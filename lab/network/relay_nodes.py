"""Relays by name at one connection server, and their failures.

The base of lab.network.relay_network: makes, starts, kills and restarts relays and servers.
"""

from __future__ import annotations

import dataclasses
import os
import tempfile
from collections.abc import Callable, Iterable
from pathlib import Path
from typing import TypeVar

from lab.database.cluster import Cluster, Schema
from lab.protocol.keys import Certificate, write_certificate
from lab.relay.config import RelayConfig
from lab.relay.relay import Relay
from lab.server.connection_server import ConnectionServer
from lab.server.known_relay import KnownRelay
from lab.stations.caption_stations import Station
from lab.support.process_log import ProcessLog
from lab.support.waiting import LabTimeout, wait_until

N = TypeVar("N", bound="RelayNodes")

#: How long relays may take to start, to log in, to come back.
READY_SECS = 20.0


@dataclasses.dataclass
class Node:
    """One relay of the network and its own schema; its name is its log-in name."""

    name: str
    relay: Relay
    schema: Schema

    @property
    def log(self) -> ProcessLog:
        """The relay's output."""
        return self.relay.log


class RelayNodes:
    """Relays by name, a connection server for all of them, and a backup server if wanted."""

    def __init__(
        self,
        cluster: Cluster,
        names: Iterable[str] = ("east", "west"),
        *,
        fec: bool | None = None,
        tls: bool = False,
        backup: bool = False,
        configs: dict[str, RelayConfig] | None = None,
        binary: str | os.PathLike[str] | None = None,
        make_relay: Callable[..., Relay] = Relay,
        env: dict[str, str] | None = None,
        **relay_options: object,
    ) -> None:
        """`tls` encrypts the links to the servers and lets stations use TLS. `backup` adds a
        second server to the relays' lists, which is started by `replace_server`. `configs`
        holds configurations by name, where they differ from the default; other options go to
        `make_relay`."""
        self.tls = tls
        self._folder = tempfile.TemporaryDirectory(prefix="tessel-lab-")
        self._certificate = self._make_certificate() if tls else None
        self.server = self._make_server()
        self.backup = self._make_server(stands_in_for=self.server) if backup else None
        self.nodes: dict[str, Node] = {}
        self.stations: list[Station] = []
        for name in names:
            config = self._configure(name, (configs or {}).get(name), fec)
            schema = cluster.new_schema()
            self.server.roster.id_of(name)  # Assigns ids in the order of the names.
            relay = make_relay(
                config, env={**schema.env, **(env or {})}, binary=binary, tls=tls, **relay_options
            )
            self.nodes[name] = Node(name, relay, schema)

    def _make_certificate(self) -> Certificate:
        return write_certificate(Path(self._folder.name), "connserver")

    def _make_server(self, **options: object) -> ConnectionServer:
        if self._certificate is None:
            return ConnectionServer(**options)
        return ConnectionServer(port=0, certificate=self._certificate, **options)

    def _configure(self, name: str, config: RelayConfig | None, fec: bool | None) -> RelayConfig:
        config = dataclasses.replace(config) if config else RelayConfig()
        config.username = name
        config.servers = config.servers or [one.address for one in self._servers()]
        config.fec = fec if config.fec is None else config.fec
        return config

    def _servers(self) -> list[ConnectionServer]:
        return [one for one in (self.server, self.backup) if one is not None]

    def __getitem__(self, name: str) -> Node:
        return self.nodes[name]

    # -- life ------------------------------------------------------------------------------

    def __enter__(self: N) -> N:
        return self.start()

    def __exit__(self, *_: object) -> None:
        self.close()

    def start(self: N) -> N:
        """Starts the server and all relays and waits until they are logged in."""
        try:
            self.server.start()
            for node in self.nodes.values():
                if self.tls:
                    node.relay.config.server_tls_port = self.server.port
                node.relay.start()
            for node in self.nodes.values():
                node.relay.wait_ready(READY_SECS)
                self.server.relays.wait_for(node.name, READY_SECS)
        except BaseException:
            self.close()
            raise
        return self

    def close(self) -> None:
        """Shuts everything down, stations first."""
        for station in self.stations:
            station.close()
        self.stations.clear()
        for node in self.nodes.values():
            node.relay.close()
        for server in self._servers():
            server.close()
        self._folder.cleanup()

    # -- failures --------------------------------------------------------------------------

    def server_of(self, name: str) -> ConnectionServer:
        """The server at which a relay is logged in; the first server when it is at none."""
        for server in self._servers():
            known = server.relays.find(name)
            if known is not None and known.logged_in:
                return server
        return self.server

    def known(self, name: str) -> KnownRelay:
        """A relay as its current server knows it."""
        return self.server_of(name).relays[name]

    def kill(self, name: str) -> None:
        """Kills a relay; its stations lose their connections."""
        self.nodes[name].relay.kill()

    def restart(self, name: str) -> KnownRelay:
        """Starts a relay that has ended, at the same address, and waits for its log-in."""
        relay = self.nodes[name].relay
        mark, before = relay.log.mark(), self._login_count(name)
        relay.start()
        relay.wait_ready(READY_SECS, since=mark)
        self.wait_logged_in(name, logins=before + 1)
        return self.known(name)

    def _login_count(self, name: str) -> int:
        found = [server.relays.find(name) for server in self._servers()]
        return sum(len(one.logins) for one in found if one is not None)

    def wait_logged_in(
        self, name: str, within_secs: float = READY_SECS, *, logins: int = 1
    ) -> ConnectionServer:
        """Waits until a relay is logged in somewhere, for the `logins`-th time or later, and
        returns the server."""

        def place() -> ConnectionServer | None:
            server = self.server_of(name)
            known = server.relays.find(name)
            there = known is not None and known.logged_in and self._login_count(name) >= logins
            return server if there else None

        try:
            return wait_until(place, within_secs)
        except LabTimeout:
            late = f"{name} is not logged in within {within_secs} s"
            raise LabTimeout(f"{late}; {self.server_of(name)}") from None

    def stop_server(self, how: str = "close") -> None:
        """Stops the server and ends all its links; `start_server` brings it back."""
        self.server.close(how)

    def start_server(self) -> None:
        """Starts the server again with its sessions; returns when all relays are logged in."""
        self.server.start()
        for name in self.nodes:
            self.wait_logged_in(name)

    def replace_server(self, how: str = "reset") -> None:
        """Stops the server and starts the backup in its place; returns when all relays are logged
        in there."""
        if self.backup is None:
            raise RuntimeError("this network has no backup server")
        if self.tls:
            self.backup.port = self.server.port
        self.backup.start()
        self.server.close(how)
        for name in self.nodes:
            self.wait_logged_in(name)
