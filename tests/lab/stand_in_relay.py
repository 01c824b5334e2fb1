"""A relay's side of the connection-server link, as small as possible, to test the lab's server."""

from __future__ import annotations

import os

from lab.protocol import messages, wire
from lab.server.connection_server import ConnectionServer
from lab.stations.caption_stations import Station


class StandInRelay(Station):
    """Logs in the way a relay does."""

    relay_name = "relay"
    port = messages.RelayPort(9736, 6900)

    @classmethod
    def at(
        cls,
        server: ConnectionServer,
        tls: bool = False,
        *,
        relay_name: str = "relay",
        des_key: bytes = b"",
        source_ip: str = "",
    ) -> StandInRelay:
        """Connects; without `des_key` as a new process, with one as the process that has it."""
        relay = cls.connect(server.address, server.port, tls=tls, source_ip=source_ip)
        relay.relay_name = relay_name
        relay.des_key = des_key or os.urandom(8)
        return relay

    def send_login(self, server: ConnectionServer, number: int, function: str = "RELAY") -> None:
        login = messages.LogIn(
            self.relay_name, "secret", function, "company", self.des_key, number
        )
        block = server.key.encrypt(login.payload())
        self.send_image(wire.make_image(messages.LogIn.TYPE, self.client_id, 0, block))

    def log_in(self, server: ConnectionServer, function: str = "RELAY") -> str:
        """Answers the challenge; after an OK announces the ports. Returns the return code."""
        challenge = self.expect(messages.Challenge)
        self.send_login(server, challenge.login_number, function)
        response = self.expect(messages.Response)
        if response.return_code == "OK":
            self.client_id = response.client_id
            self.send(messages.RelayPort(*self._ports()))
        return response.return_code

    def _ports(self) -> list[int]:
        port = self.port
        return [port.tcp_port, port.udp_port, port.address, port.tls_port]
