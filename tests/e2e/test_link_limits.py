"""Sizes and ids at their limits on the link to the connection server: the largest messages in both
directions, and messages of the server with an impossible sender."""

from __future__ import annotations

import pytest

from lab.protocol import messages, wire
from lab.stations.caption_stations import Station

_INVALID = "Connserver message with invalid sender id string and len {} received, ignoring message"


@pytest.fixture(params=["plain", "tls"])
def any_server(request):
    """A connection server of each kind."""
    return request.getfixturevalue("server" if request.param == "plain" else "tls_server")


def _image(type_code, length, sender_id, dest_id=0):
    """An image of `length` bytes."""
    text = bytes(33 + number % 90 for number in range(length - wire.HEADER_LEN))
    return wire.make_image(type_code, sender_id, dest_id, text)


def _still_routes(server, relay, row=(77, 78, 192)):
    server.orders.connect_route(*row)
    relay.schema.wait_for_route(row)


@pytest.mark.parametrize("length", [508, 507, 506, 10, 9])
def test_messages_up_to_the_largest_size_reach_the_server_unchanged(
    length, any_server, make_relay, make_station
):
    relay = make_relay(using=any_server)
    station = make_station(relay)
    image = _image(10, length, station.client_id, 4000000000)
    station.send_image(image)
    got = any_server.record.wait_for_type(messages.Opaque)
    padded = image if length % 2 else image + b"~"
    assert got.received_image == padded


@pytest.mark.parametrize("length", [508, 507, 9])
def test_messages_up_to_the_largest_size_pass_from_the_server_to_a_client(
    length, server, relay, make_station
):
    station = make_station(relay, Station)
    image = _image(3, length, 1, station.client_id)
    server.orders.send_raw(wire.to_frame(image))
    got = station.receive()
    assert got.received_image == (image if length % 2 else image + b"~")


def test_a_frame_longer_than_any_message_ends_no_connection(
    any_server, make_relay, make_station
):
    """A frame can carry 509 bytes; the last one can then only be padding."""
    relay = make_relay(using=any_server)
    station = make_station(relay)
    for last in (b"~", b"x", b"\\", b"\0"):
        image = _image(10, 508, station.client_id) + last
        station.send_raw(bytes([255]) + image)
        any_server.orders.send_raw(bytes([255]) + _image(3, 508, 1, station.client_id) + last)
    station.send(messages.StatusKeyPost("still", "connected"))
    any_server.record.wait_for_type(messages.StatusKeyPost)
    _still_routes(any_server, relay)
    assert len(any_server.links) == 1
    assert relay.log.count("Lost connection") == 0


@pytest.mark.parametrize("sender_id", [0xFFFFFFFF, 0x80000000, 0xDEADBEEF])
def test_orders_under_a_negative_sender_are_ignored(sender_id, server, relay):
    order = messages.RoutingUpdate("CONNECT", 5, 6, 192, sender_id=sender_id)
    server.orders.send(order)
    relay.log.expect(_INVALID.format(len(wire.to_frame(order.image())) - 1))
    server.orders.send(messages.LogOut("connserver", sender_id=sender_id))
    server.orders.send(messages.Challenge(9, sender_id=sender_id))
    _still_routes(server, relay)
    assert relay.schema.routes() == {(77, 78, 192)}
    assert relay.log.count("logged out by connserver") == 0
    assert len(server.record.messages_of(messages.LogIn)) == 1


@pytest.mark.parametrize("sender_id", [0, 1, 0x7FFFFFFF])
def test_orders_under_any_other_sender_are_accepted(sender_id, server, relay):
    order = messages.RoutingUpdate("CONNECT", 5, 6, 192, sender_id=sender_id)
    server.orders.send_raw(order.frame())
    relay.schema.wait_for_routes({(5, 6, 192)})


@pytest.mark.parametrize("length", [1, 3, 5, 7])
def test_images_shorter_than_a_header_are_ignored(length, server, relay):
    for type_code in (2, 14, 17, 3, 255):
        image = bytes([type_code]) + b"\1" * (length - 1)
        server.orders.send_raw(wire.to_frame(image))
    relay.log.expect_in_order(*[_INVALID.format(length)] * 5)
    _still_routes(server, relay)
    assert relay.log.count(_INVALID.format(length)) == 5
    assert len(server.links) == 1


def test_a_message_to_an_absent_client_is_dropped_silently(server, relay):
    server.orders.send_raw(wire.to_frame(_image(3, 100, 1, 424242)))
    _still_routes(server, relay)
    assert relay.log.count("424242") == 0


def test_ids_at_the_ends_of_their_range_are_written_as_they_are(server, relay):
    rows = {(4294967295, 4294967294, 192), (2147483648, 1, 64), (1, 2147483648, 224)}
    for row in rows:
        server.orders.connect_route(*row)
    relay.schema.wait_for_routes(rows)
