"""A station's UDP side: one audio program at one relay.

    audio = AudioSocket(relay, program=2, client_id=2001)
    audio.register(2001, ticket, receive=True, send=True)
    sent = audio.send(b"sound")
    audio.expect(sent)                # when a route leads back to this socket
"""

from __future__ import annotations

import dataclasses
import time
from collections import deque
from collections.abc import Iterable
from typing import NamedTuple, Protocol

from lab.audio import audio_wire
from lab.audio.audio_wire import CALL_BACK, RECEIVE, RELAY_CHANNEL_STEP, SEND, STATION_CHANNEL_STEP
from lab.audio.udp_row import UdpRow
from lab.support.waiting import Deadline, LabTimeout, patient

_SEND_SECS = 5.0


class AudioPorts(Protocol):
    """What an audio socket needs to know about a relay."""

    @property
    def address(self) -> str: ...
    def audio_port(self, program: int) -> int: ...


@dataclasses.dataclass(frozen=True)
class AudioAddress:
    """A relay known only by its address and first audio port."""

    address: str
    base_port: int

    def audio_port(self, program: int) -> int:
        """The UDP port of an audio program 0..5."""
        return self.base_port + 2 * program


class Heard(NamedTuple):
    """A datagram as received; `at` in seconds of the monotonic clock."""

    datagram: bytes
    source: tuple[str, int]
    channel: int
    at: float


class AudioSocket:
    """Bound to a port of its own and, for error correction, to the ports 2 and 4 above.

    Everything is sent from the first port, the address that a registration names. One thread
    may send while another receives; each job belongs to one thread.
    """

    def __init__(
        self,
        relay: AudioPorts,
        program: int = 0,
        *,
        client_id: int = 0,
        address: str = "127.0.0.1",
        port: int = 0,
        fec: bool = True,
    ) -> None:
        """`client_id` marks what is sent. `port` asks for that one and no other. Without `fec`
        copies for the ports above are not received, and may reach another process there."""
        self.relay = relay
        self.program = program
        self.client_id = client_id
        channels = audio_wire.CHANNELS if fec else audio_wire.CHANNELS[:1]
        steps = [STATION_CHANNEL_STEP * channel for channel in channels]
        self._row = UdpRow(address, steps, port)
        self._inbox: dict[int, deque[Heard]] = {channel: deque() for channel in channels}
        #: Address and port that a registration names.
        self.local_address: tuple[str, int] = self._row.sockets[0].getsockname()

    def __enter__(self) -> AudioSocket:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Closes the sockets."""
        self._row.close()

    def relay_address(self, channel: int = 0) -> tuple[str, int]:
        """Where the relay listens for this program and channel, and sends it from."""
        port = self.relay.audio_port(self.program) + RELAY_CHANNEL_STEP * channel
        return self.relay.address, port

    @property
    def overflows(self) -> int:
        """How many datagrams our own kernel dropped because they were not read in time, which is
        not the relay's fault; known from the next datagram on that is read."""
        return self._row.overflows

    # -- sending ---------------------------------------------------------------------------

    def register(
        self,
        client_id: int,
        ticket: bytes,
        *,
        receive: bool = True,
        send: bool = False,
        callback: bool = False,
        channel: int = 0,
    ) -> bytes:
        """Sends a registration and returns it; a good one is not answered.
        From now on this socket marks what it sends with `client_id`."""
        self.client_id = client_id
        flags = RECEIVE * receive | SEND * send | CALL_BACK * callback
        return self.register_raw(client_id, ticket, flags, channel=channel)

    def register_raw(
        self,
        client_id: int,
        ticket: bytes = b"",
        flags: int = RECEIVE,
        *,
        marked_id: int | None = None,
        terminator: bool = True,
        tail: bytes = b"",
        channel: int = 0,
    ) -> bytes:
        """Sends a registration that may be malformed; see audio_wire.registration."""
        datagram = audio_wire.registration(
            client_id, ticket, flags, marked_id=marked_id, terminator=terminator, tail=tail
        )
        return self.send_raw(datagram, channel)

    def send(self, payload: bytes, channel: int = 0) -> bytes:
        """Sends audio and returns the datagram."""
        return self.send_raw(audio_wire.audio_datagram(self.client_id, payload), channel)

    def send_burst(self, payloads: Iterable[bytes], channel: int = 0) -> list[bytes]:
        """Sends many as fast as possible; returns the datagrams."""
        datagrams = [audio_wire.audio_datagram(self.client_id, one) for one in payloads]
        for datagram in datagrams:
            self.send_raw(datagram, channel)
        return datagrams

    def send_raw(self, data: bytes, channel: int = 0) -> bytes:
        """Sends bytes as they are."""
        if not self._row.send(data, self.relay_address(channel), patient(_SEND_SECS)):
            raise LabTimeout(f"{self} cannot send")
        return data

    # -- receiving -------------------------------------------------------------------------

    def receive(self, within_secs: float = 5.0, channel: int = 0) -> bytes:
        """The next datagram of a channel; LabTimeout when none comes."""
        return self.receive_heard(within_secs, channel).datagram

    def receive_heard(self, within_secs: float = 5.0, channel: int = 0) -> Heard:
        """Like `receive`, with source and time."""
        deadline = Deadline(within_secs)
        while not self._inbox[channel]:
            if not self._fill(deadline):
                raise LabTimeout(f"{self} heard nothing on channel {channel} in time")
        return self._inbox[channel].popleft()

    def receive_count(self, count: int, within_secs: float = 5.0, channel: int = 0) -> list[bytes]:
        """Exactly `count` datagrams of a channel."""
        deadline = Deadline(within_secs)
        inbox = self._inbox[channel]
        while len(inbox) < count:
            if not self._fill(deadline):
                lost = f", {self.overflows} lost in our own buffer" if self.overflows else ""
                raise LabTimeout(f"{self} heard {len(inbox)} of {count} datagrams{lost}")
        return [inbox.popleft().datagram for _ in range(count)]

    def receive_waiting(self, within_secs: float = 0.0) -> list[Heard]:
        """All datagrams received so far, of all channels; waits for a first one."""
        if not any(self._inbox.values()):
            self._fill(Deadline(within_secs))
        heard = [one for inbox in self._inbox.values() for one in inbox]
        for inbox in self._inbox.values():
            inbox.clear()
        return heard

    def expect(self, datagram: bytes, within_secs: float = 5.0, channel: int = 0) -> None:
        """The next datagram of a channel has to be this one, from the relay's port for it."""
        heard = self.receive_heard(within_secs, channel)
        if heard.datagram != datagram:
            raise AssertionError(f"{self}: expected {datagram!r}, heard {heard}")
        if heard.source != self.relay_address(channel):
            raise AssertionError(f"{self}: expected it from {self.relay_address(channel)}: {heard}")

    def receives_nothing(self, for_secs: float = 0.3) -> bool:
        """True when no channel receives anything for that long. Prefer a datagram that must come
        later: only that proves that an earlier one was not still in transit."""
        return not any(self._inbox.values()) and not self._fill(Deadline(for_secs))

    def _fill(self, deadline: Deadline) -> bool:
        """Reads what has arrived, waiting for a first datagram; false when none came."""
        ready = self._row.wait(deadline.left())
        for channel in ready:
            for datagram, source in self._row.drain(channel):
                heard = Heard(datagram, source, channel, time.monotonic())
                self._inbox[channel].append(heard)
        return bool(ready)

    def __repr__(self) -> str:
        host, port = self.local_address
        return f"<AudioSocket {self.client_id} program {self.program} at {host}:{port}>"
