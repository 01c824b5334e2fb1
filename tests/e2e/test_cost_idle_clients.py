"""What it costs to switch a caption and a datagram of sound does not grow with the clients that
have nothing to do with it: machine instructions and system calls are counted, not seconds.

The idle ones are no easy company: each is registered to send and to receive the program at play,
from the address of the source.
"""

from __future__ import annotations

import contextlib
import time

import pytest
from audio_tools import listening, on_air

from lab.audio.audio_socket import AudioSocket
from lab.protocol.messages import PIPE_AUDIO, PIPE_CAPTION, Heartbeat
from lab.stations.caption_stations import Captioner, Encoder
from lab.stations.crowd import Crowd
from lab.support.tracer import LoopTracer, TooManySteps
from lab.support.waiting import Deadline, wait_until

FEW, MANY = 10, 5000
WAVE = 250
PROGRAM = 1
#: A pass in which a timer runs costs more, so the cheapest of several counts.
MEASUREMENTS = 3

pytestmark = [
    pytest.mark.skipif(not LoopTracer.supported(), reason="unknown kind of processor"),
    pytest.mark.timeout(400),
]


class Cast:
    """A captioner and a source, each with one receiver."""

    def __init__(self, relay, crowd, make_station, route):
        self.relay, self.crowd = relay, crowd
        # Heartbeats are sent while nothing is counted, see _wait_for_quiet.
        self.captioner = make_station(relay, Captioner, heartbeats=False)
        self.encoder = make_station(relay, Encoder, heartbeats=False)
        self.source = on_air(make_station, relay, [PROGRAM], heartbeats=False)
        self.receiver = listening(make_station, relay, [PROGRAM], heartbeats=False)
        route(relay, self.captioner, self.encoder, PIPE_CAPTION)
        route(relay, self.source, self.receiver, PIPE_AUDIO)

    def caption(self):
        self.captioner.caption(b"AB")

    def audio(self):
        self.source.send_audio(b"sound", PROGRAM)

    def costs(self):
        """The fewest instructions and system calls that a caption took, and that a datagram
        took."""
        for act in (self.caption, self.audio):
            act()  # the route is looked up once
            self._expect(act, 1)
        return [self._cost(act) for act in (self.caption, self.audio)]

    def _cost(self, act):
        steps, calls = [], []
        deadline = Deadline(120)
        for results, count in ((steps, LoopTracer.instructions), (calls, LoopTracer.system_calls)):
            while len(results) < MEASUREMENTS:
                assert not deadline.passed(), "more steps than can be counted, again and again"
                self._wait_for_quiet()
                with contextlib.suppress(TooManySteps), self._held() as tracer:
                    act()
                    results.append(count(tracer))
                self._expect(act, 1)
        return min(steps), min(calls, key=len)

    @contextlib.contextmanager
    def _held(self):
        """The relay under the tracer, for one pass. On a busy machine stepping through one may take
        longer than a client may be silent, so every client sends a heartbeat in the next."""
        with LoopTracer(self.relay.pid) as tracer:
            try:
                yield tracer
            finally:
                self.send_heartbeats()

    def _wait_for_quiet(self):
        """Timers run in seconds that are multiples of four: their work for thousands of clients
        would take far too long step by step. Nor may any heartbeats still be unread."""
        wait_until(lambda: int(time.time()) % 4 == 1, 10, "a second without timers")
        self.send_heartbeats()
        self.caption()
        self._expect(self.caption, 1)

    def send_heartbeats(self):
        """Sends a heartbeat from every client, because silent ones are dropped."""
        cast = (self.captioner, self.encoder, self.source, self.receiver)
        for one in cast:
            one.send(Heartbeat())
        self.crowd.send_heartbeats()

    def _expect(self, act, count):
        if act == self.caption:
            for _ in range(count):
                assert self.encoder.receive_caption(20)[0] == b"AB"
        else:
            assert len(self.receiver.audio(PROGRAM).receive_count(count, 20)) == count


def _grow(cast, to):
    """Idle clients registered for audio, up to `to`; all of them send heartbeats."""
    crowd, relay = cast.crowd, cast.relay
    with AudioSocket(relay, PROGRAM) as audio:
        while len(crowd.stations) < to:
            since = relay.log.mark()
            wave = crowd.admit(min(WAVE, to - len(crowd.stations)), relay.server)
            for one in wave:
                ticket = relay.server.ticket_for(one.client_id)
                audio.register(one.client_id, ticket, receive=True, send=True)
            cast.send_heartbeats()
            last = f"Client {wave[-1].client_id} registered to send audio program {PROGRAM}"
            relay.log.expect(last, 20, since=since)
    assert relay.log.count("registered to send audio program") == 1 + to


def test_idle_clients_cost_nothing(relay, make_station, route):
    with Crowd(relay.address, relay.tcp_port) as crowd:
        cast = Cast(relay, crowd, make_station, route)
        _grow(cast, FEW)
        with_few = cast.costs()
        _grow(cast, MANY)
        with_many = cast.costs()
        assert relay.open_descriptors() > MANY
        for (few, few_calls), (many, many_calls) in zip(with_few, with_many):
            assert few > 0
            assert many < few * 1.1, (with_few, with_many)
            assert many_calls == few_calls
