"""The connection server goes away and comes back while two relays are joined."""

from __future__ import annotations

import pytest

from lab.audio.audio_wire import PROGRAMS
from lab.protocol.messages import PIPE_AUDIO, PIPE_CAPTION, ConnectConfirm, LostConnection
from lab.stations.audio_stations import AudioReceiver, AudioSource
from lab.stations.caption_stations import Captioner, Encoder


@pytest.fixture(name="crossing")
def fixture_crossing(network):
    """Call it to assert that a caption and a datagram of each program cross, both ways."""
    network.join("east", "west", audio=True)
    ways = []
    for at, other in (("east", "west"), ("west", "east")):
        captioner, source = network.station(Captioner, at=at), network.station(AudioSource, at=at)
        encoder = network.station(Encoder, at=other)
        receiver = network.station(AudioReceiver, at=other)
        network.route(captioner, encoder, PIPE_CAPTION)
        network.route(source, receiver, PIPE_AUDIO)
        for program in PROGRAMS:
            source.go_on_air(network[at].relay, network.known(at).ticket_for, program)
            receiver.listen(network[other].relay, network.known(other).ticket_for, program)
        ways.append((captioner, encoder, source, receiver))

    def cross(text):
        for captioner, encoder, source, receiver in ways:
            captioner.caption(text)
            assert encoder.receive_caption()[0] == text
            for program in PROGRAMS:
                receiver.audio(program).expect(source.send_audio(text, program))

    cross(b"before")
    return cross


@pytest.mark.parametrize("how", ["close", "reset"])
def test_traffic_continues_without_the_server(network, crossing, how):
    """And on its return each relay announces all its clients, including the other relay."""
    server = network.server
    clients = {name: set(network.known(name).clients) for name in ("east", "west")}
    assert clients["west"] >= {1000}
    network.stop_server(how)
    for name in ("east", "west"):
        network[name].log.expect("Lost connection to CS!")
    for number in range(20):
        crossing(b"without %d" % number)
    since = server.record.mark()
    network.start_server()
    for name, peer_id in (("east", 1001), ("west", 1000)):
        for client_id in {peer_id, *clients[name]}:
            server.record.wait_for_type(
                ConnectConfirm, 10, since=since, relay=name, client_id=client_id
            )
        network[name].log.expect("identifying all 5 currently connected clients to connserver")
    assert server.record.messages_of(LostConnection, since) == []
    crossing(b"behind")


def test_a_peer_lost_meanwhile_is_reported_when_the_server_returns(network, crossing):
    """The remaining relay reports the loss, and an order joins the two again."""
    server = network.server
    network.stop_server()
    network["east"].log.expect("Lost connection to CS!")
    network.kill("west")
    network["east"].log.expect("Connection lost to user 1001 at")
    since, marks = server.record.mark(), network.mark()
    network["west"].relay.start()
    network.start_server()
    server.record.wait_for_type(LostConnection, 20, since=since, relay="east", client_id=1001)
    assert network.known("west").id == 1001
    network.join("east", "west")
    network.wait_audio_joined("east", "west", since=marks)
