"""A connection server that stops reading: the link backs up and is abandoned, the clients stay, and
what could not be sent waits for the next login."""

from __future__ import annotations

import itertools

import pytest

from lab.protocol import messages
from lab.stations.caption_stations import Captioner, Encoder
from lab.support.addresses import new_address
from lab.support.waiting import Deadline

_BROKEN = "socket broken sending message to connection server!"
#: Consecutive messages of one client.
_BURST = 400
_FILL = "x" * 440


@pytest.fixture(params=["plain", "tls"])
def slow_server(request, make_server, server_certificate):
    """A server whose links back up early once it stops reading."""
    if request.param == "plain":
        return make_server(receive_buffer=4096)
    return make_server(
        address=new_address(), port=0, certificate=server_certificate, receive_buffer=4096
    )


def _fill_the_link(relay, stations, within_secs=60):
    """Sends numbered messages for the server until the link breaks; how many were sent.

    The stations take turns, so that none sends more than one may. An echo behind each burst tells
    when the relay has switched it; so the messages stay in order.
    """
    numbers = itertools.count()
    deadline = Deadline(within_secs)
    sent = 0
    for station in itertools.cycle(stations):
        assert not deadline.passed(), f"the link took {sent} messages"
        burst = [messages.StatusKeyPost(str(next(numbers)), _FILL) for _ in range(_BURST)]
        station.send_all([*burst, _echo(station)], 20)
        sent += _BURST
        station.receive_until(lambda message: isinstance(message, messages.Opaque), 20)
        if relay.log.count(_BROKEN):
            return sent


def _echo(station):
    """A message that the relay returns to its sender."""
    return messages.Opaque(9, b"echo~", dest_id=station.client_id)


def test_a_server_that_does_not_read_loses_the_link_but_no_later_message(
    slow_server, make_relay, make_station, route
):
    relay = make_relay(using=slow_server)
    captioner, encoder = make_station(relay, Captioner), make_station(relay, Encoder)
    route(relay, captioner, encoder, messages.PIPE_CAPTION)
    feeders = [make_station(relay) for _ in range(4)]
    slow_server.pause_reading()
    sent = _fill_the_link(relay, feeders)
    relay.log.expect_in_order(
        _BROKEN,
        "cleaning up socket fd",
        "cleanbadsocket was on connection server",
        "Lost connection to CS!",
    )
    captioner.caption(b"clients stay")
    assert encoder.receive_caption()[0] == b"clients stay"

    slow_server.resume_reading()
    link = slow_server.wait_logged_in(40, number=1)
    slow_server.record.wait_for_type(messages.StatusKeyPost, 20, key=str(sent - 1))
    replayed = [
        int(one.message.key)
        for one in slow_server.record.received
        if one.link is link and isinstance(one.message, messages.StatusKeyPost)
    ]
    # From the one that failed to the last, none missing and none twice.
    assert replayed == list(range(replayed[0], sent))
    assert slow_server.record.messages_of(messages.LogIn)[-1].function == "CONTINUE"
    captioner.caption(b"and after")
    assert encoder.receive_caption()[0] == b"and after"


def test_orders_that_came_before_the_link_backed_up_are_carried_out(
    make_server, make_relay, make_station, route
):
    server = make_server(receive_buffer=4096)
    relay = make_relay(using=server)
    stations = [make_station(relay) for _ in range(4)]
    server.pause_reading()
    server.orders.connect_route(5, 6, messages.PIPE_CHAT)
    _fill_the_link(relay, stations)
    relay.schema.wait_for_routes({(5, 6, messages.PIPE_CHAT)})
    server.resume_reading()
    server.wait_logged_in(40, number=1)
    for station in stations:
        assert not station.closed_by_peer(0.1)
