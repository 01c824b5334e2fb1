"""A client whose route leads to itself: it receives its own messages, and when it does not read it
is dropped in the middle of them, without affecting others."""

from __future__ import annotations

import pytest
from switching_tools import arriving_image, got_before_fence, images, line_count

from lab.protocol.messages import PIPE_CAPTION, Caption, LostConnection
from lab.stations.caption_stations import Captioner, Encoder
from lab.support.channel import PeerClosed
from lab.support.waiting import LabTimeout


@pytest.mark.parametrize("tls", [False, True], ids=["plain", "tls"])
def test_a_client_receives_its_own_messages(tls_relay, make_station, route, tls):
    station = make_station(tls_relay, Captioner, tls=tls)
    other = make_station(tls_relay, Encoder)
    for to in (other, station):
        route(tls_relay, station, to, PIPE_CAPTION)
    sent = [arriving_image(station.caption(b"%d" % number)) for number in range(200)]
    for receiver in (station, other):
        assert images(got_before_fence(station, receiver)) == sent


def send_until_dropped(station):
    """Sends large captions without reading any, until the relay ends the connection."""
    chunk = [Caption(b"x" * 490) for _ in range(100)]
    with pytest.raises((PeerClosed, LabTimeout)):
        for _ in range(1000):
            station.send_all(chunk, within_secs=2)


@pytest.mark.parametrize("tls", [False, True], ids=["plain", "tls"])
@pytest.mark.parametrize("place", ["first", "last"])
def test_a_client_that_does_not_read_its_own_messages_is_dropped(
    tls_relay, make_station, route, place, tls
):
    relay = tls_relay
    looping = make_station(relay, Captioner, tls=tls, heartbeats=False, receive_buffer=4096)
    listener = make_station(relay, Encoder)
    both = [looping, listener] if place == "first" else [listener, looping]
    for to in both:
        route(relay, looping, to, PIPE_CAPTION)
    sender = make_station(relay, Captioner)
    route(relay, sender, listener, PIPE_CAPTION)
    send_until_dropped(looping)
    relay.server.record.wait_for_type(LostConnection, 15, client_id=looping.client_id)
    relay.log.expect("TCP message send failed in SwitchPacket - rc=")
    dropped = f"removing socket for client {looping.client_id}, and notifying CS"
    assert line_count(relay, sender, dropped) == 1
    got = got_before_fence(sender, listener, 20)
    assert all(m.caption == b"x" * 490 and m.sender_id == looping.client_id for m in got)
    sent = arriving_image(sender.caption(b"\x41\x42"))
    assert images(got_before_fence(sender, listener)) == [sent]
    again = make_station(relay, Captioner, client_id=looping.client_id)
    sent = arriving_image(again.caption(b"\x43\x44"))
    assert images(got_before_fence(again, again)) == [sent]
