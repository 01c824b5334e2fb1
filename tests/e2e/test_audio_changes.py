"""The clients of a stream change while it runs: receivers and sources leave and come back, routes
come and go, ports close; those that stay lose nothing."""

from __future__ import annotations

import itertools

import pytest
from audio_tools import listening, on_air

from lab.protocol.messages import PIPE_AUDIO, LostConnection
from lab.stations.audio_stations import AudioReceiver, AudioSource
from lab.support.addresses import new_address
from lab.support.waiting import wait_until

BURST = 200


class Stream:
    """A source that numbers its datagrams."""

    def __init__(self, source: AudioSource) -> None:
        self.source = source
        self._numbers = itertools.count()

    def send(self, count: int = BURST) -> list[bytes]:
        return [self.source.send_audio(b"%08d" % next(self._numbers)) for _ in range(count)]


@pytest.fixture
def stream(relay, make_station):
    return Stream(on_air(make_station, relay))


@pytest.fixture
def receivers(relay, make_station, route, stream):
    """Three, in the order of their routes."""
    receivers = [listening(make_station, relay) for _ in range(3)]
    for receiver in receivers:
        route(relay, stream.source, receiver, PIPE_AUDIO)
    return receivers


def _expect(receivers, sent):
    for receiver in receivers:
        assert receiver.audio(0).receive_count(len(sent), 10) == sent


@pytest.mark.parametrize("how", ["hang up", "reset", "log out"])
def test_a_receiver_leaves_in_the_middle(relay, server, stream, receivers, how):
    first, leaver, last = receivers
    sent = stream.send()
    {"hang up": leaver.hang_up, "reset": leaver.reset, "log out": leaver.logout}[how]()
    sent += stream.send()
    _expect([first, last], sent)
    if how != "log out":
        server.record.wait_for_type(LostConnection, client_id=leaver.client_id)
    else:
        relay.log.expect("Removing client table entry for address")
    leaver.audio(0).receive_waiting()
    _expect([first, last], stream.send())
    assert leaver.audio(0).receives_nothing(0.05)


def test_a_receiver_comes_back_from_another_address(relay, server, make_station, stream, receivers):
    first, leaver, last = receivers
    _expect(receivers, stream.send())
    with_gap = stream.send(50)
    back = make_station(
        relay, AudioReceiver, client_id=leaver.client_id, source_ip=new_address()
    )
    back.listen(relay, server.ticket_for)
    _expect([first, last], with_gap)
    leaver.audio(0).receive_waiting()
    _expect([first, back, last], stream.send())
    assert leaver.audio(0).receives_nothing(0.05)


def test_a_source_leaves_and_another_continues(
    relay, make_station, route, server, stream, receivers
):
    other = Stream(on_air(make_station, relay))
    for receiver in receivers:
        route(relay, other.source, receiver, PIPE_AUDIO)
    _expect(receivers, stream.send(20))
    stream.source.hang_up()
    server.record.wait_for_type(LostConnection, client_id=stream.source.client_id)
    stream.send(20)
    _expect(receivers, other.send())


def test_routes_take_effect_at_once(relay, server, make_station, route, stream, receivers):
    first, *others = receivers
    newcomer = listening(make_station, relay)
    _expect(receivers, stream.send())
    route(relay, stream.source, newcomer, PIPE_AUDIO)
    _expect([*receivers, newcomer], stream.send())
    staying = [*receivers, newcomer]
    for gone in (first, newcomer):
        staying.remove(gone)
        key = (stream.source.client_id, gone.client_id, PIPE_AUDIO)
        server.orders.disconnect_route(*key)
        relay.schema.wait_for_routes(relay.schema.routes() - {key})
        _expect(staying, stream.send())
        assert gone.audio(0).receives_nothing(0.05)
    # An order that removes it for any receiver empties the list.
    server.orders.disconnect_route(stream.source.client_id, 0, PIPE_AUDIO)
    relay.schema.wait_for_routes(set())
    stream.send(20)
    route(relay, stream.source, others[0], PIPE_AUDIO)
    _expect(others[:1], stream.send())
    assert others[1].audio(0).receives_nothing(0.05)


def test_routes_that_come_and_go_cost_the_others_nothing(
    relay, server, make_station, stream, receivers
):
    """In the middle of the stream, without any pause."""
    guest = listening(make_station, relay)
    key = (stream.source.client_id, guest.client_id, PIPE_AUDIO)
    sent = []
    for _ in range(20):
        server.orders.connect_route(*key)
        sent += stream.send(20)
        server.orders.disconnect_route(*key)
        sent += stream.send(20)
    _expect(receivers, sent)
    wait_until(lambda: key not in relay.schema.routes(), 5, "the last order obeyed")
    heard = [one.datagram for one in guest.audio(0).receive_waiting()]
    assert [one for one in sent if one in set(heard)] == heard


def test_a_closed_port_disturbs_no_other_receiver(relay, stream, receivers):
    """Its host refuses every datagram; the others get theirs, and so does it once it is open
    again."""
    first, closed, last = receivers
    _expect(receivers, stream.send())
    port = closed.audio(0).local_address[1]
    closed.audio(0).close()
    for _ in range(5):
        _expect([first, last], stream.send())
    assert relay.log.count("error") == 0
    closed.open_audio(relay, port=port)
    _expect(receivers, stream.send())


def test_a_client_that_only_sends_audio_is_not_silent(relay, make_station, route, receivers):
    """Audio is a sign of life; a station without any is dropped meanwhile."""
    source = on_air(make_station, relay, heartbeats=False)
    mute = make_station(relay, AudioSource, heartbeats=False)
    route(relay, source, receivers[0], PIPE_AUDIO)
    dropped = f"Dropping connect to client ID {mute.client_id}, "

    def is_dropped():
        receivers[0].audio(0).expect(source.send_audio(b"here"))
        return relay.log.count(dropped)

    wait_until(is_dropped, 30, "the mute one dropped")
    assert relay.log.count(f"Dropping connect to client ID {source.client_id}, ") == 0
    receivers[0].audio(0).expect(source.send_audio(b"still here"))
