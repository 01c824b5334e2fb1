"""A clip of speech in real time, from one source to two receivers: every packet arrives, byte for
byte, in order, with error correction and without, on one program and on six at once."""

from __future__ import annotations

import contextlib

import pytest
from audio_tools import listening, on_air

from lab.audio.audio_wire import CHANNELS
from lab.audio.clip_player import ClipListener, ClipPlayer
from lab.protocol.messages import PIPE_AUDIO

SECONDS = 3
#: An encoder of 20 ms packets.
PACKETS = 150


@pytest.fixture
def cast(make_relay, make_station, route):
    """A source and two receivers of these programs, at a relay with or without FEC."""

    def cast(programs, fec):
        relay = make_relay(fec=fec)
        source = on_air(make_station, relay, programs)
        receivers = [listening(make_station, relay, programs) for _ in range(2)]
        for receiver in receivers:
            route(relay, source, receiver, PIPE_AUDIO)
        return source, receivers

    return cast


@pytest.fixture
def listen():
    with contextlib.ExitStack() as stack:
        yield lambda audio: stack.enter_context(ClipListener(audio))


def test_without_error_correction(cast, listen):
    source, receivers = cast([0], fec=False)
    listeners = [listen(receiver.audio(0)) for receiver in receivers]
    player = ClipPlayer(source.audio(0), seconds=SECONDS)
    player.play()
    for listener in listeners:
        listener.wait_for(PACKETS)
        assert listener.verdict(player.sent()).perfect
        assert {heard.source for heard in listener.arrived()} == {source.audio(0).relay_address()}


def test_with_error_correction_on_the_ports_2_and_4_higher(cast, listen):
    source, receivers = cast([4], fec=True)
    listeners = [listen(receiver.audio(4)) for receiver in receivers]
    player = ClipPlayer(source.audio(4), seconds=SECONDS, fec=True)
    player.play()
    for listener in listeners:
        for channel in CHANNELS:
            listener.wait_for(PACKETS, channel=channel)
            assert listener.verdict(player.sent(channel), channel=channel).perfect
            sources = {heard.source for heard in listener.arrived(channel)}
            assert sources == {source.audio(4).relay_address(channel)}


def test_error_correction_goes_nowhere_when_it_is_off(cast):
    source, receivers = cast([0], fec=False)
    source.send_audio(b"correction", channel=1)
    source.send_audio(b"correction", channel=2)
    sound = source.send_audio(b"sound")
    for receiver in receivers:
        receiver.audio(0).expect(sound)
        assert receiver.audio(0).receives_nothing(0.05)


@pytest.mark.parametrize("fec", [False, True], ids=["plain", "fec"])
def test_six_programs_at_once(cast, listen, fec):
    channels = CHANNELS if fec else CHANNELS[:1]
    source, receivers = cast(range(6), fec)
    players, listeners = [], []
    for program in range(6):
        listeners += [(program, listen(receiver.audio(program))) for receiver in receivers]
        players.append(ClipPlayer(source.audio(program), seconds=SECONDS, fec=fec))
    for player in players:
        player.start()
    for player in players:
        player.finish()
    for program, listener in listeners:
        for channel in channels:
            listener.wait_for(PACKETS, channel=channel)
            assert listener.verdict(players[program].sent(channel), channel=channel).perfect
