"""Two relays joined by an order: what stations of one send reaches stations of both, unchanged."""

from __future__ import annotations

import pytest
from switching_tools import arriving_image, got_before_fence

from lab.protocol import messages
from lab.protocol.messages import Caption, Chat, Opaque
from lab.protocol.tickets import read_ticket
from lab.stations.caption_stations import Captioner, Encoder, Monitor, video_pages

#: Types that are routed, with their pipe types; the last ones are recognized by their top bits.
ROUTED = [(3, 128), (5, 192), (6, 160), (7, 192), (128, 128), (160, 160), (200, 192), (33, 32)]
RAW = bytes(range(256))


def opaque(type_code: int, number: int, length: int = 0) -> Opaque:
    """A message whose payload is any bytes, escaped or not."""
    return Opaque(type_code, b"%d:" % number + (RAW * 2)[:length])


def crossing(network, sender, receivers, batch, pipes):
    """Sends a batch under routes to all receivers and compares what arrives."""
    for receiver in receivers:
        for pipe in pipes:
            network.route(sender, receiver, pipe)
    sender.send_all(batch)
    expected = [arriving_image(message) for message in batch]
    for receiver in receivers:
        got = [one.received_image for one in receiver.receive_count(len(batch))]
        assert got == expected


@pytest.mark.parametrize("opener", ["east", "west"])
def test_every_routed_type_crosses_both_ways_byte_for_byte(network, opener):
    """Every routed type of message, in order, whichever relay opened the link."""
    other = {"east": "west", "west": "east"}[opener]
    network.join(opener, other)
    senders = {at: network.station(Captioner, at=at) for at in ("east", "west")}
    receivers = [network.station(Encoder, at=at) for at in ("east", "east", "west", "west")]
    batch = [
        opaque(type_code, number, length)
        for number, (type_code, _) in enumerate(ROUTED)
        for length in (0, 1, 250, 490)
    ]
    for sender in senders.values():
        for message in batch:
            message.sender_id = sender.client_id
        crossing(network, sender, receivers, batch, sorted({pipe for _, pipe in ROUTED}))
    assert all(got_before_fence(one, one) == [] for one in receivers), "each message once"


def test_a_long_stream_crosses_whole_and_in_order(network):
    """Captions and chat by the thousand, from both sides at once; nothing lost or repeated."""
    network.join("east", "west")
    pairs = []
    for at, other in (("east", "west"), ("west", "east")):
        sender, receiver = network.station(Captioner, at=at), network.station(Encoder, at=other)
        for pipe in (messages.PIPE_CAPTION, messages.PIPE_CHAT):
            network.route(sender, receiver, pipe)
        pairs.append((sender, receiver))
    sent = {sender: [] for sender, _ in pairs}
    for start in range(0, 3000, 100):
        for sender, _ in pairs:
            batch = [
                Chat("me", b"%d" % number) if number % 3 else Caption(b"\x14\x20%d" % number)
                for number in range(start, start + 100)
            ]
            sender.send_all(batch, 20)
            sent[sender] += [arriving_image(message) for message in batch]
    for sender, receiver in pairs:
        got = receiver.receive_count(3000, 30)
        assert [one.received_image for one in got] == sent[sender]


def test_video_crosses_by_the_permission_of_both_relays(network):
    """Whole frames, page by page; the peer relay is asked for permission like any destination."""
    network.join("east", "west")
    encoder, monitor = network.station(Encoder, at="east"), network.station(Monitor, at="west")
    network.route(encoder, monitor, messages.PIPE_VIDEO)
    network.server.orders.grant_video(encoder.client_id, 1001, "east")
    network.server.orders.grant_video(encoder.client_id, monitor.client_id, "west")
    for name in ("east", "west"):
        network[name].log.expect("Video link permissions granted for")
    frames = [bytes([65 + number]) * (300 + 900 * number) for number in range(5)]
    for number, frame in enumerate(frames):
        encoder.send_video(frame, number)
    for number, frame in enumerate(frames):
        assert monitor.receive_video() == (number, frame)
    assert len(video_pages(frames[4], 0, "jpeg")) > 5


def test_what_goes_to_the_server_does_not_cross(network):
    """Direct messages go to clients of the same relay, those for the server to the server; a route
    to the peer changes nothing."""
    network.join("east", "west")
    sender, receiver = network.station(Captioner, at="east"), network.station(Encoder, at="west")
    for pipe in (messages.PIPE_DIRECT, messages.PIPE_TO_SERVER, messages.PIPE_CAPTION):
        network.route(sender, receiver, pipe)
    since = network.server.record.mark()
    sender.send(Opaque(9, b"direct", dest_id=receiver.client_id))
    sender.send(messages.StatusKeyPost("key", "value"))
    record = network.server.record
    record.wait_for_type(messages.StatusKeyPost, since=since, relay="east", key="key")
    sender.caption(b"fence")
    assert receiver.receive_caption()[0] == b"fence"
    assert record.messages_of(messages.StatusKeyPost, since, relay="west") == []


def test_the_relay_logs_in_with_its_own_id_and_is_confirmed(network):
    """At the server the opener appears as a client of the other relay, and there alone."""
    order = network.server.orders.connect_order("east", "west")
    assert read_ticket(order.ticket, network.known("west").des_key)[0] == 1000
    since = network.server.record.mark()
    network.join("east", "west")
    record = network.server.record
    record.wait_for_type(messages.ConnectConfirm, relay="west", client_id=1000, since=since)
    assert record.messages_of(messages.ConnectConfirm, since, relay="east") == []
    assert network["west"].log.count("authenticated ticket for client 1000") == 1
