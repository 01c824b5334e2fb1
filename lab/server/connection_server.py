"""The stand-in connection server: admits relays, gives out ids and tickets, sends orders.

Serves any number of relays, told apart by their log-in names. Its parts:

    server.script.fault("login", Fault(then="reset"))     # faults, answers to log-ins
    server.record.wait_for_type(messages.LostConnection)  # what relays sent
    server.relays["east"].udp_port                        # the relays it knows
    server.orders.route_across(...)                       # orders to them
    server.links[0].stage                                 # their connections
    server.ticket_issuer.enabled                          # answers to requests for tickets
    server.settings.heartbeat_secs                        # how links are served
"""

from __future__ import annotations

import errno
import socket
import ssl
import threading

from lab.protocol import messages, tickets
from lab.protocol.keys import Certificate, ServerKey, shared_server_key
from lab.server.link import ServerLink
from lab.server.links import ServerLinks
from lab.server.orders import ServerOrders
from lab.server.plan import ServerPlan
from lab.server.record import ServerRecord
from lab.server.relays import RelayName, ServerRelays
from lab.server.roster import RelayRoster
from lab.server.script import Fault, ServerScript
from lab.server.session import LinkSettings, ServerSession
from lab.server.ticket_issuer import TicketIssuer
from lab.server.upkeep import ServerUpkeep
from lab.support.addresses import new_address
from lab.support.waiting import LabTimeout

__all__ = ["ConnectionServer", "Fault", "PLAIN_PORT"]

#: Relays know no other port of a plain connection server.
PLAIN_PORT = 9736
_JOIN_SECS = 5.0


class ConnectionServer:
    """Listens at its own address from `start` to `close`; safe to call from any thread."""

    def __init__(
        self,
        address: str = "",
        *,
        port: int = PLAIN_PORT,
        certificate: Certificate | None = None,
        key: ServerKey | None = None,
        relay_id: int = 1000,
        first_client_id: int = 2001,
        heartbeat_secs: float = 3.0,
        receive_buffer: int = 0,
        stands_in_for: ConnectionServer | None = None,
    ) -> None:
        """With a certificate the links are TLS. `receive_buffer` (bytes) makes links back up
        early while reading is paused. The first relay gets `relay_id`, the next the following.
        A server that stands in for another knows its ids and its plan and lets every relay
        continue its session."""
        # One condition for all parts: a thread that waits on one sees the others in step.
        self.changed = changed = threading.Condition()
        self.address = address or new_address()
        self.port = port
        other = stands_in_for
        self.roster = other.roster if other else RelayRoster(relay_id, first_client_id)
        self._plan = other._plan if other else ServerPlan()
        self.settings = LinkSettings(
            key or shared_server_key(), _make_tls_context(certificate), heartbeat_secs
        )
        self.script = ServerScript(continue_any=other is not None)
        self.links = ServerLinks(changed)
        self.record = ServerRecord(changed)
        self.relays = ServerRelays(changed, self.roster, self.record)
        self.orders = ServerOrders(self.links, self.relays, self.roster, self._plan, changed)
        self.ticket_issuer = TicketIssuer(self.relays, self.orders)
        self._upkeep = ServerUpkeep(
            self.record, self.relays, self.orders, self._plan, self.ticket_issuer, changed
        )
        self._receive_buffer = receive_buffer
        self._listener: socket.socket | None = None
        self._acceptor: threading.Thread | None = None

    @property
    def key(self) -> ServerKey:
        """The RSA key pair under which relays encrypt their log-ins."""
        return self.settings.key

    @property
    def tls(self) -> bool:
        """Whether links are TLS."""
        return self.settings.tls_context is not None

    # -- life ------------------------------------------------------------------------------

    def __enter__(self) -> ConnectionServer:
        return self.start()

    def __exit__(self, *_: object) -> None:
        self.close()

    def start(self) -> ConnectionServer:
        """Listens. Also after `close` or `stop_listening`: the same server comes back with its
        sessions and its record."""
        listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        try:
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            if self._receive_buffer:
                listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, self._receive_buffer)
            listener.bind((self.address, self.port))
            listener.listen(16)
        except OSError:
            listener.close()
            raise
        self.port = listener.getsockname()[1]
        self._listener = listener
        self._acceptor = threading.Thread(
            target=self._accept, args=(listener,), name="server-accept", daemon=True
        )
        self._acceptor.start()
        self._upkeep.start()
        return self

    def stop_listening(self) -> None:
        """Refuses new connections; links that are up stay up."""
        if self._listener is not None:
            # Shutting a listener down ends the accept() that the other thread waits in.
            self._listener.shutdown(socket.SHUT_RDWR)
            self._acceptor.join(_JOIN_SECS)
            self._listener.close()
            self._listener = self._acceptor = None

    def close(self, how: str = "close") -> None:
        """Stops listening and ends every link ("close" or "reset")."""
        self.stop_listening()
        self._upkeep.stop()
        self.resume_reading()
        self.links.end(how)

    def restart(self, how: str = "close") -> None:
        """Closes and starts again at the same address at once."""
        self.close(how)
        self.start()

    def pause_reading(self) -> None:
        """Stops reading from all links, so that they back up."""
        self.settings.reading_paused = True
        self.links.wake()

    def resume_reading(self) -> None:
        """Reads from all links again."""
        with self.changed:
            self.settings.reading_paused = False
            self.changed.notify_all()

    def _accept(self, listener: socket.socket) -> None:
        while True:
            try:
                sock, peer = listener.accept()
            except OSError as error:
                # A listener that was shut down answers EINVAL: the orderly end.
                if error.errno != errno.EINVAL:
                    self.record.note_problem(f"accept: {error}")
                return
            link = self.links.add(sock, peer)
            session = ServerSession(
                link, self.settings, self.script, self.record, self.relays, self.changed
            )
            link.start(session.run)

    def __repr__(self) -> str:
        return f"<ConnectionServer {self.address}:{self.port} {self.links}, {self.record}>"

    # -- links, ids and tickets ------------------------------------------------------------

    def wait_logged_in(self, within_secs: float = 10.0, *, number: int = 0) -> ServerLink:
        """Waits for a relay whose log-in is complete (link `number` or later, still up)."""
        return self.links.wait_for("finished", within_secs, number=number)

    @property
    def relay_id(self) -> int:
        """The id of the first relay; a change takes effect at the next log-in."""
        return self.roster.first_id

    @relay_id.setter
    def relay_id(self, relay_id: int) -> None:
        self.roster.first_id = relay_id

    def new_client_id(self) -> int:
        """An id that no client has been given yet."""
        return self.roster.new_client_id()

    @property
    def des_key(self) -> bytes:
        """The DES key of the latest log-in that could be read."""
        logins = self.record.messages_of(messages.LogIn)
        if not logins:
            raise LabTimeout("no relay has logged in, so there is no key for tickets")
        return logins[-1].des_key

    def ticket_for(
        self,
        client_id: int,
        age_secs: int = 0,
        *,
        address: str = "127.0.0.1",
        issued_at: int | None = None,
        des_key: bytes | None = None,
        relay: RelayName | None = None,
    ) -> bytes:
        """A ticket for `client_id`, made `age_secs` ago, under the key of `relay` (by default
        the relay that logged in last) or another."""
        if des_key is None:
            des_key = self.des_key if relay is None else self.relays[relay].des_key
        return tickets.make_ticket(
            client_id, des_key, age_secs=age_secs, address=address, issued_at=issued_at
        )


def _make_tls_context(certificate: Certificate | None) -> ssl.SSLContext | None:
    if certificate is None:
        return None
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificate.crt_file, certificate.key_file)
    return context
