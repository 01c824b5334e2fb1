"""Routing orders that are unusual: unknown requests, extreme ids, malformed fields."""

from __future__ import annotations

import pytest
from switching_tools import arriving_image, got_before_fence, got_before_order_fence, images

from lab.protocol import messages
from lab.protocol.messages import PIPE_CAPTION
from lab.stations.caption_stations import Captioner, Encoder


@pytest.fixture
def one(relay, make_station):
    return make_station(relay, Captioner)


@pytest.fixture
def near(relay, make_station):
    return make_station(relay, Encoder)


def obeyed(relay, station):
    """The route table once all orders so far have been carried out."""
    got_before_order_fence(relay.server, station)
    return relay.schema.routes()


def reached(sender, station):
    """Whether a caption of `sender` reaches `station`."""
    caption = arriving_image(sender.caption(b"\x41\x42"))
    got = images(got_before_fence(sender, station))
    assert got in ([], [caption])
    return got != []


@pytest.mark.parametrize("request_code", ["UDP_REG", "BOGUS", "connect", ""])
def test_an_unknown_request_only_invalidates_its_key(relay, one, near, request_code):
    assert not reached(one, near)
    row = (one.client_id, near.client_id, PIPE_CAPTION)
    relay.schema.query(f"INSERT INTO iopatch (clientfrom, clientto, msgclass) VALUES {row}")
    assert not reached(one, near)
    relay.server.orders.send(messages.RoutingUpdate(request_code, *row))
    assert obeyed(relay, near) == {row}
    assert reached(one, near)


def test_ids_use_all_32_bits_and_classes_are_signed(relay, one):
    relay.server.orders.connect_route(4294967295, 3000000000, PIPE_CAPTION)
    relay.server.orders.connect_route(2147483648, one.client_id, -5)
    assert obeyed(relay, one) == {
        (4294967295, 3000000000, PIPE_CAPTION),
        (2147483648, one.client_id, -5),
    }
    relay.server.orders.disconnect_route(4294967295, 3000000000, PIPE_CAPTION)
    relay.server.orders.disconnect_route(0, one.client_id, -5)
    assert obeyed(relay, one) == set()


def test_a_malformed_order_is_survived(relay, one, near):
    for payload in (b"", b"~", b"CONNECT", b"CONNECT~x~y~z~", b"DISCONNECT~" + b"9" * 480):
        relay.server.orders.send(messages.Opaque(messages.RoutingUpdate.TYPE, payload))
    assert obeyed(relay, near) <= {(0, 0, 0)}
    relay.server.orders.connect_route(one.client_id, near.client_id, PIPE_CAPTION)
    got_before_order_fence(relay.server, one)
    assert reached(one, near)
