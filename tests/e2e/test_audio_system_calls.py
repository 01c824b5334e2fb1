"""Datagrams that wait together are received in one system call and sent in few."""

from __future__ import annotations

import time

import pytest
from audio_tools import listening, on_air

from lab.protocol.messages import PIPE_AUDIO, Heartbeat
from lab.support.tracer import LoopTracer
from lab.support.waiting import Deadline

DATAGRAMS = 290
RECEIVERS = 10
#: The most that one call sends, and the most that one takes.
SENT_AT_ONCE, TAKEN_AT_ONCE = 1024, 1000

pytestmark = pytest.mark.skipif(not LoopTracer.supported(), reason="unknown kind of processor")


@pytest.fixture
def server(make_server):
    """Without heartbeats, which would cost extra calls."""
    return make_server(heartbeat_secs=60)


@pytest.fixture
def source(relay, make_station):
    return on_air(make_station, relay, [1], heartbeats=False)


@pytest.fixture
def receivers(relay, make_station, route, source):
    receivers = [listening(make_station, relay, [1], heartbeats=False) for _ in range(RECEIVERS)]
    for receiver in receivers:
        route(relay, source, receiver, PIPE_AUDIO)
    warm_up = source.send_audio(b"the route is looked up once", 1)
    for receiver in receivers:
        receiver.audio(1).expect(warm_up)
    return receivers


def in_one_pass(relay, source, receivers, payloads):
    """Sends everything while the relay is held, and asserts that all arrive: the calls of the pass
    that handles it. Timers run in seconds that are multiples of four: if one ran meanwhile, it is
    repeated."""
    deadline = Deadline(60)
    while True:
        for one in (source, *receivers):
            one.send(Heartbeat())
        with LoopTracer(relay.pid) as tracer:
            tracer.system_calls()
            # Attaching to the relay may have taken some seconds.
            while int(time.time()) % 4 != 1:
                tracer.system_calls()
            begun = int(time.time())
            sent = [source.send_audio(payload, 1) for payload in payloads]
            calls = tracer.system_calls()
            took_secs = int(time.time()) - begun
        for receiver in receivers:
            assert receiver.audio(1).receive_count(len(sent), 10) == sent
        if took_secs < 3:
            return calls
        assert not deadline.passed(), "too slow to do without timers"


def test_a_datagram_takes_two_calls_whatever_its_receivers(relay, source, receivers):
    assert in_one_pass(relay, source, receivers, [b"sound"]) == ["recvmmsg", "sendmmsg"]


@pytest.mark.parametrize("lengths", [1, 2])
def test_datagrams_that_wait_together_are_sent_together(relay, source, receivers, lengths):
    """A call takes no more than 1024 messages, so a few are needed when each datagram is one; those
    of one length share a message. There is no other call."""
    payloads = [b"%06d" % number + b"x" * (number % lengths) for number in range(DATAGRAMS)]
    calls = in_one_pass(relay, source, receivers, payloads)
    assert calls.count("recvmmsg") == 1
    assert calls.count("sendmmsg") == (
        1 if lengths == 1 else -(-DATAGRAMS * RECEIVERS // SENT_AT_ONCE)
    )
    assert set(calls) == {"recvmmsg", "sendmmsg"}


def test_a_flow_takes_turns_with_everything_else(relay, source, receivers):
    """At most a thousand datagrams are received before others get their turn."""
    with LoopTracer(relay.pid) as tracer:
        for _ in range(TAKEN_AT_ONCE + 1):
            source.audio(1).send_raw(bytes(16))
        # Heartbeats may be due in any pass.
        taken = [tracer.system_calls().count("recvmmsg") for _ in range(3)]
        assert taken == [1, 1, 0]
