"""Routing orders of the connection server: their effect on the route table and on later
deliveries."""

from __future__ import annotations

import pytest
from switching_tools import (
    arriving_image,
    got_before_fence,
    got_before_order_fence,
    images,
    line_count,
)

from lab.protocol import messages
from lab.protocol.messages import PIPE_CAPTION, PIPE_CHAT
from lab.stations.caption_stations import Captioner, Encoder


@pytest.fixture
def one(relay, make_station):
    return make_station(relay, Captioner)


@pytest.fixture
def two(relay, make_station):
    return make_station(relay, Captioner)


@pytest.fixture
def near(relay, make_station):
    return make_station(relay, Encoder)


@pytest.fixture
def far(relay, make_station):
    return make_station(relay, Encoder)


def obeyed(relay, station):
    """The route table once all orders so far have been carried out."""
    got_before_order_fence(relay.server, station)
    return relay.schema.routes()


def reached(sender, stations):
    """Which stations a caption of `sender` reaches."""
    caption = arriving_image(sender.caption(b"\x41\x42"))
    return [s for s in stations if images(got_before_fence(sender, s)) == [caption]]


def connect_all(relay, sources, destinations, msg_class=PIPE_CAPTION):
    wanted = set()
    for source in sources:
        for destination in destinations:
            relay.server.orders.connect_route(source.client_id, destination.client_id, msg_class)
            wanted.add((source.client_id, destination.client_id, msg_class))
    return wanted


def test_a_connect_order_is_a_row_and_a_delivery(relay, one, near, far):
    relay.server.orders.connect_route(one.client_id, near.client_id, PIPE_CAPTION)
    assert obeyed(relay, one) == {(one.client_id, near.client_id, PIPE_CAPTION)}
    assert reached(one, [near, far]) == [near]
    # Its class is the caption's only: a chat goes nowhere.
    one.send(messages.Chat("one", b"hello"))
    assert got_before_fence(one, near) == []


def test_destinations_added_later_join_at_once(relay, one, near, far):
    assert reached(one, [near, far]) == []
    for expected in ([near], [near, far]):
        relay.server.orders.connect_route(one.client_id, expected[-1].client_id, PIPE_CAPTION)
        got_before_order_fence(relay.server, one)
        assert reached(one, [near, far]) == expected


def test_an_exact_disconnect_removes_one_route(relay, one, two, near, far):
    routes = connect_all(relay, [one, two], [near, far])
    routes |= connect_all(relay, [one], [near], PIPE_CHAT)
    assert reached(one, [near, far]) == [] or True  # fills the cache, whatever was in it
    assert obeyed(relay, two) == routes
    relay.server.orders.disconnect_route(one.client_id, near.client_id, PIPE_CAPTION)
    assert obeyed(relay, two) == routes - {(one.client_id, near.client_id, PIPE_CAPTION)}
    assert reached(one, [near, far]) == [far]
    assert reached(two, [near, far]) == [near, far]


def test_a_disconnect_without_destination_removes_all_of_a_source(relay, one, two, near, far):
    routes = connect_all(relay, [one, two], [near, far])
    chats = connect_all(relay, [one], [near], PIPE_CHAT)
    got_before_order_fence(relay.server, two)
    assert reached(one, [near, far]) == [near, far]
    relay.server.orders.disconnect_route(one.client_id, 0, PIPE_CAPTION)
    kept = {route for route in routes if route[0] == two.client_id}
    assert obeyed(relay, two) == kept | chats
    assert reached(one, [near, far]) == []
    assert reached(two, [near, far]) == [near, far]


def test_a_disconnect_without_source_removes_all_to_a_destination(relay, one, two, near, far):
    routes = connect_all(relay, [one, two], [near, far])
    chats = connect_all(relay, [one], [near], PIPE_CHAT)
    relay.server.orders.disconnect_route(0, near.client_id, PIPE_CAPTION)
    kept = {route for route in routes if route[1] == far.client_id}
    assert obeyed(relay, two) == kept | chats
    assert reached(one, [near, far]) == [far]
    assert reached(two, [near, far]) == [far]


def test_a_route_ordered_twice_is_one_row_and_one_delivery(relay, one, near, far):
    for _ in range(3):
        relay.server.orders.connect_route(one.client_id, near.client_id, PIPE_CAPTION)
    assert obeyed(relay, one) == {(one.client_id, near.client_id, PIPE_CAPTION)}
    assert line_count(relay, one, "duplicate key value violates unique constraint") >= 2
    assert line_count(relay, one, "Retrying connection to SQL") == 0
    assert reached(one, [near, far]) == [near]
    relay.server.orders.disconnect_route(one.client_id, near.client_id, PIPE_CAPTION)
    assert obeyed(relay, one) == set()
    assert reached(one, [near, far]) == []


def test_ids_of_zero_are_rows_like_others_and_delete_as_wild_cards(relay, one, near):
    server = relay.server
    for ids in ((0, 0), (0, near.client_id), (one.client_id, 0)):
        server.orders.connect_route(*ids, PIPE_CAPTION)
    rows = {(0, 0, PIPE_CAPTION), (0, near.client_id, PIPE_CAPTION)}
    assert obeyed(relay, near) == rows | {(one.client_id, 0, PIPE_CAPTION)}
    # A destination of 0 names only the source, even a source of 0.
    server.orders.disconnect_route(0, 0, PIPE_CAPTION)
    assert obeyed(relay, near) == {(one.client_id, 0, PIPE_CAPTION)}
    server.orders.disconnect_route(one.client_id, 0, PIPE_CAPTION)
    assert obeyed(relay, near) == set()
