"""One relay's link at the stand-in connection server: challenge, log-in, traffic, faults."""

from __future__ import annotations

import random
import socket
import ssl
import threading
import time
from typing import TYPE_CHECKING

from lab import messages, wire
from lab.channel import Channel, PeerClosed
from lab.waiting import LabTimeout

if TYPE_CHECKING:
    from lab.connection_server import ConnectionServer
    from lab.known_relay import KnownRelay

_HANDSHAKE_SECS = 10.0
_TURN_SECS = 0.5


class ServerLink:
    """Runs in a thread of its own from accept to close; only that thread closes the channel.

    `stage` tells how far the link has come: "accept", "challenge" (sent), "login" (received),
    "finished" (relay port received), "closed".
    """

    def __init__(
        self,
        server: ConnectionServer,
        sock: socket.socket,
        peer: tuple[str, int],
        number: int,
    ) -> None:
        self.server = server
        self.number = number
        self.stage = "accept"
        self.login: messages.LogIn | None = None
        #: Whose link it is, once a log-in was accepted.
        self.relay: KnownRelay | None = None
        self.challenge = 0
        self.peer = peer
        self._sock = sock
        self._channel: Channel | None = None
        self._end_wanted = ""
        self._last_heartbeat = time.monotonic()
        self._thread = threading.Thread(
            target=self._run, name=f"server-link-{number}", daemon=True
        )

    # -- called by the server and by tests -------------------------------------------------

    def start(self) -> None:
        self._thread.start()

    def end(self, how: str = "close") -> None:
        """Asks the link's thread to end the connection: "close" or "reset"."""
        with self.server.changed:
            self._end_wanted = how
            self.server.changed.notify_all()
        if self._channel is not None:
            self._channel.wake()
        else:
            self._stop_handshake()

    def _stop_handshake(self) -> None:
        try:
            # Not SSLSocket.shutdown, which takes the session from under the other thread.
            socket.socket.shutdown(self._sock, socket.SHUT_RDWR)
        except OSError:
            pass

    def wake(self) -> None:
        """Has the link's thread look at the server's wishes again."""
        if self._channel is not None:
            self._channel.wake()

    def join(self, secs: float) -> bool:
        """Waits for the link's thread; true when it is gone."""
        if threading.current_thread() is not self._thread:
            self._thread.join(secs)
        return not self._thread.is_alive()

    @property
    def logged_in(self) -> bool:
        """Whether the relay has finished its log-in here and is still connected."""
        return self.stage == "finished"

    def send(self, message: messages.Message) -> None:
        """Sends one message as a frame, under the server's id unless it names another sender."""
        if message.sender_id == 0:
            message.sender_id = self.server.server_id
        self.send_raw(message.frame())

    def send_raw(self, data: bytes) -> None:
        """Sends bytes as they are; PeerClosed when the link is gone."""
        if self._channel is None:
            raise PeerClosed("the link is not up yet")
        self._channel.write(data)

    def send_challenge(self, number: int | None = None) -> None:
        """Sends a challenge, in place or out of place."""
        self.challenge = random.randrange(1, 2**31) if number is None else number
        self.send(messages.Challenge(self.challenge))

    # -- the link's own thread -------------------------------------------------------------

    def _run(self) -> None:
        try:
            if self._begin():
                self._serve()
        except (PeerClosed, LabTimeout, OSError):
            pass
        except wire.WireError as error:
            self.server.note_problem(f"link {self.number}: {error}")
        finally:
            self._finish()

    def _begin(self) -> bool:
        """Brings the connection up to the sent challenge; false when it is to be ended."""
        self._sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        if self._fault_takes_over("accept"):
            return False
        sock = self._sock
        if self.server.tls_context is not None:
            sock = self._shake_hands(self.server.tls_context)
        self._up(sock)
        if self._fault_takes_over("challenge"):
            return not self._end_wanted
        # The stage first: the log-in may be here before the next line runs.
        self._set_stage("challenge")
        self.send_challenge()
        return True

    def _shake_hands(self, context: ssl.SSLContext) -> ssl.SSLSocket:
        self._sock.settimeout(_HANDSHAKE_SECS)
        tls = context.wrap_socket(self._sock, server_side=True, do_handshake_on_connect=False)
        # Known as our socket first, so that end() can stop the handshake.
        self._sock = tls
        if self._end_wanted:
            raise PeerClosed("ended before the handshake")
        tls.do_handshake()
        return tls

    def _serve(self) -> None:
        reader = wire.FrameReader()
        while not self._end_wanted:
            self._pause()
            data = self._channel.read(_TURN_SECS)
            reader.feed(data)
            for image in reader:
                self._take(image)
                if self._end_wanted:
                    return
            self._heartbeat()

    def _pause(self) -> None:
        """Stands by while the server does not read; heartbeats go on."""
        while self.server.reading_paused and not self._end_wanted:
            with self.server.changed:
                self.server.changed.wait(_TURN_SECS)
            self._heartbeat()

    def _heartbeat(self) -> None:
        """Keeps the relay from giving up a silent server."""
        period = self.server.heartbeat_secs
        if self.logged_in and period and time.monotonic() - self._last_heartbeat >= period:
            self._last_heartbeat = time.monotonic()
            self.send(messages.Heartbeat())

    def _take(self, image: bytes) -> None:
        if wire.type_of(image) == messages.LogIn.TYPE:
            self._take_login(image)
            return
        message = messages.parse(image)
        is_port = isinstance(message, messages.RelayPort)
        finished = is_port and not self._fault_takes_over("port")
        self.server.record(message, self, "finished" if finished else "")

    def _take_login(self, image: bytes) -> None:
        try:
            login = self.server.key.decrypt_login(image)
        except ValueError:
            # In clear, or under another key: recorded as it came, answered with a refusal.
            self.server.record(messages.Opaque(1, image[9:], received_image=image), self)
            self.send(messages.Response(0, "UNAUTHORIZED"))
            return
        self.login = login
        self.server.record(login, self, "login")
        if self._fault_takes_over("login"):
            return
        code = self.server.judge_login(login, self.challenge)
        relay_id = self.server.admit(login, self) if code == "OK" else 0
        self.send(messages.Response(relay_id, code))
        if code == "NO CONTINUE":
            self._set_stage("challenge")
            self.send_challenge()

    def _fault_takes_over(self, stage: str) -> bool:
        """Plays the fault scripted for `stage`, if any; true when it replaces normal work."""
        fault = self.server.take_fault(stage)
        if fault is None:
            return False
        if fault.data:
            self._up(self._sock)
            self._channel.write(fault.data)
        if fault.then == "silence":
            if stage == "accept":
                self._wait_in_silence()
        elif fault.then in ("close", "reset"):
            self._end_wanted = fault.then
        return fault.then != "go on"

    def _wait_in_silence(self) -> None:
        """Holds a connection open without a word (with TLS: without a handshake)."""
        self._up(self._sock)
        while not self._end_wanted:
            self._channel.read(_TURN_SECS)

    def _up(self, sock: socket.socket) -> None:
        """Makes the channel, once."""
        if self._channel is None:
            self._channel = Channel(sock, wakeable=True)

    def _set_stage(self, stage: str) -> None:
        with self.server.changed:
            self.stage = stage
            self.server.changed.notify_all()

    def _finish(self) -> None:
        rude = self._end_wanted == "reset"
        if self._channel is None:
            try:
                self._channel = Channel(self._sock)
            except (OSError, ssl.SSLError, ValueError):
                self._sock.close()
        if self._channel is not None:
            self._channel.reset() if rude else self._channel.close()
        self._set_stage("closed")
