"""A client of a relay: connect, log in, send, receive. Blocking calls with deadlines."""

from __future__ import annotations

import threading
from collections import deque
from typing import Any, Callable, Iterable, TypeVar

from lab.protocol import messages, wire
from lab.support import channel
from lab.support.channel import Channel, PeerClosed
from lab.support.waiting import Deadline, LabTimeout

M = TypeVar("M", bound=messages.Message)
S = TypeVar("S", bound="Station")

#: Relays drop clients that say nothing for 15 seconds.
_HEARTBEAT_SECS = 3.0


class Station:
    """A client connection. Reads belong to one thread; the heartbeat thread only writes."""

    def __init__(self, link: Channel, name: str = "") -> None:
        self.name = name or type(self).__name__.lower()
        self.client_id = 0
        self.heartbeats_received = 0
        #: Whether receive() returns heartbeats too; they come at unpredictable times.
        self.show_heartbeats = False
        self._channel = link
        self._frames = wire.FrameReader()
        self._inbox: deque[messages.Message] = deque()
        self._over: PeerClosed | None = None
        self._beating: threading.Thread | None = None
        self._stop_beating = threading.Event()

    @classmethod
    def connect(
        cls: type[S],
        address: str,
        port: int,
        *,
        source_ip: str = "",
        tls: bool = False,
        name: str = "",
        within_secs: float = 5.0,
        receive_buffer: int = 0,
    ) -> S:
        """Connects to a relay; OSError when that is refused. `receive_buffer` in bytes."""
        link = channel.connect(
            address,
            port,
            source_ip=source_ip,
            tls=tls,
            within_secs=within_secs,
            receive_buffer=receive_buffer,
        )
        return cls(link, name)

    def __enter__(self: S) -> S:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    @property
    def local_address(self) -> tuple[str, int]:
        """Address and port of this end of the connection."""
        return self._channel.local

    def fileno(self) -> int:
        """The descriptor of the connection."""
        return self._channel.fileno()

    # -- sending ---------------------------------------------------------------------------

    def send(self, message: messages.Message, within_secs: float = 5.0) -> None:
        """Sends one message, as this station unless it names another sender."""
        if message.sender_id == 0:
            message.sender_id = self.client_id
        self._channel.write(message.frame(), within_secs)

    def send_all(self, batch: Iterable[messages.Message], within_secs: float = 5.0) -> None:
        """Sends several messages in one write."""
        frames = []
        for message in batch:
            message.sender_id = message.sender_id or self.client_id
            frames.append(message.frame())
        self._channel.write(b"".join(frames), within_secs)

    def send_raw(self, data: bytes, within_secs: float = 5.0) -> None:
        """Sends bytes unchanged."""
        self._channel.write(data, within_secs)

    def send_image(self, image: bytes, within_secs: float = 5.0) -> None:
        """Sends an image as a frame."""
        self._channel.write(wire.to_frame(image), within_secs)

    # -- receiving -------------------------------------------------------------------------

    def receive(self, within_secs: float = 5.0) -> messages.Message:
        """The next message; LabTimeout, or PeerClosed when the connection has ended."""
        deadline = Deadline(within_secs)
        while not self._inbox:
            self._fill(deadline)
        return self._inbox.popleft()

    def _fill(self, deadline: Deadline) -> None:
        """One read into the inbox."""
        if self._over is not None:
            raise self._over
        late = deadline.passed()
        try:
            data = self._channel.read(deadline.left())
        except PeerClosed as error:
            self._over = error
            raise
        if not data and late:
            raise LabTimeout(f"{self.name}: nothing received in time")
        self._frames.feed(data)
        for image in self._frames:
            message = messages.parse(image)
            if isinstance(message, messages.Heartbeat):
                self.heartbeats_received += 1
                if not self.show_heartbeats:
                    continue
            self._inbox.append(message)

    def expect(self, kind: type[M], within_secs: float = 5.0, **values: Any) -> M:
        """The next message, which has to be of this class and have these field values."""
        message = self.receive(within_secs)
        if not isinstance(message, kind):
            raise AssertionError(f"{self.name}: expected {kind.__name__}, got {message}")
        for name, value in values.items():
            if getattr(message, name) != value:
                raise AssertionError(f"{self.name}: expected {name}={value!r}, got {message}")
        return message

    def receive_until(
        self, predicate: Callable[[messages.Message], Any], within_secs: float = 5.0
    ) -> list[messages.Message]:
        """All messages up to and including the first for which `predicate` holds."""
        deadline = Deadline(within_secs)
        got = []
        while not (got and predicate(got[-1])):
            while not self._inbox:
                self._fill(deadline)
            got.append(self._inbox.popleft())
        return got

    def receive_count(self, count: int, within_secs: float = 5.0) -> list[messages.Message]:
        """Exactly `count` messages."""
        deadline = Deadline(within_secs)
        while len(self._inbox) < count:
            self._fill(deadline)
        return [self._inbox.popleft() for _ in range(count)]

    def receives_nothing(self, for_secs: float = 0.3) -> bool:
        """True when no message comes for that long. Prefer a message that must come later: only
        that proves that an earlier one was not still in transit."""
        try:
            self._inbox.appendleft(self.receive(for_secs))
        except LabTimeout:
            return True
        except PeerClosed:
            return True
        return False

    def closed_by_peer(self, within_secs: float = 5.0) -> bool:
        """True when the peer ends the connection in time. Messages that came before the end
        stay readable."""
        deadline = Deadline(within_secs)
        try:
            while True:
                self._fill(deadline)
        except PeerClosed:
            return True
        except LabTimeout:
            return False

    @property
    def end_seen(self) -> PeerClosed | None:
        """How the peer ended the connection (PeerReset: by a reset), once that was read."""
        return self._over

    # -- life ------------------------------------------------------------------------------

    def login(
        self, client_id: int, ticket: bytes, *, expect: str = "OK", within_secs: float = 5.0
    ) -> messages.Response:
        """Presents a ticket and returns the relay's answer, which has to be `expect`."""
        self.client_id = client_id
        self.send(messages.RelayConnect(client_id, ticket))
        return self.expect(messages.Response, within_secs, return_code=expect)

    def logout(self) -> None:
        """Tells the relay that this station is leaving."""
        self.send(messages.LogOut(self.name))

    def start_heartbeats(self, period_secs: float = _HEARTBEAT_SECS) -> None:
        """Sends heartbeats from a thread of its own until `close`."""
        self._beating = threading.Thread(
            target=self._beat, args=(period_secs,), name=f"{self.name}-beat", daemon=True
        )
        self._beating.start()

    def _beat(self, period_secs: float) -> None:
        while not self._stop_beating.wait(period_secs):
            try:
                self.send(messages.Heartbeat())
            except (PeerClosed, LabTimeout):
                return

    def finish_sending(self) -> None:
        """Half-closes: the relay sees the end of the stream."""
        self._channel.finish_sending()

    def close(self) -> None:
        """Closes the connection without a log-out."""
        self._end(self._channel.close)

    def reset(self) -> None:
        """Resets the connection."""
        self._end(self._channel.reset)

    def _end(self, end_channel: Callable[[], None]) -> None:
        self._stop_beating.set()
        if self._beating is not None:
            self._beating.join(10)
        end_channel()
