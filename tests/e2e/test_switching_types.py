"""Every type byte goes where its pipe leads: down a route of its class, to the connection server,
to the destination in its header, or nowhere."""

from __future__ import annotations

import pytest
from switching_tools import (
    arriving_image,
    got_before_fence,
    got_before_order_fence,
    images,
    line_count,
    server_heard,
)

from lab.protocol import messages
from lab.protocol.messages import LogOut, Opaque, Response
from lab.stations.caption_stations import Station

ROUTED_CLASSES = (0, 32, 64, 128, 160, 192)
DIRECT, SERVER, NOWHERE = "direct", "server", "nowhere"

#: Types that the relay itself answers; other tests cover them.
RELAYS_OWN = {Response.TYPE, LogOut.TYPE, messages.Heartbeat.TYPE}

_NAMED = {
    1: NOWHERE, 3: 128, 5: 192, 6: 160, 7: 192, 8: SERVER, 10: SERVER, 13: SERVER,
    9: DIRECT, 11: DIRECT,
}  # fmt: skip


def expected_way(type_byte):
    if type_byte in _NAMED:
        return _NAMED[type_byte]
    by_upper_bits = (0, 32, 64, DIRECT, 128, 160, 192, SERVER)
    return by_upper_bits[type_byte >> 5]


def message_of(type_byte, direct):
    # Fields as in a video page, so that pages are the first of their frame.
    payload = b"257~%d~jpeg~\x01\x80\xff\\~~" % type_byte
    return Opaque(type_byte, payload, dest_id=direct.client_id)


@pytest.mark.parametrize("tls", [False, True], ids=["plain", "tls"])
def test_every_type_byte_is_switched_by_its_pipe(tls_relay, make_station, route, tls):
    relay, server = tls_relay, tls_relay.server
    sender = make_station(relay, Station, tls=tls)
    direct = make_station(relay, Station)
    routed = {msg_class: make_station(relay, Station) for msg_class in ROUTED_CLASSES}
    for msg_class, receiver in routed.items():
        route(relay, sender, receiver, msg_class)
    # Routes that must not be used: these pipes lead elsewhere.
    for msg_class in (96, 224, -1):
        route(relay, sender, routed[0], msg_class)
    server.orders.grant_video(sender.client_id, routed[64].client_id)
    got_before_order_fence(server, direct)

    ways = {way: [] for way in (*ROUTED_CLASSES, DIRECT, SERVER, NOWHERE)}
    mark = server.record.mark()
    for type_byte in range(256):
        if type_byte not in RELAYS_OWN:
            message = message_of(type_byte, direct)
            sender.send(message)
            ways[expected_way(type_byte)].append(arriving_image(message))

    for msg_class, receiver in routed.items():
        assert images(got_before_fence(sender, receiver)) == ways[msg_class], msg_class
    assert images(got_before_fence(sender, direct)) == ways[DIRECT]
    last = ways[SERVER][-1]
    server.record.wait_for(lambda message: message.received_image == last, since=mark)
    assert images(server_heard(server, mark)) == ways[SERVER]
    assert [len(way) for way in ways.values()] == [19, 32, 32, 33, 33, 34, 34, 35, 1]


def test_direct_types_do_not_query_the_route_table(relay, make_station):
    sender, receiver = make_station(relay), make_station(relay)
    for type_byte in (9, 11, 0x60, 0x7F):
        sender.send(message_of(type_byte, receiver))
    assert len(got_before_fence(sender, receiver)) == 4
    assert line_count(relay, sender, "cache miss") == 0
