"""Audio sources and receivers: clients of a relay with audio sockets.

    source = AudioSource.connect(relay.address, relay.tcp_port)
    source.login(source_id, server.ticket_for(source_id))
    source.go_on_air(relay, server.ticket_for, program=2)
    receiver.listen(relay, server.ticket_for, program=2)
    receiver.audio(2).expect(source.send_audio(b"hello", program=2))     # once there is a route

A ticket is bytes, or a callable that makes one for a client id. Relays accept nine tickets of an
id within ten seconds; the log-in and every registration, good or bad, use up one each.
"""

from __future__ import annotations

from collections.abc import Callable
from typing import Protocol

from lab.audio.audio_socket import AudioPorts, AudioSocket
from lab.audio.audio_wire import RECEIVE, SEND
from lab.protocol import messages
from lab.stations.station import Station
from lab.support.channel import Channel
from lab.support.process_log import ProcessLog
from lab.support.waiting import Deadline

Ticket = bytes | Callable[[int], bytes]

#: Flags that every relay refuses: the refusal shows that it has seen all that was sent before.
_MALFORMED = 8
_REFUSAL = "UDP UNAUTHORIZED"


class LoggingRelay(AudioPorts, Protocol):
    """A relay whose log can be read."""

    log: ProcessLog


class AudioStation(Station):
    """A client with an audio socket per program. They close with the station, and stay open
    when only its connection ends (`hang_up`, `reset`)."""

    def __init__(self, link: Channel, name: str = "") -> None:
        super().__init__(link, name)
        self._audio: dict[int, AudioSocket] = {}
        self._in_force: set[tuple[int, int]] = set()

    def audio(self, program: int = 0) -> AudioSocket:
        """The socket of a program that was opened."""
        return self._audio[program]

    def open_audio(self, relay: AudioPorts, program: int = 0, **options: object) -> AudioSocket:
        """Opens the socket of a program at the address of the station's connection; sends
        nothing. An open one is replaced: the station has moved. Options go to AudioSocket."""
        options = {"address": self.local_address[0], **options}
        moved = AudioSocket(relay, program, client_id=self.client_id, **options)
        if program in self._audio:
            self._audio[program].close()
        self._audio[program] = moved
        return moved

    def register_audio(
        self,
        relay: AudioPorts | LoggingRelay,
        ticket: Ticket,
        program: int = 0,
        *,
        receive: bool = False,
        send: bool = False,
        within_secs: float = 5.0,
    ) -> AudioSocket:
        """Registers for a program, opening its socket if necessary, and waits until the relay
        has handled it. A relay with a log has to log there that it accepted the registration;
        for a repeated one it logs only the arrival."""
        audio = self._audio.get(program) or self.open_audio(relay, program)
        ticket = ticket if isinstance(ticket, bytes) else ticket(self.client_id)
        log = getattr(relay, "log", None)
        mark = log.mark() if log else 0
        audio.register(self.client_id, ticket, receive=receive, send=send)
        if log is None:
            self.prove_seen(audio, within_secs)
        else:
            self._wait_for_log(log, audio, RECEIVE * receive | SEND * send, within_secs, mark)
        return audio

    def _wait_for_log(
        self, log: ProcessLog, audio: AudioSocket, flags: int, within_secs: float, since: int
    ) -> None:
        """Waits for the lines of a registration, in the order in which the relay writes them."""
        me, program = self.client_id, audio.program
        where = "%s(%d)" % audio.local_address
        lines = [f"UDP registration messages from source {me}, program_idx {program}, addr"]
        for flag, verb in ((RECEIVE, "rx"), (SEND, "send")):
            if flags & flag and (program, flag) not in self._in_force:
                lines.append(f"Client {me} registered to {verb} audio program {program} at {where}")
        log.expect_in_order(*lines, within_secs=within_secs, since=since)
        self._in_force |= {(program, flag) for flag in (RECEIVE, SEND) if flags & flag}

    def prove_seen(self, audio: AudioSocket, within_secs: float = 5.0) -> None:
        """Returns when the relay has handled all that was sent to it from `audio` on channel 0: a
        malformed registration follows it, and its refusal comes over the TCP connection. Uses
        up no ticket. Does not tell whether an earlier registration was accepted."""
        audio.register_raw(self.client_id, flags=_MALFORMED)
        self.expect_refusal(within_secs)

    def expect_refusal(self, within_secs: float = 5.0) -> messages.Response:
        """The relay's refusal of a registration, over the TCP connection. Other messages that
        come before it stay in the inbox."""
        deadline = Deadline(within_secs)
        seen = 0
        while True:
            while seen < len(self._inbox):
                message = self._inbox[seen]
                if isinstance(message, messages.Response) and message.return_code == _REFUSAL:
                    del self._inbox[seen]
                    return message
                seen += 1
            self._fill(deadline)

    def hang_up(self) -> None:
        """Closes the connection and leaves the audio sockets open."""
        super().close()

    def close(self) -> None:
        """Closes the connection and all audio sockets."""
        super().close()
        for audio in self._audio.values():
            audio.close()


class AudioSource(AudioStation):
    """Sends audio."""

    def go_on_air(
        self, relay: AudioPorts, ticket: Ticket, program: int = 0, within_secs: float = 5.0
    ) -> AudioSocket:
        """Registers to send a program."""
        return self.register_audio(relay, ticket, program, send=True, within_secs=within_secs)

    def send_audio(self, payload: bytes, program: int = 0, channel: int = 0) -> bytes:
        """Sends one datagram and returns it."""
        return self._audio[program].send(payload, channel)


class AudioReceiver(AudioStation):
    """Receives audio."""

    def listen(
        self, relay: AudioPorts, ticket: Ticket, program: int = 0, within_secs: float = 5.0
    ) -> AudioSocket:
        """Registers to receive a program."""
        return self.register_audio(relay, ticket, program, receive=True, within_secs=within_secs)
