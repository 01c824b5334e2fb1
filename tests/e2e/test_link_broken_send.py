"""A send to the connection server that fails: the link is taken down after the handler, once, and
nobody goes in the middle of what is being done with them."""

from __future__ import annotations

import time

import pytest

from lab.protocol import messages
from lab.protocol.messages import PIPE_CAPTION
from lab.server.script import Fault
from lab.stations.caption_stations import Captioner, Encoder
from lab.support.tracer import LoopTracer
from lab.support.waiting import Deadline

pytestmark = pytest.mark.threads

SEND_FAILED = "socket broken sending message to connection server!"
CLEANED_UP = "cleanbadsocket was on connection server"
LOST = "Lost connection to CS!"


@pytest.fixture
def quiet_server(make_server):
    """A connection server that sends nothing of its own accord."""
    return make_server(heartbeat_secs=0)


def _each_once(relay, since, *texts):
    assert {text: relay.log.count(text, since=since) for text in texts} == dict.fromkeys(texts, 1)


def _told_by(server, link, kind):
    """The client ids that the relay named on `link` in messages of this kind, in order."""
    return [
        one.message.client_id
        for one in server.record.received
        if one.link is link and isinstance(one.message, kind)
    ]


def _notify(station):
    """A message of the connection server for one client."""
    return messages.StatusKeyPost("last", "words", sender_id=1, dest_id=station.client_id).frame()


def _orders(count, to_id):
    frames = [
        messages.RoutingUpdate("CONNECT", from_id, to_id, PIPE_CAPTION, sender_id=1).frame()
        for from_id in range(100000, 100000 + count)
    ]
    return b"".join(frames), {(100000 + n, to_id, PIPE_CAPTION) for n in range(count)}


@pytest.mark.parametrize("doomed_count", [1, 8])
def test_link_and_clients_break_in_one_pass(
    quiet_server, make_relay, make_station, route, doomed_count
):
    """A caption finds its first receiver gone; the loss finds the link gone; the last orders of
    the server find other clients gone."""
    server, relay = quiet_server, make_relay(using=quiet_server)
    captioner = make_station(relay, Captioner, heartbeats=False)
    gone, encoder = make_station(relay, heartbeats=False), make_station(relay, Encoder)
    doomed = [make_station(relay, heartbeats=False) for _ in range(doomed_count)]
    for receiver in (gone, encoder):
        route(relay, captioner, receiver, PIPE_CAPTION)
    frames, rows = _orders(20, encoder.client_id)
    rows |= {(captioner.client_id, to.client_id, PIPE_CAPTION) for to in (gone, encoder)}
    since = relay.log.mark()
    with relay.stopped():
        captioner.caption(b"one pass")
        server.orders.send_raw(b"".join(map(_notify, doomed)) + frames)
        server.links.end("reset")
        for station in [gone, *doomed]:
            station.reset()
    link = server.wait_logged_in(20, number=1)
    assert encoder.receive_caption()[0] == b"one pass"
    relay.log.expect_in_order(
        "TCP message send failed in SwitchPacket",
        f"removing socket for client {gone.client_id}, and notifying CS",
        SEND_FAILED,
        CLEANED_UP,
        f"removing socket for client {doomed[0].client_id}, and notifying CS",
        LOST,
        since=since,
    )
    lost = [station.client_id for station in [gone, *doomed]]
    removals = [f"removing socket for client {one}, and notifying CS" for one in lost]
    _each_once(relay, since, SEND_FAILED, CLEANED_UP, LOST, *removals)
    assert _told_by(server, link, messages.LostConnection) == lost
    staying = [captioner.client_id, encoder.client_id]
    assert sorted(_told_by(server, link, messages.ConnectConfirm)) == staying
    assert relay.schema.routes() == rows
    captioner.caption(b"afterwards")
    assert encoder.receive_caption()[0] == b"afterwards"


def test_a_send_fails_half_way_through_the_clients(server, relay, make_station, route):
    """The server accepts the log-in and is gone: the first confirmation still goes out, a later
    one does not. Nobody is lost, and the next log-in tells of all."""
    captioner, encoder = make_station(relay, Captioner), make_station(relay, Encoder)
    route(relay, captioner, encoder, PIPE_CAPTION)
    others = [make_station(relay) for _ in range(20)]
    server.script.fault("login", Fault(then="silence"))
    server.restart()
    answered = server.links.wait_for("login", 20, number=1)
    since = relay.log.mark()
    with relay.stopped():
        answered.send(messages.Response(server.relay_id, "OK"))
        server.links.end("close")
    link = server.wait_logged_in(20, number=2)
    relay.log.expect_in_order(
        "Successful continuation with server",
        "didn't get through client list. ending identification loop",
        "error sending client identify messages to new server",
        LOST,
        "Successful continuation with server",
        since=since,
    )
    _each_once(relay, since, "didn't get through client list. ending identification loop")
    assert relay.log.count(CLEANED_UP, since=since) == 0
    everybody = sorted(one.client_id for one in [captioner, encoder, *others])
    assert sorted(_told_by(server, link, messages.ConnectConfirm)) == everybody
    assert _told_by(server, link, messages.LostConnection) == []
    captioner.caption(b"all here")
    assert encoder.receive_caption()[0] == b"all here"
    assert relay.schema.routes() == {(captioner.client_id, encoder.client_id, PIPE_CAPTION)}


#: The clock that the relay reads may be so much behind.
_COARSE_SECS = 0.02


def _second() -> int:
    return int(time.time() - _COARSE_SECS)


def _hold_in_tick(tracer, server):
    """Holds the relay where its wait for events has ended and the tick is to follow: in the first
    pass that certainly began in a second divisible by four."""
    deadline = Deadline(30)
    before = 0
    while not deadline.passed():
        tracer.end_wait()
        earliest = _second()
        tracer.finish_pass()  # into the next wait: that pass began between the two looks
        began_in = earliest if earliest == int(time.time()) else 0
        if began_in % 4 == 0 and 0 < before == began_in - 1:
            tracer.end_wait()
            return
        if began_in % 4 == 1 and before != began_in:
            server.orders.heartbeat()  # or the link would be given up for its silence
        before = began_in
    raise AssertionError("no tick")


@pytest.mark.skipif(not LoopTracer.supported(), reason="unknown kind of processor")
def test_the_heartbeat_in_the_tick_finds_the_link_broken(
    quiet_server, make_relay, make_station, route
):
    server, relay = quiet_server, make_relay(using=quiet_server)
    captioner, encoder = make_station(relay, Captioner), make_station(relay, Encoder)
    route(relay, captioner, encoder, PIPE_CAPTION)
    gone = make_station(relay, heartbeats=False)
    # From now on every tick has one.
    server.record.wait_for_type(messages.Heartbeat, 10)
    with LoopTracer(relay.pid) as tracer:
        _hold_in_tick(tracer, server)
        since = relay.log.mark()
        server.orders.send_raw(_notify(gone) + _notify(encoder))
        server.links.end("reset")
        gone.reset()
        tracer.finish_pass()
    server.wait_logged_in(20, number=1)
    relay.log.expect_in_order(
        SEND_FAILED,
        CLEANED_UP,
        f"removing socket for client {gone.client_id}, and notifying CS",
        LOST,
        since=since,
    )
    removal = f"removing socket for client {gone.client_id}, and notifying CS"
    _each_once(relay, since, SEND_FAILED, CLEANED_UP, LOST, removal)
    last = encoder.expect(messages.StatusKeyPost)
    assert (last.key, last.value) == ("last", "words")
    captioner.caption(b"in time")
    assert encoder.receive_caption()[0] == b"in time"
