"""Captions of several captioners reach fifty encoders: each its own, in order, byte for byte."""

from __future__ import annotations

import random

import pytest
from switching_tools import arriving_image, got_before_fence, got_before_order_fence, images

from lab.messages import PIPE_CAPTION
from lab.stations import Captioner, Encoder

ENCODERS = 50


@pytest.fixture
def encoders(tls_relay, make_station):
    """Half of them over TLS."""
    return [make_station(tls_relay, Encoder, tls=number % 2 == 1) for number in range(ENCODERS)]


def connect(relay, captioner, encoders):
    for encoder in encoders:
        relay.server.connect_route(captioner.client_id, encoder.client_id, PIPE_CAPTION)
    got_before_order_fence(relay.server, captioner)


def test_fifty_encoders_get_every_caption_in_order(tls_relay, make_station, encoders):
    captioner = make_station(tls_relay, Captioner)
    connect(tls_relay, captioner, encoders)
    generator = random.Random(50)
    sent = []
    for number in range(200):
        pairs = b"%03d" % number + generator.randbytes(generator.randrange(60))
        sent.append(arriving_image(captioner.caption(pairs)))
    for encoder in encoders:
        assert images(got_before_fence(captioner, encoder)) == sent
    line = f"cache miss for source {captioner.client_id} type 192, now sending to 50 clients"
    assert tls_relay.log.count(line) == 1


def test_captioners_that_interleave_do_not_mix(tls_relay, make_station, encoders):
    """Some encoders hear one captioner, some two, some all three."""
    captioners = [make_station(tls_relay, Captioner, tls=number == 1) for number in range(3)]
    audiences = [encoders, encoders[::2], encoders[:10]]
    for captioner, audience in zip(captioners, audiences):
        connect(tls_relay, captioner, audience)
    sent = [[], [], []]
    for number in range(100):
        for index, captioner in enumerate(captioners):
            sent[index].append(arriving_image(captioner.caption(b"%d of %d~\\" % (number, index))))
    for encoder in encoders:
        # A fence of each captioner: theirs are streams of their own.
        got = [i for c in captioners for i in images(got_before_fence(c, encoder))]
        for index, captioner in enumerate(captioners):
            own = captioner.client_id.to_bytes(4, "little")
            heard = sent[index] if encoder in audiences[index] else []
            assert [image for image in got if image[1:5] == own] == heard
        assert len(got) == sum(len(s) for s, a in zip(sent, audiences) if encoder in a)


def test_an_encoder_that_leaves_does_not_disturb_the_others(tls_relay, make_station, encoders):
    captioner = make_station(tls_relay, Captioner)
    connect(tls_relay, captioner, encoders)
    sent = []
    for number in range(60):
        sent.append(arriving_image(captioner.caption(b"%d" % number)))
        if number % 2 == 0:
            leaver = encoders[number // 2]
            leaver.reset() if number % 4 == 0 else leaver.close()
    for encoder in encoders[30:]:
        assert images(got_before_fence(captioner, encoder)) == sent
