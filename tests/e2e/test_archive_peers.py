"""Captions that cross between relays are archived by the relay of their captioner, and only
there."""

from __future__ import annotations

from archive_tools import CaptionLine, assert_archived

from lab.protocol.messages import PIPE_CAPTION, Caption
from lab.relay.config import RelayConfig
from lab.stations.caption_stations import Captioner, Encoder


def test_each_relay_archives_only_its_own_stations(make_network, make_endpoint):
    """Also what a station has sent through a chain of routes to stations everywhere."""
    endpoints = {name: make_endpoint() for name in ("east", "west")}
    configs = {
        name: RelayConfig(archive_endpoint=endpoint.url, archive_interval_secs=1)
        for name, endpoint in endpoints.items()
    }
    network = make_network(configs=configs)
    network.join("east", "west")
    lines = {}
    for at, other in (("east", "west"), ("west", "east")):
        captioner = network.station(Captioner, at=at)
        encoders = [network.station(Encoder, at=place) for place in (other, at)]
        for encoder in encoders:
            network.route(captioner, encoder, PIPE_CAPTION)
        lines[at] = CaptionLine(network[at].relay, captioner, encoders[0])
    for number in range(50):
        for line in lines.values():
            line.send(b"caption %04d" % number)
    for name, endpoint in endpoints.items():
        endpoint.wait_for(1)
        lines[name].send(b"in the next interval")
    for name, endpoint in endpoints.items():
        posts = endpoint.wait_for(2)
        assert {post.payload.feed_id for post in posts} == {lines[name].source}
        assert assert_archived(posts, lines[name]) == 51
        assert network[name].log.count("Newly collecting caption feedback from source") == 1


def test_a_peer_without_stations_of_its_own_archives_nothing(
    make_relay, make_endpoint, make_station, route, peer
):
    """A stand-in for a peer sends captions of many senders; a station's come after them."""
    endpoint = make_endpoint()
    relay = make_relay(archive_endpoint=endpoint.url, archive_interval_secs=1)
    captioner, encoder = make_station(relay, Captioner), make_station(relay, Encoder)
    link = peer.join(relay)
    route(relay, 4242, encoder, PIPE_CAPTION)
    for number in range(100):
        link.send(Caption(b"from afar", sender_id=4242 + number % 2))
    assert [one.caption for one in encoder.receive_count(50)] == [b"from afar"] * 50
    route(relay, captioner, encoder, PIPE_CAPTION)
    line = CaptionLine(relay, captioner, encoder)
    line.send_all(10)
    (post,) = endpoint.wait_for(1)
    assert assert_archived([post], line) == 10
    assert relay.log.count("Newly collecting caption feedback from source") == 1
