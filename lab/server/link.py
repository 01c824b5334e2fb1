"""One relay's connection to the stand-in connection server: its stage, and sending on it.

What the server does on it is in lab.server.session.
"""

from __future__ import annotations

import random
import socket
import ssl
import threading
from collections.abc import Callable

from lab.protocol import messages
from lab.support.channel import Channel, PeerClosed

_HANDSHAKE_SECS = 10.0
#: Messages go out under this id unless they name another sender.
_SERVER_ID = 1


class ServerLink:
    """Served by a thread of its own from accept to close; only that thread reads and closes the
    channel. Everything else is safe from any thread.

    `stage` tells how far the link has come: "accept", "challenge" (sent), "login" (received),
    "finished" (relay port received), "closed".
    """

    def __init__(
        self,
        sock: socket.socket,
        peer: tuple[str, int],
        number: int,
        changed: threading.Condition,
    ) -> None:
        """`changed` guards the stage and is notified of its changes."""
        self.number = number
        self.stage = "accept"
        self.login: messages.LogIn | None = None
        #: The log-in name of the relay, once a log-in was accepted.
        self.relay_name = ""
        self.challenge = 0
        self.peer = peer
        #: How the thread has to end the connection, "close" or "reset"; "" while it must not.
        self.end_wanted = ""
        self._changed = changed
        self._sock = sock
        self._channel: Channel | None = None
        self._thread: threading.Thread | None = None

    # -- from any thread -------------------------------------------------------------------

    @property
    def logged_in(self) -> bool:
        """Whether the relay has finished its log-in here and is still connected."""
        return self.stage == "finished"

    def send(self, message: messages.Message) -> None:
        """Sends one message as a frame, under the server's id unless it names another sender."""
        if message.sender_id == 0:
            message.sender_id = _SERVER_ID
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

    def set_stage(self, stage: str) -> None:
        """Changes the stage and notifies those who wait for it."""
        with self._changed:
            self.stage = stage
            self._changed.notify_all()

    def end(self, how: str = "close") -> None:
        """Asks the link's thread to end the connection: "close" or "reset"."""
        with self._changed:
            self.end_wanted = how
            self._changed.notify_all()
        if self._channel is not None:
            self._channel.wake()
        else:
            self._stop_handshake()

    def _stop_handshake(self) -> None:
        try:
            # Not SSLSocket.shutdown, which drops the TLS session while the other thread uses it.
            socket.socket.shutdown(self._sock, socket.SHUT_RDWR)
        except OSError:
            pass

    def wake(self) -> None:
        """Has the link's thread check for an end or a pause again."""
        if self._channel is not None:
            self._channel.wake()

    def start(self, serve: Callable[[], None]) -> None:
        """Runs `serve` in the link's thread and then closes the connection."""

        def run() -> None:
            try:
                serve()
            finally:
                self._finish()

        name = f"server-link-{self.number}"
        self._thread = threading.Thread(target=run, name=name, daemon=True)
        self._thread.start()

    def join(self, secs: float) -> bool:
        """Waits for the link's thread; true when it has ended."""
        if self._thread is None:
            return True
        if threading.current_thread() is not self._thread:
            self._thread.join(secs)
        return not self._thread.is_alive()

    # -- from the link's own thread --------------------------------------------------------

    def set_no_delay(self) -> None:
        """Sends small messages at once."""
        self._sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def shake_hands(self, context: ssl.SSLContext) -> None:
        """The TLS handshake; PeerClosed when the link was asked to end before it."""
        self._sock.settimeout(_HANDSHAKE_SECS)
        tls = context.wrap_socket(self._sock, server_side=True, do_handshake_on_connect=False)
        # Stored before the handshake, so that end() can stop it.
        self._sock = tls
        if self.end_wanted:
            raise PeerClosed("ended before the handshake")
        tls.do_handshake()

    def open(self) -> None:
        """Makes the channel, once."""
        if self._channel is None:
            self._channel = Channel(self._sock, wakeable=True)

    def read(self, within_secs: float) -> bytes:
        """What the relay sent; b"" when nothing came in time or after a wake."""
        return self._channel.read(within_secs)

    def _finish(self) -> None:
        if self._channel is None:
            try:
                self._channel = Channel(self._sock)
            except (OSError, ssl.SSLError, ValueError):
                self._sock.close()
        if self._channel is not None:
            self._channel.reset() if self.end_wanted == "reset" else self._channel.close()
        self.set_stage("closed")
