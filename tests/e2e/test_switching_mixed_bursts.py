"""Hundreds of messages in one segment, of one kind or of many: each destination gets its own,
whole, unchanged and in order."""

from __future__ import annotations

import random

import pytest
from switching_tools import (
    TYPE_DIRECT,
    arriving_image,
    got_before_fence,
    got_before_order_fence,
    images,
    in_threads,
)

from lab.protocol.messages import (
    PIPE_CAPTION,
    PIPE_CHAT,
    PIPE_VIDEO,
    Caption,
    Chat,
    LogOut,
    Message,
    Opaque,
    StatusKeyPost,
)
from lab.stations.caption_stations import Encoder, Monitor, video_pages

KINDS = [False, True]
#: The payload of a segment on the loopback interface.
SEGMENT = 65_000


@pytest.fixture
def receivers(tls_relay, make_station):
    return [make_station(tls_relay, Monitor, tls=kind) for kind in KINDS * 2]


def in_one_write(sender, burst):
    for message in burst:
        message.sender_id = sender.client_id
    stream = b"".join(message.frame() for message in burst)
    assert len(stream) < SEGMENT
    sender.send_raw(stream)


def collect(receivers, expected):
    """What each receiver gets, as many as are expected."""
    calls = [
        lambda r=receiver, n=len(own): images(r.receive_count(n, 20))
        for receiver, own in zip(receivers, expected)
    ]
    return in_threads(calls)


@pytest.mark.parametrize("tls", KINDS, ids=["plain", "tls"])
def test_hundreds_of_captions_in_one_segment(tls_relay, make_station, route, receivers, tls):
    sender = make_station(tls_relay, Encoder, tls=tls, heartbeats=False)
    for receiver in receivers:
        route(tls_relay, sender, receiver, PIPE_CAPTION)
    dice = random.Random(33)
    for _ in range(3):
        burst = [
            Caption(b"%04d" % number + dice.randbytes(dice.choice([0, 1, 20, 60, 200])))
            for number in range(600)
        ]
        in_one_write(sender, burst)
        expected = [arriving_image(message) for message in burst]
        for got in collect(receivers, [expected] * len(receivers)):
            assert got == expected


def mixture(dice, receivers):
    """Some hundred messages of all kinds."""
    pages = video_pages(dice.randbytes(400 * 60).replace(b"~", b"-").replace(b"\\", b"-"), 1)
    burst = []
    for number in range(500):
        name = b"%04d" % number
        kind = dice.randrange(10)
        if kind < 5:
            burst.append(Caption(name + b"c" * dice.randrange(40)))
        elif kind == 5:
            burst.append(Chat("me", name))
        elif kind == 6 and pages:
            burst.append(pages.pop(0))
        elif kind == 7:
            to = dice.choice(receivers)
            burst.append(Opaque(TYPE_DIRECT, name + b"~", dest_id=to.client_id))
        elif kind == 8:
            burst.append(StatusKeyPost("number", name.decode()))
    return [*burst, LogOut("mixer"), Caption(b"too late")]


@pytest.mark.parametrize("tls", KINDS, ids=["plain", "tls"])
def test_a_mixture_keeps_its_order_for_each_destination(
    tls_relay, make_station, route, receivers, tls
):
    relay, server = tls_relay, tls_relay.server
    sender = make_station(relay, Encoder, tls=tls, heartbeats=False)
    hears = {Caption: receivers, Chat: receivers[1:3], type(video_pages(b"")[0]): receivers[2:]}
    for pipe, kind in zip((PIPE_CAPTION, PIPE_CHAT, PIPE_VIDEO), hears):
        for receiver in hears[kind]:
            route(relay, sender, receiver, pipe)
            server.orders.grant_video(sender.client_id, receiver.client_id)
    got_before_order_fence(server, sender)
    burst = mixture(random.Random(44), receivers)
    in_one_write(sender, burst)
    expected = [
        [
            arriving_image(message)
            for message in burst[:-1]
            if message.dest_id == receiver.client_id or receiver in hears.get(type(message), [])
        ]
        for receiver in receivers
    ]
    assert collect(receivers, expected) == expected
    assert sender.closed_by_peer()
    for receiver in receivers:
        assert got_before_fence(receivers[0], receiver) == []
    server.record.wait_for_type(LogOut, sender_id=sender.client_id)
    told = [m for m in server.record.messages_of(Message) if isinstance(m, (StatusKeyPost, LogOut))]
    own = [m for m in burst if isinstance(m, (StatusKeyPost, LogOut))]
    assert images(told) == [arriving_image(message) for message in own]
