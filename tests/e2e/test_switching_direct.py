"""Messages for one destination: those of direct types between clients, and all that the
connection server sends to a client."""

from __future__ import annotations

import pytest
from switching_tools import (
    LOAD_REPORT,
    arriving_image,
    got_before_fence,
    got_before_order_fence,
    images,
    line_count,
    server_heard,
)

from lab.protocol import messages
from lab.protocol.messages import Opaque
from lab.stations.caption_stations import Captioner, Encoder, Station

IGNORED = "Message with invalid sender id string"
DIRECT_TYPES = [9, 11, 0x60, 0x61, 0x6A, 0x70, 0x7F]


def lines_so_far(relay, station):
    """What is logged, without the messages that mark its end and the reports on the minute."""
    line_count(relay, station, "")
    return [line for line in relay.log.lines if IGNORED not in line and LOAD_REPORT not in line]


@pytest.mark.parametrize("from_tls", [False, True], ids=["from-plain", "from-tls"])
@pytest.mark.parametrize("to_tls", [False, True], ids=["to-plain", "to-tls"])
def test_a_direct_message_reaches_its_destination_only(tls_relay, make_station, from_tls, to_tls):
    sender = make_station(tls_relay, Station, tls=from_tls)
    receiver = make_station(tls_relay, Station, tls=to_tls)
    bystander = make_station(tls_relay, Station)
    sent = [
        Opaque(code, bytes([code, 0x80, 0, 0xFF]), dest_id=receiver.client_id)
        for code in DIRECT_TYPES
    ]
    for message in sent:
        sender.send(message)
    assert images(got_before_fence(sender, receiver)) == [arriving_image(m) for m in sent]
    assert got_before_fence(sender, bystander) == []
    assert got_before_fence(bystander, sender) == []


def test_a_client_may_send_to_itself(relay, make_station):
    station = make_station(relay)
    message = Opaque(11, b"note~", dest_id=station.client_id)
    station.send(message)
    assert images([station.receive()]) == [arriving_image(message)]


@pytest.mark.parametrize("dest_id", [0, 1, 1000, 424242, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF])
def test_a_message_to_an_absent_destination_is_dropped_silently(relay, make_station, dest_id):
    sender, receiver = make_station(relay), make_station(relay)
    mark, lines = relay.server.record.mark(), lines_so_far(relay, sender)
    for code in DIRECT_TYPES:
        sender.send(Opaque(code, b"to no client~", dest_id=dest_id))
    assert got_before_fence(sender, receiver) == []
    assert lines_so_far(relay, sender) == lines
    relay.server.orders.heartbeat()
    got_before_order_fence(relay.server, receiver)
    assert server_heard(relay.server, mark) == []


def test_a_destination_that_left_is_absent(relay, make_station):
    sender, receiver, leaver = (make_station(relay) for _ in range(3))
    leaver.close()
    relay.server.record.wait_for_type(messages.LostConnection, client_id=leaver.client_id)
    sender.send(Opaque(9, b"too late~", dest_id=leaver.client_id))
    assert got_before_fence(sender, receiver) == []


@pytest.mark.parametrize("tls", [False, True], ids=["plain", "tls"])
def test_messages_of_the_server_go_to_the_client_in_their_header(tls_relay, make_station, tls):
    relay, server = tls_relay, tls_relay.server
    receiver = make_station(relay, Station, tls=tls)
    bystander = make_station(relay, Station)
    # Types of every pipe: the server's messages bypass routes and pipes.
    sent = [
        messages.Chat("SERVER", b"hello", dest_id=receiver.client_id),
        messages.Caption(b"\x41\x42", dest_id=receiver.client_id),
        messages.Response(7, "REDIRECT", dest_id=receiver.client_id),
        messages.VideoFeedback(257, 1, "jpeg", b"frame", dest_id=receiver.client_id),
        messages.StatusKeyPost("key", "value", dest_id=receiver.client_id),
        *(Opaque(t, b"~", dest_id=receiver.client_id) for t in (4, 6, 8, 13, 33, 160, 224, 254)),
    ]
    for message in sent:
        server.orders.send(message)
    assert images(got_before_order_fence(server, receiver)) == [arriving_image(m) for m in sent]
    assert got_before_order_fence(server, bystander) == []
    assert line_count(relay, bystander, "cache miss") == 0


def test_messages_of_the_server_for_absent_clients_are_dropped(relay, make_station):
    receiver, server = make_station(relay), relay.server
    lines = lines_so_far(relay, receiver)
    for dest_id in (0, 1, 999999, 0xFFFFFFFF):
        server.orders.send(messages.Chat("SERVER", b"anyone?", dest_id=dest_id))
    assert got_before_order_fence(server, receiver) == []
    assert lines_so_far(relay, receiver) == lines


def test_a_message_of_the_server_with_an_invalid_sender_is_ignored(relay, make_station):
    receiver, server = make_station(relay), relay.server
    server.orders.send(messages.Chat("x", b"y", dest_id=receiver.client_id, sender_id=0xFFFFFFFF))
    server.orders.send_raw(bytes([3]) + b"short")
    assert got_before_order_fence(server, receiver) == []
    text = "Connserver message with invalid sender id string and len {} received, ignoring"
    relay.log.expect_in_order(text.format(13), text.format(5))


def test_clients_send_to_the_server_regardless_of_routes(relay, make_station, route):
    client, other = make_station(relay, Captioner), make_station(relay, Encoder)
    for msg_class in (224, 128):
        route(relay, client, other, msg_class)
    mark = relay.server.record.mark()
    sent = [Opaque(code, b"for the server~") for code in (8, 10, 13, 224, 254)]
    client.send_all(sent)
    for message in sent:
        got = relay.server.record.wait_for_type(Opaque, since=mark, code=message.code)
        assert got.received_image == arriving_image(message)
    assert got_before_fence(client, other) == []
