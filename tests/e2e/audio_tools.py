"""Helpers of the audio tests: registered stations, and the results of registrations.

A good registration is not answered. A fence shows how it was handled: a malformed one that follows
from the same socket, with unique flags that are logged.
"""

from __future__ import annotations

import dataclasses
import itertools
from collections.abc import Callable, Iterable

from switching_tools import LOAD_REPORT, got_before_order_fence

from lab.audio.audio_socket import AudioSocket
from lab.protocol import messages
from lab.relay.relay import Relay
from lab.stations.audio_stations import AudioReceiver, AudioSource, AudioStation

REFUSED = "UDP UNAUTHORIZED"
_fence_flags = itertools.count(100_000)


def on_air(
    make_station: Callable[..., AudioStation],
    relay: Relay,
    programs: Iterable[int] = (0,),
    **options: object,
) -> AudioSource:
    """A source that is registered to send these programs."""
    source = make_station(relay, AudioSource, **options)
    for program in programs:
        source.go_on_air(relay, relay.server.ticket_for, program)
    return source


def listening(
    make_station: Callable[..., AudioStation],
    relay: Relay,
    programs: Iterable[int] = (0,),
    **options: object,
) -> AudioReceiver:
    """A receiver that is registered for these programs."""
    receiver = make_station(relay, AudioReceiver, **options)
    for program in programs:
        receiver.listen(relay, relay.server.ticket_for, program)
    return receiver


@dataclasses.dataclass
class Outcome:
    """What the relay said about a registration: its log lines, without their times, and the return
    codes that the station got over its connection."""

    lines: list[str]
    answers: list[str]

    @property
    def taken(self) -> bool:
        """Whether it was not refused, in the log or by an answer."""
        refused = any("udp registration ticket not accepted" in line for line in self.lines)
        assert refused == (self.answers == [REFUSED]), self
        return not refused


def fence(relay: Relay, audio: AudioSocket, channel: int = 0) -> tuple[int, int]:
    """Has the relay handle all that was sent from `audio` on this channel, and log it; returns
    where the lines of the fence begin and end in the log."""
    flags = next(_fence_flags)
    malformed = f"ticket rejected for ill-formed flags - {flags}. "
    audio.register_raw(audio.client_id, flags=flags, channel=channel)
    relay.log.expect_in_order(malformed, "udp registration ticket not accepted")
    second = next(i for i, line in enumerate(relay.log.lines) if malformed in line)
    # The first line reports the arrival, the third the result.
    return second - 1, second + 2


def outcome(
    relay: Relay,
    station: AudioStation,
    send: Callable[[], object],
    *,
    audio: AudioSocket | None = None,
    channel: int = 0,
) -> Outcome:
    """The result of what `send` sends to the program and channel of `audio`, by default the
    station's socket of program 0."""
    audio = audio or station.audio(0)
    _, begin = fence(relay, audio, channel)
    got_before_order_fence(relay.server, station)
    send()
    end, _ = fence(relay, audio, channel)
    got = got_before_order_fence(relay.server, station)
    answers = [one.return_code for one in got if isinstance(one, messages.Response)]
    # The client named by the fence is told last.
    if audio.client_id == station.client_id:
        assert answers.pop() == REFUSED
    lines = [line.partition(" - ")[2] for line in relay.log.lines[begin:end]]
    # On the minute the relay logs more.
    return Outcome([line for line in lines if not line.startswith(LOAD_REPORT)], answers)


def register(
    relay: Relay,
    station: AudioStation,
    ticket: bytes,
    flags: int = 1,
    *,
    program: int = 0,
    client_id: int | None = None,
    **changes: object,
) -> Outcome:
    """Sends one registration of the station from its socket of a program."""
    client_id = station.client_id if client_id is None else client_id
    audio = station.audio(program)
    return outcome(
        relay, station, lambda: audio.register_raw(client_id, ticket, flags, **changes), audio=audio
    )
