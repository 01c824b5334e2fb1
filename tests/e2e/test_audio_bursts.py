"""Three hundred datagrams of all lengths that wait together: each receiver gets the same bytes in
the same order, and the source gets the same confirmations as for single ones."""

from __future__ import annotations

import random

import pytest
from audio_tools import listening, on_air
from switching_tools import got_before_order_fence

from lab.protocol.messages import PIPE_AUDIO, AudioConfirm
from lab.support.tracer import LoopTracer

PROGRAM = 3
CONFIRMED = 300
#: Mostly one length, as in speech.
LENGTHS = [160] * 12 + [44] * 4 + [0, 1, 500, 1200, 1400, 2032]

pytestmark = pytest.mark.skipif(not LoopTracer.supported(), reason="unknown kind of processor")


@pytest.fixture
def source(relay, make_station):
    return on_air(make_station, relay, [PROGRAM], heartbeats=False)


@pytest.fixture
def receivers(relay, make_station, route, source):
    receivers = [listening(make_station, relay, [PROGRAM]) for _ in range(3)]
    for receiver in receivers:
        route(relay, source, receiver, PIPE_AUDIO)
    return receivers


def send_at_once(relay, source, payloads):
    """The relay is stopped meanwhile, and finds them all together."""
    with LoopTracer(relay.pid) as tracer:
        sent = [source.send_audio(payload, PROGRAM) for payload in payloads]
        calls = []
        while "recvmmsg" not in calls:
            calls += tracer.system_calls()
    assert calls.count("recvmmsg") == 1
    return sent


def confirmations(relay, source):
    """The programs confirmed since, checked with one more datagram."""
    source.prove_seen(source.audio(PROGRAM))
    got = got_before_order_fence(relay.server, source)
    return [one.program_index for one in got if isinstance(one, AudioConfirm)]


def test_bursts_of_all_lengths_arrive_unchanged_and_are_counted(relay, source, receivers):
    dice = random.Random(300)
    for count in (CONFIRMED, CONFIRMED - 3):
        payloads = [dice.randbytes(dice.choice(LENGTHS)) for _ in range(count)]
        sent = send_at_once(relay, source, payloads)
        for receiver in receivers:
            assert receiver.audio(PROGRAM).receive_count(count, 20) == sent
        # The datagram of each check counts, too.
        assert confirmations(relay, source) == ([PROGRAM] if count == CONFIRMED else [])
    send_at_once(relay, source, [b"the 300th again"])
    source.expect(AudioConfirm, program_index=PROGRAM)


def test_runs_of_one_length_keep_their_place_among_others(relay, source, receivers):
    """More than fit in one message to the system, then a shorter one, then a longer."""
    payloads = [b"%04d" % n + b"a" * 156 for n in range(100)]
    payloads += [b"short", b"%04d" % 101 + b"l" * 900]
    payloads += [b"%04d" % n + b"b" * 2000 for n in range(102, 180)]
    sent = send_at_once(relay, source, payloads)
    for receiver in receivers:
        assert receiver.audio(PROGRAM).receive_count(len(sent), 20) == sent
        assert receiver.audio(PROGRAM).receives_nothing(0)
