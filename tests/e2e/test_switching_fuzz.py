"""Random bytes and random frames of an admitted client never end the relay or disturb others. The
seeds are printed; SWITCHING_SEED repeats a run."""

from __future__ import annotations

import os
import random

import pytest
from switching_tools import Drain, arriving_image, got_before_fence, images

from lab.protocol import wire
from lab.protocol.messages import PIPE_CAPTION, Heartbeat, LogOut, Opaque, Response
from lab.stations.caption_stations import Captioner, Encoder, Station
from lab.support.channel import PeerClosed
from lab.support.waiting import LabTimeout

CLASSES = (0, 32, 64, 128, 160, 192)
#: A log-out or the answer of a relay would change the client's role; other tests send those.
NEVER = {Response.TYPE, LogOut.TYPE}


@pytest.fixture
def generator(request):
    seed = int(os.environ.get("SWITCHING_SEED") or random.SystemRandom().randrange(1 << 32))
    print(f"{request.node.name}: SWITCHING_SEED={seed}")
    return random.Random(seed)


@pytest.fixture
def bystanders(tls_relay, make_station, route):
    """A captioner and an encoder unrelated to the noise."""
    captioner = make_station(tls_relay, Captioner)
    encoder = make_station(tls_relay, Encoder, tls=True)
    route(tls_relay, captioner, encoder, PIPE_CAPTION)
    return captioner, encoder


def undisturbed(bystanders, number):
    captioner, encoder = bystanders
    sent = arriving_image(captioner.caption(b"%d" % number))
    assert images(got_before_fence(captioner, encoder, 20)) == [sent]


def random_payload(generator):
    """Sometimes bytes, sometimes fields that look almost right."""
    if generator.randrange(2):
        return generator.randbytes(generator.randrange(500))
    values = [b"", b"0", b"-1", b"257", b"99999999999999999999", b"CONNECT", b"OK ", b"\\", b"\0"]
    count = generator.randrange(12)
    return b"".join(generator.choice(values) + b"~" for _ in range(count))[:499]


def random_frame(generator, client_id, receiver_id):
    code = generator.choice([c for c in range(256) if c not in NEVER])
    sender = client_id if generator.randrange(10) else generator.randrange(1 << 32)
    dest = generator.choice([0, receiver_id, client_id, generator.randrange(1 << 32)])
    image = wire.make_image(code, sender, dest, random_payload(generator))
    if not generator.randrange(20):
        image = image[: generator.randrange(1, 12)]
    return wire.to_frame(image)


@pytest.mark.parametrize("tls", [False, True], ids=["plain", "tls"])
def test_random_frames(tls_relay, make_station, route, bystanders, generator, tls):
    noisy, receiver = make_station(tls_relay, Station, tls=tls), make_station(tls_relay, Station)
    for msg_class in CLASSES:
        route(tls_relay, noisy, receiver, msg_class)
    drain, sent = Drain(receiver), set()
    try:
        for number in range(30):
            frames = [
                random_frame(generator, noisy.client_id, receiver.client_id) for _ in range(100)
            ]
            sent.update(frame[1:] for frame in frames)
            noisy.send_raw(b"".join(frames), within_secs=20)
            undisturbed(bystanders, number)
        last = Opaque(9, b"the end of the noise~", dest_id=receiver.client_id)
        noisy.send(last)
        drain.wait_for_image(arriving_image(last), 20)
        # What came is exactly what was sent.
        got = drain.images()[:-1]
        assert len(got) > 500
        assert sent.issuperset(got)
    finally:
        drain.close()
    assert tls_relay.running


@pytest.mark.parametrize("tls", [False, True], ids=["plain", "tls"])
def test_random_bytes(tls_relay, make_station, bystanders, generator, tls):
    """No frames at all, split anywhere. A length code of 0 empties the relay's buffer, any other
    byte is taken for a length."""
    for number in range(25):
        noisy = make_station(tls_relay, Station, tls=tls)
        try:
            for _ in range(generator.randrange(1, 6)):
                noisy.send_raw(generator.randbytes(generator.randrange(1, 6000)), within_secs=20)
        except (PeerClosed, LabTimeout):
            pass
        undisturbed(bystanders, number)
        noisy.reset() if generator.randrange(2) else noisy.close()
    undisturbed(bystanders, 1000)


def test_random_bytes_beneath_tls(tls_relay, make_station, bystanders, generator):
    """Bytes that break the records of a TLS connection end only that connection."""
    relay = tls_relay
    for number in range(10):
        noisy = make_station(relay, Station, tls=True, heartbeats=False)
        raw = os.dup(noisy.fileno())
        try:
            os.write(raw, generator.randbytes(generator.randrange(5, 3000)) + b"\0" * 20000)
        finally:
            os.close(raw)
        undisturbed(bystanders, number)
        noisy.close()


@pytest.mark.parametrize("tls", [False, True], ids=["plain", "tls"])
def test_every_type_with_every_malformed_payload(tls_relay, make_station, bystanders, tls):
    """Not random: what breaks parsers, for each type, with routes that deliver it."""
    payloads = [b"", b"~", b"\\", b"~" * 499, b"\\" * 499, b"a" * 499, b"\0" * 499, b"-1~" * 166]
    noisy = make_station(tls_relay, Station, tls=tls)
    for code in range(256):
        if code not in NEVER:
            batch = [Opaque(code, payload, dest_id=noisy.client_id) for payload in payloads]
            noisy.send_all(batch)
    undisturbed(bystanders, 1)
    got = {m.type_code for m in got_before_fence(noisy, noisy, 20)}
    # The direct ones came back; the lab does not return heartbeats.
    assert got - {Heartbeat.TYPE} == {9, 11, *range(0x60, 0x80)}
