"""The relays that a stand-in connection server knows: who they are, where, and on which link.

    server.relay("east").send(message)          # by log-in name, id or KnownRelay
    server.relay("east").udp_port
    server.wait_relay("east", logins=2)         # logged in for the second time
"""

from __future__ import annotations

import itertools
import socket
import struct
import threading
from typing import TYPE_CHECKING, Any, TypeVar, Union

from lab import messages, tickets
from lab.channel import PeerClosed
from lab.waiting import Deadline, LabTimeout

if TYPE_CHECKING:
    from lab.connection_server import ConnectionServer
    from lab.server_link import ServerLink

M = TypeVar("M", bound=messages.Message)


def unsigned(client_id: int) -> int:
    """Ids above 2**31 travel as negative numbers in some messages."""
    return client_id & 0xFFFFFFFF


class RelayRoster:
    """Ids of relays by log-in name, and ids for clients. Servers that stand in for one another
    share one, so that an id means the same at each. Safe from any thread."""

    def __init__(self, first_id: int, first_client_id: int) -> None:
        #: The id of the first relay, at its next log-in; may be changed at any time.
        self.first_id = first_id
        # None: follows `first_id`.
        self._ids: dict[str, int | None] = {}
        self._sessions: dict[str, int] = {}
        self._client_ids = itertools.count(first_client_id)
        self._lock = threading.Lock()

    def id_of(self, name: str) -> int:
        """The id of the relay that logs in as `name`, now and for ever."""
        with self._lock:
            if name not in self._ids:
                self._ids[name] = self._next_id()
            known = self._ids[name]
            return self.first_id if known is None else known

    def _next_id(self) -> int | None:
        taken = set(self._ids.values())
        if None not in taken and self.first_id not in taken:
            return None
        return next(one for one in itertools.count(self.first_id + 1) if one not in taken)

    def assign(self, name: str, relay_id: int) -> None:
        """Gives a relay an id of the test's choice, before it logs in."""
        with self._lock:
            self._ids[name] = relay_id

    def new_client_id(self) -> int:
        return next(self._client_ids)

    def begin_session(self, name: str) -> None:
        """Counts a log-in that continues nothing: the relay starts with empty tables."""
        with self._lock:
            self._sessions[name] = self.session(name) + 1

    def session(self, name: str) -> int:
        """The number of the relay's session, from 1; 0 before the first."""
        return self._sessions.get(name, 0)


class KnownRelay:
    """One relay as one server sees it; changed only by that server, under its lock."""

    def __init__(self, server: ConnectionServer, name: str) -> None:
        self.server = server
        self.name = name
        #: Its accepted log-ins, and the links that they came on.
        self.logins: list[messages.LogIn] = []
        self.links: list[ServerLink] = []
        self.port: messages.RelayPort | None = None
        #: The ids it has confirmed and not lost since it last started afresh.
        self.clients: set[int] = set()

    @property
    def id(self) -> int:
        return self.server.roster.id_of(self.name)

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
        return self.login.des_key

    # -- where it is -----------------------------------------------------------------------

    @property
    def address(self) -> str:
        """Where others reach it: its public address if it told one, else where its link
        comes from."""
        if self.port is not None and self.port.address:
            return socket.inet_ntoa(struct.pack("<I", self.port.address))
        if not self.links:
            raise LabTimeout(f"relay {self.name!r} has not logged in")
        return self.links[-1].peer[0]

    def _told_port(self) -> messages.RelayPort:
        if self.port is None:
            raise LabTimeout(f"relay {self.name!r} has not told its ports")
        return self.port

    @property
    def tcp_port(self) -> int:
        return self._told_port().tcp_port

    @property
    def udp_port(self) -> int:
        """The base of its UDP ports."""
        return self._told_port().udp_port

    @property
    def tls_port(self) -> int:
        return self._told_port().tls_port

    # -- dealings with it ------------------------------------------------------------------

    def send(self, message: messages.Message) -> None:
        """Sends on its newest link."""
        self.link.send(message)

    def ticket_for(self, client_id: int, age_secs: int = 0, **options: Any) -> bytes:
        """A ticket that this relay accepts; options as of lab.tickets.make_ticket."""
        return tickets.make_ticket(client_id, self.des_key, age_secs=age_secs, **options)

    def messages_of(self, kind: type[M], since: int = 0) -> list[M]:
        """What it sent of one class."""
        return self.server.messages_of(kind, since, relay=self)

    def wait_for_type(self, kind: type[M], within_secs: float = 5.0, **values: Any) -> M:
        """Waits for a message from it; `since` and field values as of the server's own."""
        return self.server.wait_for_type(kind, within_secs, relay=self, **values)

    def note(self, message: messages.Message) -> None:
        """Takes in what the relay tells about itself and its clients."""
        if isinstance(message, messages.RelayPort):
            self.port = message
        elif isinstance(message, messages.ConnectConfirm):
            self.clients.add(unsigned(message.client_id))
        elif isinstance(message, messages.LostConnection):
            self.clients.discard(unsigned(message.client_id))

    def __repr__(self) -> str:
        stages = [link.stage for link in self.links[-3:]]
        return f"<relay {self.name!r} id {self.id} links {stages} clients {self.clients}>"


#: How a test names a relay: log-in name, id, or the object itself.
RelayName = Union[str, int, KnownRelay]


class ServerRelays:
    """The part of a connection server that keeps its relays apart."""

    changed: threading.Condition
    roster: RelayRoster

    def __init__(self) -> None:
        self._relays: dict[str, KnownRelay] = {}

    @property
    def relays(self) -> list[KnownRelay]:
        """All relays that ever logged in here, in the order in which they first did."""
        return list(self._relays.values())

    def find_relay(self, which: RelayName) -> KnownRelay | None:
        """A relay that has logged in here, or None."""
        if isinstance(which, KnownRelay):
            return self._relays.get(which.name)
        if isinstance(which, str):
            return self._relays.get(which)
        return next((one for one in self.relays if one.id == unsigned(which)), None)

    def relay(self, which: RelayName) -> KnownRelay:
        """A relay that has logged in here."""
        found = self.find_relay(which)
        if found is None:
            raise LabTimeout(f"no relay {which!r} has logged in; {self.relays}")
        return found

    def admit(self, login: messages.LogIn, link: ServerLink) -> int:
        """Notes an accepted log-in and returns the relay's id."""
        relay_id = self.roster.id_of(login.name)
        with self.changed:
            relay = self._relays.setdefault(login.name, KnownRelay(self, login.name))
            if login.function != "CONTINUE":
                self.roster.begin_session(login.name)
                relay.clients.clear()
            relay.logins.append(login)
            if link not in relay.links:
                relay.links.append(link)
            link.relay = relay
            self.changed.notify_all()
        return relay_id

    def wait_relay(
        self, which: RelayName, within_secs: float = 10.0, *, logins: int = 1
    ) -> KnownRelay:
        """Waits until a relay is logged in, for the `logins`-th time or later."""
        deadline = Deadline(within_secs)
        with self.changed:
            while True:
                found = self.find_relay(which)
                if found is not None and found.logged_in and len(found.logins) >= logins:
                    return found
                if not self.changed.wait(deadline.left()) and deadline.passed():
                    late = f"relay {which!r} not logged in within {within_secs} s"
                    raise LabTimeout(f"{late}; {self}")
