"""The largest and the smallest messages: forwarded byte for byte, or ignored with a log line."""

from __future__ import annotations

import pytest
from switching_tools import arriving_image, got_before_fence, got_before_order_fence, images

from lab.protocol import messages, wire
from lab.protocol.messages import PIPE_CAPTION, Opaque
from lab.stations.caption_stations import Captioner, Encoder

IGNORED = "Message with invalid sender id string {} and len {} passed from client {}, ignoring"
#: All byte values, delimiters and escapes included.
LARGEST_PAYLOAD = bytes(number % 256 for number in range(wire.MAX_PAYLOAD_LEN))
KINDS = [False, True]


@pytest.fixture
def over_tls(make_relay, tls_server):
    """A relay that speaks TLS to its connection server and to clients."""
    return make_relay(using=tls_server, tls=True)


@pytest.fixture(params=["plain server", "tls server"])
def any_relay(request):
    name = "tls_relay" if request.param == "plain server" else "over_tls"
    return request.getfixturevalue(name)


@pytest.mark.parametrize("tls", KINDS, ids=["from-plain", "from-tls"])
def test_the_largest_message_reaches_every_kind_of_destination(any_relay, make_station, route, tls):
    relay, server = any_relay, any_relay.server
    sender = make_station(relay, Captioner, tls=tls)
    receivers = [make_station(relay, Encoder, tls=kind) for kind in KINDS * 3]
    for receiver in receivers:
        route(relay, sender, receiver, PIPE_CAPTION)

    caption = Opaque(5, LARGEST_PAYLOAD, sender_id=sender.client_id)
    assert len(caption.image()) == 508 and caption.frame()[0] == 255
    for _ in range(20):
        sender.send(caption)
    for receiver in receivers:
        got = images(got_before_fence(sender, receiver))
        assert got == [arriving_image(caption)] * 20

    to_server = Opaque(224, LARGEST_PAYLOAD)
    sender.send(to_server)
    got = server.record.wait_for_type(Opaque, code=224)
    assert got.received_image == arriving_image(to_server)
    for receiver in receivers[:2]:
        direct = Opaque(9, LARGEST_PAYLOAD, dest_id=receiver.client_id)
        sender.send(direct)
        assert images([receiver.receive()]) == [arriving_image(direct)]
        from_server = Opaque(3, LARGEST_PAYLOAD, dest_id=receiver.client_id)
        server.orders.send(from_server)
        assert images([receiver.receive()]) == [arriving_image(from_server)]
    # No connection was lost over any of this.
    assert server.record.messages_of(messages.LostConnection) == []
    assert len(server.links) == 1


def test_every_size_passes_unchanged(tls_relay, make_station, route):
    sender = make_station(tls_relay, Captioner)
    receivers = [make_station(tls_relay, Encoder, tls=kind) for kind in KINDS]
    for receiver in receivers:
        route(tls_relay, sender, receiver, PIPE_CAPTION)
    sent = [Opaque(5, LARGEST_PAYLOAD[:size]) for size in range(wire.MAX_PAYLOAD_LEN + 1)]
    sender.send_all(sent)
    expected = [arriving_image(message) for message in sent]
    for receiver in receivers:
        assert images(got_before_fence(sender, receiver)) == expected


def test_an_image_that_cannot_be_framed_again_is_harmless(relay, make_station, route):
    """A frame has room for 509 bytes, the last of which is a pad. An image that uses it otherwise
    is too long to be forwarded."""
    sender, receiver = make_station(relay, Captioner), make_station(relay, Encoder)
    route(relay, sender, receiver, PIPE_CAPTION)
    full = b"x" * 500
    for code, dest_id in ((5, 0), (9, receiver.client_id), (224, 0), (0, 0), (12, 0)):
        sender.send_image(wire.make_image(code, sender.client_id, dest_id, full))
    server = relay.server
    server.orders.send_raw(wire.to_frame(wire.make_image(3, 1, receiver.client_id, full)))
    assert got_before_order_fence(server, receiver) == []
    sent = arriving_image(sender.caption(b"\x41\x42"))
    assert images(got_before_fence(sender, receiver)) == [sent]
    assert len(server.links) == 1
    assert server.record.messages_of(messages.LostConnection) == []
    assert server.record.messages_of(Opaque) == []


def test_a_message_without_payload_is_switched(relay, make_station, route):
    sender, receiver = make_station(relay, Captioner), make_station(relay, Encoder)
    route(relay, sender, receiver, PIPE_CAPTION)
    sender.send(Opaque(5))
    assert images(got_before_fence(sender, receiver)) == [
        wire.make_image(5, sender.client_id, 0)
    ]


@pytest.mark.parametrize("tls", KINDS, ids=["plain", "tls"])
def test_images_without_a_whole_header_are_ignored(tls_relay, make_station, route, tls):
    sender = make_station(tls_relay, Captioner, tls=tls)
    receiver = make_station(tls_relay, Encoder)
    route(tls_relay, sender, receiver, PIPE_CAPTION)
    whole = wire.make_image(5, sender.client_id, 0)
    for length in (1, 3, 5, 7):
        sender.send_image(whole[:length])
    sent = sender.caption(b"\x41\x42")
    assert images(got_before_fence(sender, receiver)) == [arriving_image(sent)]
    lines = [IGNORED.format(-1, length, sender.client_id) for length in (1, 3, 5, 7)]
    tls_relay.log.expect_in_order(*lines)


def test_a_zero_length_code_empties_the_buffer_and_the_stream_continues(relay, make_station, route):
    sender, receiver = make_station(relay, Captioner), make_station(relay, Encoder)
    other = make_station(relay)
    route(relay, sender, receiver, PIPE_CAPTION)
    sent = [sender.caption(b"\x41\x41")]
    sender.send_raw(b"\0" + messages.Caption(b"lost", sender_id=sender.client_id).frame())
    # After two passes of the relay the buffer is certainly empty.
    for _ in range(2):
        assert got_before_fence(other, other) == []
    sent.append(sender.caption(b"\x42\x42"))
    expected = [arriving_image(message) for message in sent]
    assert images(got_before_fence(sender, receiver)) == expected
