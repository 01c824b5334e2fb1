"""A clip played through a stand-in relay, and the listener's verdict on it."""

from __future__ import annotations

import struct
import types
from collections.abc import Iterator

import pytest
from stand_in_audio_relay import StandInAudioRelay

from lab.audio import audio_wire
from lab.audio.audio_socket import AudioAddress, AudioSocket, Heard
from lab.audio.clip_listener import Verdict, judge
from lab.audio.clip_player import ClipListener, ClipPlayer, schedule
from lab.media.ogg_opus import Packet
from lab.support.waiting import LabTimeout

#: A clip of three packets of 10 ms.
PACKETS = [Packet(b"one", 0.01), Packet(b"two", 0.01), Packet(b"three", 0.01)]
A, B, C, D = (audio_wire.audio_datagram(7, one) for one in (b"a", b"b", b"c", b"d"))


@pytest.fixture
def relay() -> Iterator[StandInAudioRelay]:
    with StandInAudioRelay() as relay:
        yield relay


@pytest.fixture
def audio(relay: StandInAudioRelay) -> Iterator[AudioSocket]:
    with AudioSocket(relay, 1) as audio:
        audio.register(7, b"ticket", receive=True, send=True)
        yield audio


def heard(*datagrams: bytes, at: list[float] | None = None) -> list[Heard]:
    times = at or [float(index) for index in range(len(datagrams))]
    return [Heard(one, ("127.0.0.1", 1), 0, when) for one, when in zip(datagrams, times)]


def test_the_schedule_repeats_and_truncates():
    assert [cue.packet for cue in schedule(PACKETS, 0.04)] == [b"one", b"two", b"three", b"one"]
    assert [cue.at for cue in schedule(PACKETS, 0.025)] == pytest.approx([0, 0.01, 0.02])
    assert schedule(PACKETS, 0) == [] and schedule([], 1) == []
    assert schedule([Packet(b"x", 0.02)], 3600)[-1].at == pytest.approx(3599.98)


def test_a_clip_arrives_unchanged_in_real_time(audio):
    player = ClipPlayer(audio, seconds=0.5)
    with ClipListener(audio) as listener:
        player.start().finish()
        listener.wait_for(25)
    verdict = listener.verdict(player.sent())
    assert len(player.sent()) == 25 and verdict.perfect
    times = player.times()
    # Late is possible on a busy machine; early is not.
    assert 0.48 - player.worst_lateness_secs <= times[-1] - times[0] + 1e-6 < 5


def test_a_late_packet_delays_no_other(audio, monkeypatch):
    # The clock jumps ahead by 25 ms at each reading: all packets are late, none is skipped.
    now = iter(range(1000))
    clock = types.SimpleNamespace(monotonic=lambda: next(now) * 0.025)
    monkeypatch.setattr("lab.audio.clip_player.time", clock)
    player = ClipPlayer(audio, PACKETS, seconds=0.1)
    player.play()
    assert audio.receive_count(10) == player.sent()
    assert player.worst_lateness_secs > 0.3


def test_no_two_datagrams_are_equal(audio):
    player = ClipPlayer(audio, PACKETS, seconds=0.1, fec=True)
    player.play()
    everything = [one for channel in audio_wire.CHANNELS for one in player.sent(channel)]
    assert len(set(everything)) == len(everything) == 30


def test_error_correction_is_sent_with_the_audio_and_recovers_it(audio):
    player = ClipPlayer(audio, PACKETS, fec=True)
    with ClipListener(audio) as listener:
        player.play()
        for channel in audio_wire.CHANNELS:
            listener.wait_for(3, channel=channel)
    for channel in audio_wire.CHANNELS:
        assert listener.verdict(player.sent(channel), channel=channel).perfect
    bodies = {channel: [one[28:] for one in player.sent(channel)] for channel in (0, 1, 2)}
    assert audio_wire.parity(bodies[1][2], b"three") == b"two\0\0"
    assert audio_wire.parity(bodies[2][2], b"three") == b"one\0\0"


def test_stopping_ends_the_play_early(audio):
    player = ClipPlayer(audio, seconds=3600).start()
    audio.receive()
    player.stop()
    assert 1 <= len(player.sent()) < 1000


def test_an_error_in_the_players_thread_is_raised_at_the_end():
    audio = AudioSocket(AudioAddress("127.0.0.1", 1))
    audio.close()
    with pytest.raises(OSError):
        ClipPlayer(audio, PACKETS).start().finish()


def test_senders_are_distinguished_by_the_marked_id(relay, audio):
    with AudioSocket(relay, 1, client_id=9) as other, ClipListener(audio) as listener:
        mine = audio.send_burst([b"1", b"2"])
        others = other.send_burst([b"1", b"2", b"3"])
        listener.wait_for(5)
        assert listener.verdict(mine, marked_id=7).perfect
        assert listener.verdict(others, marked_id=9).perfect
        assert listener.verdict(mine).changed == 3


def test_waiting_for_missing_datagrams_times_out(audio):
    with ClipListener(audio) as listener, pytest.raises(LabTimeout, match="0 of 1"):
        listener.wait_for(1, 0.1)


@pytest.mark.parametrize(
    ("spoil", "count"),
    [
        (lambda one: [] if sequence(one) == 5 else [one], {"lost": 1}),
        (lambda one: [one[:-1] + b"!"] if sequence(one) == 5 else [one], {"changed": 1}),
        (lambda one: [one[:-1]] if sequence(one) == 5 else [one], {"changed": 1}),
        (lambda one: [one] * (2 if sequence(one) == 5 else 1), {"duplicates": 1}),
    ],
)
def test_one_fault_in_transit_is_found(relay, audio, spoil, count):
    relay.tamper = spoil
    player = ClipPlayer(audio, seconds=0.2)
    with ClipListener(audio) as listener:
        player.play()
        listener.wait_for(10 - count.get("lost", 0) + count.get("duplicates", 0))
    verdict = listener.verdict(player.sent())
    assert not verdict.perfect and faults(verdict) == {**dict.fromkeys(NO_FAULTS, 0), **count}


def test_two_datagrams_swapped_in_transit_are_found(relay, audio):
    held: list[bytes] = []

    def swap(one: bytes) -> list[bytes]:
        if sequence(one) == 5:
            held.append(one)
            return []
        return [one, held.pop()] if held else [one]

    relay.tamper = swap
    player = ClipPlayer(audio, seconds=0.2)
    with ClipListener(audio) as listener:
        player.play()
        listener.wait_for(10)
    verdict = listener.verdict(player.sent())
    assert not verdict.perfect
    assert faults(verdict) == {**dict.fromkeys(NO_FAULTS, 0), "out_of_order": 1}


NO_FAULTS = ("lost", "changed", "duplicates", "out_of_order")


def faults(verdict: Verdict) -> dict[str, int]:
    return {name: getattr(verdict, name) for name in NO_FAULTS}


def sequence(datagram: bytes) -> int:
    return struct.unpack_from(">H", datagram, 18)[0]


def test_verdicts():
    assert judge([A, B], heard(A, B)) == Verdict(2, 2, 0, 0, 0, 0, 1.0)
    assert judge([A, B, C], heard(C, A)) == Verdict(3, 2, 0, 1, 1, 0, 1.0)
    assert judge([A], heard(A, D)) == Verdict(1, 2, 1, 0, 0, 0, 1.0)
    assert judge([A, A], heard(A, A, A)) == Verdict(2, 3, 0, 0, 0, 1, 1.0)
    assert judge([A], []) == Verdict(1, 0, 0, 1, 0, 0, 0.0)
    assert judge([], []).perfect


def test_the_longest_gap_is_found():
    verdict = judge([A, B, C, D], heard(A, B, D, at=[10.0, 10.5, 13.25]))
    assert verdict.longest_gap_secs == 2.75 and verdict.lost == 1
