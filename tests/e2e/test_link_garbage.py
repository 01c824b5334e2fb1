"""A connection server that sends frames and bytes of every kind, at every stage. Whatever it sends,
the relay survives, no sanitizer reports an error, and a correct server is served afterwards."""

from __future__ import annotations

import random

import pytest

from lab.protocol import messages, wire
from lab.server.connection_server import Fault
from lab.support.channel import PeerClosed
from lab.support.waiting import LabTimeout

#: A log-out ends the link and a challenge begins a new login: these have tests of their own.
_ENDS_THE_LINK = (messages.LogOut.TYPE, messages.Challenge.TYPE)
_NUMBERS = (b"0", b"-1", b"4294967295", b"99999999999999999999", b"-2147483648", b"0x7f", b"017")
_CODES = (b"CONNECT", b"DISCONNECT", b"UDP_REG", b"OK", b"NO CONTINUE", b"%s%n%p", b"")


@pytest.fixture(params=["plain", "tls"])
def any_server(request):
    """A connection server of each kind."""
    return request.getfixturevalue("server" if request.param == "plain" else "tls_server")


def _field(dice):
    """A field as it may appear on the wire, well or badly formed."""
    return dice.choice(
        (
            dice.choice(_NUMBERS),
            dice.choice(_CODES),
            dice.randbytes(dice.randrange(80)),
            b"\\" * dice.randrange(5),
            b"'; DROP TABLE iopatch; --",
            b"A" * dice.randrange(480),
        )
    )


def _payload(dice):
    """Fields with and without their terminators, cut where a message ends."""
    fields = [_field(dice) + dice.choice((b"~", b"~", b"~", b"")) for _ in range(dice.randrange(9))]
    return b"".join(fields)[: wire.MAX_FRAMED_IMAGE_LEN - wire.HEADER_LEN]


def _image(dice, dest_id, types=range(256)):
    """An image with a plausible header and anything after it; sometimes too short for a header."""
    sender = dice.choice((1, 1, 1, dest_id, dice.getrandbits(32)))
    image = wire.make_image(dice.choice(types), sender, dice.choice((0, dest_id)), _payload(dice))
    return image[: dice.randrange(1, 12)] if dice.random() < 0.1 else image


def _wild_frames(dice, count, dest_id, without=()):
    types = [code for code in range(256) if code not in without]
    favourites = [code for code in (0, 3, 5, 12, 15, 17, 20, 24, 65, 106, 232) if code in types]
    images = [_image(dice, dest_id, dice.choice((types, favourites))) for _ in range(count)]
    return b"".join(wire.to_frame(image) for image in images)


def _serves_again(relay, server, links):
    """With a new link the relay carries out orders and serves clients as before."""
    server.wait_logged_in(40, number=links)
    server.orders.connect_route(31337, 31338, messages.PIPE_CHAT)
    relay.schema.wait_for_route((31337, 31338, messages.PIPE_CHAT))


@pytest.mark.parametrize("seed", range(3))
def test_random_frames_do_not_end_the_link(seed, any_server, make_relay, make_station):
    dice = random.Random(seed)
    relay = make_relay(using=any_server)
    station = make_station(relay)
    for _ in range(4):
        any_server.orders.send_raw(_wild_frames(dice, 150, station.client_id, _ENDS_THE_LINK))
    _serves_again(relay, any_server, 0)
    assert len(any_server.links) == 1
    assert station.end_seen is None


@pytest.mark.parametrize("seed", range(3))
def test_random_frames_with_log_outs_and_challenges_leave_a_working_relay(
    seed, server, relay, make_station
):
    dice = random.Random(100 + seed)
    station = make_station(relay)
    links = 0
    for _ in range(3):
        server.wait_logged_in(40, number=links)
        links = len(server.links)
        try:
            server.orders.send_raw(_wild_frames(dice, 300, station.client_id))
        except (PeerClosed, LabTimeout):
            pass  # it has received enough
        server.links.end(dice.choice(("close", "reset")))
    _serves_again(relay, server, links)


@pytest.mark.parametrize("seed", range(3))
def test_random_bytes_leave_a_working_relay(seed, any_server, make_relay, make_station):
    dice = random.Random(200 + seed)
    relay = make_relay(using=any_server)
    make_station(relay)
    try:
        any_server.orders.send_raw(dice.randbytes(200000))
    except (PeerClosed, LabTimeout):
        pass  # the noise may happen to log the relay out
    links = len(any_server.links)
    any_server.links.end("reset")
    _serves_again(relay, any_server, links)


@pytest.mark.parametrize("stage", ["challenge", "login"])
def test_noise_in_place_of_a_login_step_is_survived(stage, any_server, make_relay):
    dice = random.Random(stage)
    noises = [
        dice.randbytes(3000),
        wire.to_frame(wire.make_image(0, 1, 0, b"\\" * 499)),
        wire.to_frame(wire.make_image(0, 1, 0, b"99999999999999999999~OK")),
        wire.to_frame(wire.make_image(14, 1, 0, b"9" * 499)) * 20,
        wire.to_frame(wire.make_image(14, 0xFFFFFFFF, 0)[:3]),
    ]
    for noise in noises:
        any_server.script.fault(stage, Fault("close", noise))
    relay = make_relay(using=any_server, ready=False)
    relay.wait_ready(60)
    _serves_again(relay, any_server, 1)
