"""Routes are read from the database once per source and pipe type, until an order names just
that key."""

from __future__ import annotations

import pytest
from switching_tools import (
    arriving_image,
    got_before_fence,
    got_before_order_fence,
    images,
    line_count,
)

from lab.protocol.messages import PIPE_CAPTION, PIPE_CHAT, Chat
from lab.stations.caption_stations import Captioner, Encoder


@pytest.fixture
def captioner(relay, make_station):
    return make_station(relay, Captioner)


@pytest.fixture
def encoder(relay, make_station):
    return make_station(relay, Encoder)


def misses(relay, source, msg_class=PIPE_CAPTION):
    """The lines of queries for a key."""
    return line_count(relay, source, f"cache miss for source {source.client_id} type {msg_class}, ")


def captions_through(captioner, encoder, count=1):
    """How many of `count` captions arrive."""
    sent = [arriving_image(captioner.caption(b"%d!" % number)) for number in range(count)]
    got = images(got_before_fence(captioner, encoder))
    assert got in ([], sent)
    return len(got)


def test_a_route_is_queried_once(relay, captioner, encoder, route):
    route(relay, captioner, encoder, PIPE_CAPTION)
    assert captions_through(captioner, encoder, 100) == 100
    line = f"cache miss for source {captioner.client_id} type 192, now sending to 1 clients"
    relay.log.expect(line)
    assert misses(relay, captioner) == 1
    # Rows that change without an order have no effect.
    relay.schema.query("DELETE FROM iopatch")
    assert captions_through(captioner, encoder, 100) == 100
    assert misses(relay, captioner) == 1


def test_an_empty_answer_is_cached_too(relay, captioner, encoder):
    assert captions_through(captioner, encoder, 50) == 0
    relay.log.expect(f"source {captioner.client_id} type 192, now sending to 0 clients")
    assert misses(relay, captioner) == 1


def test_each_pipe_type_has_its_own_entry(relay, captioner, encoder, route):
    route(relay, captioner, encoder, PIPE_CHAT)
    assert captions_through(captioner, encoder) == 0
    for _ in range(3):
        captioner.send(Chat("captioner", b"hello"))
    assert len(got_before_fence(captioner, encoder)) == 3
    assert (misses(relay, captioner), misses(relay, captioner, PIPE_CHAT)) == (1, 1)


def test_an_order_invalidates_its_own_key_only(relay, captioner, encoder, make_station, route):
    other = make_station(relay, Captioner)
    for source in (captioner, other):
        route(relay, source, encoder, PIPE_CAPTION)
        assert captions_through(source, encoder) == 1
    captioner.send(Chat("captioner", b"no route"))
    assert got_before_fence(captioner, encoder) == []

    relay.server.orders.disconnect_route(captioner.client_id, encoder.client_id, PIPE_CAPTION)
    got_before_order_fence(relay.server, encoder)
    assert captions_through(captioner, encoder) == 0
    assert captions_through(other, encoder) == 1
    captioner.send(Chat("captioner", b"still no route"))
    assert got_before_fence(captioner, encoder) == []
    assert misses(relay, captioner) == 2
    assert misses(relay, captioner, PIPE_CHAT) == misses(relay, other) == 1


def test_an_order_without_source_leaves_cached_routes_alone(relay, captioner, encoder, route):
    route(relay, captioner, encoder, PIPE_CAPTION)
    assert captions_through(captioner, encoder) == 1
    relay.server.orders.disconnect_route(0, encoder.client_id, PIPE_CAPTION)
    got_before_order_fence(relay.server, encoder)
    assert relay.schema.routes() == set()
    assert captions_through(captioner, encoder, 3) == 3
    # Any order for the key itself ends that, even one that changes no row.
    relay.server.orders.disconnect_route(captioner.client_id, 1, PIPE_CAPTION)
    got_before_order_fence(relay.server, encoder)
    assert captions_through(captioner, encoder, 3) == 0


def test_an_absent_destination_is_skipped_and_the_rest_served(relay, captioner, encoder, route):
    for to in (555555, encoder, 4294967290, 0):
        route(relay, captioner, to, PIPE_CAPTION)
    assert captions_through(captioner, encoder, 20) == 20
    relay.log.expect(f"source {captioner.client_id} type 192, now sending to 4 clients")


def test_a_destination_that_comes_back_is_served_without_a_query(
    relay, captioner, encoder, make_station, route
):
    route(relay, captioner, encoder, PIPE_CAPTION)
    assert captions_through(captioner, encoder) == 1
    again = make_station(relay, Encoder, client_id=encoder.client_id)
    assert encoder.closed_by_peer()
    assert captions_through(captioner, again, 5) == 5
    assert misses(relay, captioner) == 1
