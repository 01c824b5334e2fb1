"""The stand-in connection server: admits relays, gives out ids and tickets, sends orders.

Everything a relay sends is recorded and can be waited for. Faults are scripted per stage:

    server.fault("login", Fault(then="reset"))      # reset when the log-in arrives
    server.answer_next_login("UNAUTHORIZED")        # any return code
    server.pause_reading()                          # lets the relay's link back up
"""

from __future__ import annotations

import dataclasses
import errno
import itertools
import socket
import ssl
import threading
from collections import deque
from typing import Any, Callable, TypeVar

from lab import messages, tickets
from lab.addresses import new_address
from lab.channel import PeerClosed
from lab.keys import Certificate, ServerKey, shared_server_key
from lab.server_link import ServerLink
from lab.waiting import Deadline, LabTimeout

#: Relays know no other port of a plain connection server.
PLAIN_PORT = 9736
STAGES = ("accept", "challenge", "login", "port")
_JOIN_SECS = 5.0

M = TypeVar("M", bound=messages.Message)


@dataclasses.dataclass(frozen=True)
class Fault:
    """What to do in place of the normal step of a stage: send `data`, if any, and then stay
    silent ("silence"), "close", "reset", or do the normal step after all ("go on")."""

    then: str = "silence"
    data: bytes = b""


@dataclasses.dataclass(frozen=True)
class Received:
    """A message from a relay, and the link that it came on."""

    message: messages.Message
    link: ServerLink


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
    ) -> None:
        """With a certificate the links are TLS. `receive_buffer` (bytes) makes links back up
        early while reading is paused."""
        self.address = address or new_address()
        self.port = port
        self.key = key or shared_server_key()
        self.relay_id = relay_id
        self.server_id = 1
        self.heartbeat_secs = heartbeat_secs
        self.tls_context = self._make_tls_context(certificate)
        #: Any OK log-in is checked against these (agency, name, password) when given.
        self.credentials: tuple[str, str, str] | None = None
        #: Lets a relay continue a session that it began at another server.
        self.continue_any = False
        self.changed = threading.Condition()
        self.links: list[ServerLink] = []
        self.received: list[Received] = []
        self._receive_buffer = receive_buffer
        self._client_ids = itertools.count(first_client_id)
        self._sessions: set[tuple[str, bytes]] = set()
        self._answers: deque[str] = deque()
        self._faults: dict[str, deque[Fault]] = {stage: deque() for stage in STAGES}
        self._standing: dict[str, Fault] = {}
        #: What relays did that no sound relay does; empty after a good test.
        self.problems: list[str] = []
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

    # -- scripted behaviour ----------------------------------------------------------------

    def fault(self, stage: str, fault: Fault, times: int | None = 1) -> None:
        """Plays `fault` at the next `times` occasions of `stage`; None: until cleared.

        Stages: "accept" (before the TLS handshake), "challenge" (instead of sending it),
        "login" (instead of an answer), "port" (when the relay port arrives).
        """
        with self.changed:
            if times is None:
                self._standing[stage] = fault
            else:
                self._faults[stage].extend([fault] * times)

    def clear_faults(self) -> None:
        """Normal service again; also forgets answers not given yet."""
        with self.changed:
            self._standing.clear()
            self._answers.clear()
            for queue in self._faults.values():
                queue.clear()

    def answer_next_login(self, *codes: str) -> None:
        """The next log-ins get these return codes, whatever they say."""
        with self.changed:
            self._answers.extend(codes)

    def forget(self) -> None:
        """Loses all sessions: a relay that asks to continue hears "NO CONTINUE" and gets a
        fresh challenge."""
        with self.changed:
            self._sessions.clear()

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

    # -- used by the links -----------------------------------------------------------------

    def take_fault(self, stage: str) -> Fault | None:
        with self.changed:
            queue = self._faults[stage]
            return queue.popleft() if queue else self._standing.get(stage)

    def judge_login(self, login: messages.LogIn, challenge: int) -> str:
        """The return code for a log-in; an accepted one becomes a known session."""
        with self.changed:
            session = (login.name, login.des_key)
            if self._answers:
                code = self._answers.popleft()
                if code == "OK":
                    self._sessions.add(session)
                return code
            who = (login.agency, login.name, login.password)
            if self.credentials is not None and who != self.credentials:
                return "UNAUTHORIZED"
            if login.login_number != challenge:
                return "UNAUTHORIZED"
            known = session in self._sessions or self.continue_any
            if login.function == "CONTINUE" and not known:
                return "NO CONTINUE"
            self._sessions.add(session)
            return "OK"

    def record(self, message: messages.Message, link: ServerLink, stage: str = "") -> None:
        """Records a message together with the stage that it brings its link to, if any."""
        with self.changed:
            link.stage = stage or link.stage
            self.received.append(Received(message, link))
            self.changed.notify_all()

    def note_problem(self, text: str) -> None:
        with self.changed:
            self.problems.append(text)
            self.changed.notify_all()

    # -- what relays sent ------------------------------------------------------------------

    def mark(self) -> int:
        """A point in the record: `since=mark` looks only at what came later."""
        with self.changed:
            return len(self.received)

    def messages_of(self, kind: type[M], since: int = 0) -> list[M]:
        """The recorded messages of one class, in order of arrival."""
        with self.changed:
            found = [one.message for one in self.received[since:]]
        return [message for message in found if isinstance(message, kind)]

    def wait_for(
        self,
        predicate: Callable[[messages.Message], Any],
        within_secs: float = 5.0,
        *,
        since: int = 0,
    ) -> messages.Message:
        """The first recorded message, old or new, for which `predicate` holds."""
        deadline = Deadline(within_secs)
        with self.changed:
            while True:
                while since < len(self.received):
                    message = self.received[since].message
                    since += 1
                    if predicate(message):
                        return message
                if not self.changed.wait(deadline.left()) and deadline.passed():
                    raise LabTimeout(f"message not received within {within_secs} s; {self}")

    def wait_for_type(
        self, kind: type[M], within_secs: float = 5.0, *, since: int = 0, **values: Any
    ) -> M:
        """Waits for a message of a class whose fields have the given values."""

        def fits(message: messages.Message) -> bool:
            return isinstance(message, kind) and all(
                getattr(message, name) == value for name, value in values.items()
            )

        return self.wait_for(fits, within_secs, since=since)

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

    def new_client_id(self) -> int:
        return next(self._client_ids)

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
    ) -> bytes:
        """A ticket for `client_id`, made `age_secs` ago, under the relay's key or another."""
        key = self.des_key if des_key is None else des_key
        return tickets.make_ticket(
            client_id, key, age_secs=age_secs, address=address, issued_at=issued_at
        )

    # -- orders to the relay ---------------------------------------------------------------

    def send(self, message: messages.Message) -> None:
        """Sends on the newest link."""
        self.link.send(message)

    def send_raw(self, data: bytes) -> None:
        self.link.send_raw(data)

    def send_challenge(self, number: int | None = None) -> None:
        self.link.send_challenge(number)

    def heartbeat(self) -> None:
        self.send(messages.Heartbeat())

    def connect_route(self, from_id: int, to_id: int, msg_class: int) -> None:
        """Orders a route; see the PIPE_ constants of lab.messages."""
        self.send(messages.RoutingUpdate("CONNECT", from_id, to_id, msg_class))

    def disconnect_route(self, from_id: int, to_id: int, msg_class: int) -> None:
        """Orders a route away; an id of 0 means any."""
        self.send(messages.RoutingUpdate("DISCONNECT", from_id, to_id, msg_class))

    def grant_video(self, from_id: int, to_id: int) -> None:
        self.send(messages.PremiumFeatureResponse(from_id, to_id, return_code="OK"))

    def deny_video(self, from_id: int, to_id: int, code: str = "UNAUTHORIZED") -> None:
        self.send(messages.PremiumFeatureResponse(from_id, to_id, return_code=code))

    def order_connect(self, order: messages.ConnectOrder) -> None:
        self.send(order)

    def log_out_relay(self, name: str = "connserver") -> None:
        """Tells the relay that its session is over."""
        self.send(messages.LogOut(name))
