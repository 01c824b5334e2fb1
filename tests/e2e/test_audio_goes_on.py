"""Audio continues whatever else happens: without the connection server, without the database, while
hundreds of clients come and go, while captions flow the other way."""

from __future__ import annotations

import contextlib
import threading

import pytest
from audio_tools import listening, on_air
from switching_tools import in_threads

from lab.audio.clip_player import ClipListener, ClipPlayer
from lab.protocol.messages import PIPE_AUDIO, PIPE_CAPTION, LostConnection
from lab.stations.caption_stations import Captioner, Encoder
from lab.stations.crowd import Crowd
from lab.support.waiting import patient

#: A gap that listeners would notice.
NOTICEABLE_SECS = 1.0
LONG = 60.0


@pytest.fixture
def play(make_station, route):
    """Plays the clip from a source to two receivers while the block runs, and then asserts that all
    of it arrived without a noticeable gap."""

    @contextlib.contextmanager
    def play(relay):
        source = on_air(make_station, relay)
        receivers = [listening(make_station, relay) for _ in range(2)]
        for receiver in receivers:
            route(relay, source, receiver, PIPE_AUDIO)
        with contextlib.ExitStack() as stack:
            listeners = [
                stack.enter_context(ClipListener(receiver.audio(0))) for receiver in receivers
            ]
            player = ClipPlayer(source.audio(0), seconds=LONG).start()
            stack.callback(player.stop)
            for listener in listeners:
                listener.wait_for(5)
            yield listeners[0]
            player.stop()
            sent = player.sent()
            for listener in listeners:
                listener.wait_for(len(sent))
                verdict = listener.verdict(sent)
                assert verdict.perfect, verdict
                late = player.worst_lateness_secs
                assert verdict.longest_gap_secs < late + patient(NOTICEABLE_SECS)

    return play


def _wait_for_more(listener, count=25):
    listener.wait_for(len(listener.arrived()) + count)


def test_while_the_connection_server_is_away(relay, server, play):
    with play(relay) as listener:
        lost = relay.log.mark()
        server.close()
        relay.log.expect("Lost connection to CS!", 10, since=lost)
        _wait_for_more(listener)
        links = len(server.links)
        server.start()
        _wait_for_more(listener)
        server.wait_logged_in(20, number=links)
        _wait_for_more(listener)
    assert server.record.messages_of(LostConnection) == []


@pytest.mark.parametrize("mode", ["fast", "immediate"])
def test_while_the_database_is_away(make_relay, own_cluster, play, mode):
    relay = make_relay(schema=own_cluster.new_schema())
    with play(relay) as listener:
        own_cluster.query("CHECKPOINT")
        own_cluster.stop(mode)
        # The next order reveals that.
        relay.server.orders.connect_route(424242, 424243, PIPE_AUDIO)
        relay.log.expect("PostgreSQL database not connected!", 10)
        _wait_for_more(listener)
        own_cluster.start()
        _wait_for_more(listener)


def test_while_hundreds_of_clients_come_and_go(make_relay, server, play):
    relay = make_relay(tls=True)
    gone = []
    with play(relay) as listener:
        for tls, count in ((False, 150), (True, 30)) * 2:
            port = relay.tls_port if tls else relay.tcp_port
            with Crowd(relay.address, port, tls=tls) as crowd:
                gone += [one.client_id for one in crowd.admit(count, server)]
            _wait_for_more(listener, 1)
        for client_id in gone:
            server.record.wait_for_type(LostConnection, client_id=client_id, within_secs=20)
        _wait_for_more(listener)
    assert len(gone) == 360


def test_while_captions_flow_the_other_way(relay, make_station, route, play):
    """A captioner that sends as fast as it can, and all of its captions arrive."""
    captioner, encoder = make_station(relay, Captioner), make_station(relay, Encoder)
    route(relay, captioner, encoder, PIPE_CAPTION)
    done = threading.Event()
    counts = {"sent": 0}

    def write():
        while not done.is_set():
            for _ in range(100):
                captioner.caption(b"%d" % counts["sent"])
                counts["sent"] += 1
        captioner.caption(b"the end")

    def read():
        number = 0
        while (got := encoder.receive_caption(20)[0]) != b"the end":
            assert got == b"%d" % number
            number += 1
        assert number == counts["sent"]

    def listen():
        try:
            _wait_for_more(listener, 75)
        finally:
            done.set()

    with play(relay) as listener:
        in_threads([write, read, listen])
    assert counts["sent"] > 100
