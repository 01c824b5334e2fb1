"""The stand-in connection server: admits relays, gives out ids and tickets, sends orders.

Everything a relay sends is recorded and can be waited for. Faults are scripted per stage:

    server.fault("login", Fault(then="reset"))      # reset when the log-in arrives
    server.answer_next_login("UNAUTHORIZED")        # any return code
    server.pause_reading()                          # lets the relay's link back up

Serves any number of relays, told apart by their log-in names; see lab.known_relay for them and
lab.server_orders for what they can be told. `answers` says how requests for tickets are met.
"""

from __future__ import annotations

import errno
import socket
import ssl
import threading

from lab import messages, tickets
from lab.addresses import new_address
from lab.channel import PeerClosed
from lab.keys import Certificate, ServerKey, shared_server_key
from lab.known_relay import RelayName, RelayRoster, ServerRelays
from lab.server_clerk import ServerClerk, TicketAnswers
from lab.server_link import ServerLink
from lab.server_orders import ServerOrders
from lab.server_plan import ServerPlan
from lab.server_record import ServerRecord
from lab.server_script import Fault, ServerScript
from lab.waiting import Deadline, LabTimeout

__all__ = ["ConnectionServer", "Fault", "PLAIN_PORT"]

#: Relays know no other port of a plain connection server.
PLAIN_PORT = 9736
_JOIN_SECS = 5.0


class ConnectionServer(ServerScript, ServerRecord, ServerRelays, ServerOrders):
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
        ServerScript.__init__(self)
        ServerRecord.__init__(self)
        ServerRelays.__init__(self)
        ServerOrders.__init__(self)
        # One condition for all: whoever waits sees scripts, links and record as one.
        self.changed = threading.Condition()
        self.address = address or new_address()
        self.port = port
        self.key = key or shared_server_key()
        other = stands_in_for
        self.roster = other.roster if other else RelayRoster(relay_id, first_client_id)
        self.plan = other.plan if other else ServerPlan()
        self.continue_any = other is not None
        self.server_id = 1
        self.heartbeat_secs = heartbeat_secs
        self.tls_context = self._make_tls_context(certificate)
        self.links: list[ServerLink] = []
        self._receive_buffer = receive_buffer
        self.answers = TicketAnswers()
        self._clerk = ServerClerk(self)
        self.reading_paused = False
        self._listener: socket.socket | None = None
        self._acceptor: threading.Thread | None = None

    @staticmethod
    def _make_tls_context(certificate: Certificate | None) -> ssl.SSLContext | None:
        if certificate is None:
            return None
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(certificate.crt_file, certificate.key_file)
        return context

    # -- life ------------------------------------------------------------------------------

    def __enter__(self) -> ConnectionServer:
        return self.start()

    def __exit__(self, *_: object) -> None:
        self.close()

    def start(self) -> ConnectionServer:
        """Listens. Also after `close` or `stop_listening`: the same server comes back, with
        its sessions and its record."""
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
        self._clerk.start()
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
        self._clerk.stop()
        self.resume_reading()
        self.end_links(how)

    def restart(self, how: str = "close") -> None:
        """Goes away and comes back at the same address at once."""
        self.close(how)
        self.start()

    def end_links(self, how: str = "close") -> None:
        """Ends the links that are up; the server goes on listening."""
        with self.changed:
            links = list(self.links)
        for link in links:
            link.end(how)
        for link in links:
            if not link.join(_JOIN_SECS):
                raise LabTimeout(f"link {link.number} does not end")

    def pause_reading(self) -> None:
        """Stops reading from all links, so that they back up."""
        self.reading_paused = True
        with self.changed:
            links = list(self.links)
        for link in links:
            link.wake()

    def resume_reading(self) -> None:
        with self.changed:
            self.reading_paused = False
            self.changed.notify_all()

    def _accept(self, listener: socket.socket) -> None:
        while True:
            try:
                sock, peer = listener.accept()
            except OSError as error:
                # A listener that was shut down answers EINVAL: the orderly end.
                if error.errno != errno.EINVAL:
                    self.note_problem(f"accept: {error}")
                return
            with self.changed:
                link = ServerLink(self, sock, peer, len(self.links))
                self.links.append(link)
                self.changed.notify_all()
            link.start()

    def __repr__(self) -> str:
        last = [one.message for one in self.received[-10:]]
        stages = [link.stage for link in self.links[-5:]]
        return (
            f"<ConnectionServer {self.address}:{self.port} links {stages}, last {last}, "
            f"problems {self.problems}>"
        )

    # -- links -----------------------------------------------------------------------------

    def wait_for_link(
        self, stage: str = "finished", within_secs: float = 10.0, *, number: int = 0
    ) -> ServerLink:
        """Waits until a link numbered `number` or later has come to `stage`."""
        deadline = Deadline(within_secs)
        with self.changed:
            while True:
                for link in self.links[number:]:
                    if link.stage == stage:
                        return link
                if not self.changed.wait(deadline.left()) and deadline.passed():
                    raise LabTimeout(f"no link at {stage!r} within {within_secs} s; {self}")

    def wait_logged_in(self, within_secs: float = 10.0, *, number: int = 0) -> ServerLink:
        """Waits for a relay whose log-in is complete (link `number` or later, still up)."""
        return self.wait_for_link("finished", within_secs, number=number)

    @property
    def link(self) -> ServerLink:
        """The newest link that is still up."""
        with self.changed:
            for link in reversed(self.links):
                if link.stage != "closed":
                    return link
        raise PeerClosed("no relay is connected")

    # -- ids and tickets -------------------------------------------------------------------

    @property
    def relay_id(self) -> int:
        """The id of the first relay; a change holds from the next log-in on."""
        return self.roster.first_id

    @relay_id.setter
    def relay_id(self, relay_id: int) -> None:
        self.roster.first_id = relay_id

    def new_client_id(self) -> int:
        return self.roster.new_client_id()

    @property
    def des_key(self) -> bytes:
        """The DES key of the latest log-in that could be read."""
        logins = self.messages_of(messages.LogIn)
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
            des_key = self.des_key if relay is None else self.relay(relay).des_key
        return tickets.make_ticket(
            client_id, des_key, age_secs=age_secs, address=address, issued_at=issued_at
        )
