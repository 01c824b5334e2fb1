"""Three relays: what comes from one relay is never passed on to a third, and old routes that would
send it there are removed where they do harm."""

from __future__ import annotations

import pytest

from lab.audio import audio_wire
from lab.protocol import messages
from lab.protocol.messages import PIPE_AUDIO, PIPE_CAPTION, PIPE_CHAT
from lab.stations.audio_stations import AudioReceiver, AudioSource
from lab.stations.caption_stations import Captioner, Encoder

NAMES = ("east", "west", "north")
EAST, WEST, NORTH = 1000, 1001, 1002


@pytest.fixture(name="network")
def fixture_network(make_network):
    """east - west - north, and east - north."""
    network = make_network(*NAMES)
    network.join("east", "west")
    network.join("north", "west")
    network.join("east", "north")
    return network


def _chain(network, source_id, receiver_id, pipe):
    """Routes source -> west -> north -> receiver, which no correct server orders."""
    for at, to_id in (("east", WEST), ("west", NORTH), ("north", receiver_id)):
        network.server.orders.connect_route(source_id, to_id, pipe, at)
        network[at].schema.wait_for_route((source_id, to_id, pipe))


@pytest.mark.parametrize("pipe", [PIPE_CAPTION, PIPE_CHAT], ids=["caption", "chat"])
def test_a_message_is_not_passed_on_to_a_third_relay(network, pipe):
    """The middle relay logs it, deletes its route and serves its own stations."""
    captioner = network.station(Captioner, at="east")
    near, far = network.station(Encoder, at="west"), network.station(Encoder, at="north")
    source = captioner.client_id
    _chain(network, source, far.client_id, pipe)
    network.server.orders.connect_route(source, near.client_id, pipe, "west")
    network["west"].schema.wait_for_route((source, near.client_id, pipe))

    def message(text):
        return messages.Chat("me", text) if pipe == PIPE_CHAT else messages.Caption(text)

    captioner.send_all([message(b"1"), message(b"2")])
    type_byte = message(b"").image()[:1]
    assert [one.received_image[:1] for one in near.receive_count(2)] == [type_byte] * 2
    network["west"].log.expect(
        f"WARNING: suppressing possible relay loop to relay peer {NORTH}, originating client "
        f"{source}. Likely there are old links in our system, will try to clean up locally."
    )
    assert network["west"].log.count("suppressing possible relay loop") == 1
    network["west"].schema.wait_for_routes({(source, near.client_id, pipe)})
    assert network["east"].schema.routes() == {(source, WEST, pipe)}
    # The direct path works, and what comes by it is the first that the far station gets.
    network.server.orders.connect_route(source, NORTH, pipe, "east")
    network["east"].schema.wait_for_route((source, NORTH, pipe))
    captioner.send(message(b"direct"))
    assert b"direct" in far.receive().received_image
    assert b"direct" in near.receive().received_image


def test_audio_is_not_passed_on_to_a_third_relay(network):
    """The same for datagrams, with a log line of its own."""
    for one, other in (("east", "west"), ("north", "west"), ("east", "north")):
        network.wait_audio_joined(one, other)
    source = network.station(AudioSource, at="east")
    near = network.station(AudioReceiver, at="west")
    far = network.station(AudioReceiver, at="north")
    _chain(network, source.client_id, far.client_id, PIPE_AUDIO)
    network.server.orders.connect_route(source.client_id, near.client_id, PIPE_AUDIO, "west")
    network["west"].schema.wait_for_route((source.client_id, near.client_id, PIPE_AUDIO))
    speaking = source.go_on_air(network["east"].relay, network.known("east").ticket_for, program=2)
    for receiver, at in ((near, "west"), (far, "north")):
        receiver.listen(network[at].relay, network.known(at).ticket_for, program=2)
    near.audio(2).expect(speaking.send(b"first"))
    near.audio(2).expect(speaking.send(b"second"))
    network["west"].log.expect(
        f"WARNING: suppressing possible relay loop to relay peer {NORTH}, originating client "
        f"{source.client_id}. Likely there are old audio links in our system, will try to clean up "
        "locally."
    )
    network["west"].schema.wait_for_routes({(source.client_id, near.client_id, PIPE_AUDIO)})
    network.server.orders.connect_route(source.client_id, NORTH, PIPE_AUDIO, "east")
    network["east"].schema.wait_for_route((source.client_id, NORTH, PIPE_AUDIO))
    said = speaking.send(b"direct")
    far.audio(2).expect(said)
    near.audio(2).expect(said)
    assert audio_wire.audio_datagram(source.client_id, b"direct") == said


def test_two_relays_that_route_to_each_other_make_no_loop(network):
    """A message that would come back stops at once; the station beyond gets it once."""
    captioner, encoder = network.station(Captioner, at="east"), network.station(Encoder, at="west")
    source = captioner.client_id
    network.route(captioner, encoder, PIPE_CAPTION)
    for at, to_id in (("west", EAST), ("north", EAST), ("west", NORTH)):
        network.server.orders.connect_route(source, to_id, PIPE_CAPTION, at)
        network[at].schema.wait_for_route((source, to_id, PIPE_CAPTION))
    for text in (b"one", b"two", b"three"):
        captioner.caption(text)
        assert encoder.receive_caption()[0] == text
    network["west"].schema.wait_for_routes({(source, encoder.client_id, PIPE_CAPTION)})
    network["west"].log.expect_in_order(*["suppressing possible relay loop"] * 2)
    assert network["west"].log.count("suppressing possible relay loop") == 2
    assert network["east"].log.count("suppressing possible relay loop") == 0
    assert network["north"].schema.routes() == {(source, EAST, PIPE_CAPTION)}, "it got nothing"
