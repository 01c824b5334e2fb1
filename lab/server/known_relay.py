"""One relay as a stand-in connection server knows it: who it is, where, and on which link."""

from __future__ import annotations

import socket
import struct
from typing import Any, TypeVar

from lab.protocol import messages, tickets
from lab.server.link import ServerLink
from lab.server.record import ServerRecord
from lab.server.roster import RelayRoster, unsigned
from lab.support.channel import PeerClosed
from lab.support.waiting import LabTimeout

M = TypeVar("M", bound=messages.Message)


class KnownRelay:
    """One relay as one server sees it; changed only by lab.server.relays, under its lock."""

    def __init__(self, name: str, roster: RelayRoster, record: ServerRecord) -> None:
        self.name = name
        self._roster = roster
        self._record = record
        #: Its accepted log-ins, and the links that they came on.
        self.logins: list[messages.LogIn] = []
        self.links: list[ServerLink] = []
        self.port: messages.RelayPort | None = None
        #: The ids it has confirmed and not lost since its session began.
        self.clients: set[int] = set()

    @property
    def id(self) -> int:
        """Its id, which its log-in name determines."""
        return self._roster.id_of(self.name)

    @property
    def logged_in(self) -> bool:
        """Whether its newest link is up and its log-in there is complete."""
        return bool(self.links) and self.links[-1].logged_in

    @property
    def link(self) -> ServerLink:
        """Its newest link; PeerClosed when that is gone."""
        if not self.links or self.links[-1].stage == "closed":
            raise PeerClosed(f"relay {self.name!r} is not connected")
        return self.links[-1]

    @property
    def login(self) -> messages.LogIn:
        """Its latest accepted log-in."""
        if not self.logins:
            raise LabTimeout(f"relay {self.name!r} has not logged in")
        return self.logins[-1]

    @property
    def des_key(self) -> bytes:
        """The key of tickets for it, from its latest log-in."""
        return self.login.des_key

    # -- where it is -----------------------------------------------------------------------

    @property
    def address(self) -> str:
        """Where others reach it: its public address if it announced one, else the source
        address of its link."""
        if self.port is not None and self.port.address:
            return socket.inet_ntoa(struct.pack("<I", self.port.address))
        if not self.links:
            raise LabTimeout(f"relay {self.name!r} has not logged in")
        return self.links[-1].peer[0]

    def _announced_port(self) -> messages.RelayPort:
        if self.port is None:
            raise LabTimeout(f"relay {self.name!r} has not announced its ports")
        return self.port

    @property
    def tcp_port(self) -> int:
        """Its TCP port."""
        return self._announced_port().tcp_port

    @property
    def udp_port(self) -> int:
        """The base of its UDP ports."""
        return self._announced_port().udp_port

    @property
    def tls_port(self) -> int:
        """Its TLS port, 0 without TLS."""
        return self._announced_port().tls_port

    # -- exchanges with it -----------------------------------------------------------------

    def send(self, message: messages.Message) -> None:
        """Sends on its newest link."""
        self.link.send(message)

    def ticket_for(self, client_id: int, age_secs: int = 0, **options: Any) -> bytes:
        """A ticket that this relay accepts; options as of lab.protocol.tickets.make_ticket."""
        return tickets.make_ticket(client_id, self.des_key, age_secs=age_secs, **options)

    def messages_of(self, kind: type[M], since: int = 0) -> list[M]:
        """What it sent of one class."""
        return self._record.messages_of(kind, since, relay=self.name)

    def wait_for_type(self, kind: type[M], within_secs: float = 5.0, **values: Any) -> M:
        """Waits for a message from it; `since` and field values as of the server's record."""
        return self._record.wait_for_type(kind, within_secs, relay=self.name, **values)

    def note(self, message: messages.Message) -> None:
        """Updates what is known from what the relay reports about itself and its clients."""
        if isinstance(message, messages.RelayPort):
            self.port = message
        elif isinstance(message, messages.ConnectConfirm):
            self.clients.add(unsigned(message.client_id))
        elif isinstance(message, messages.LostConnection):
            self.clients.discard(unsigned(message.client_id))

    def __repr__(self) -> str:
        stages = [link.stage for link in self.links[-3:]]
        return f"<relay {self.name!r} id {self.id} links {stages} clients {self.clients}>"
