"""Captions of several captioners reach fifty encoders: each its own, in order, byte for byte."""

from __future__ import annotations

import random

import pytest
from switching_tools import (
    Drain,
    arriving_image,
    got_before_fence,
    got_before_order_fence,
    images,
    line_count,
)

from lab.protocol.messages import PIPE_CAPTION, Caption, Opaque
from lab.stations.caption_stations import Captioner, Encoder

ENCODERS = 50


@pytest.fixture
def encoders(tls_relay, make_station):
    """Half of them over TLS."""
    return [make_station(tls_relay, Encoder, tls=number % 2 == 1) for number in range(ENCODERS)]


def connect(relay, captioner, encoders):
    for encoder in encoders:
        relay.server.orders.connect_route(captioner.client_id, encoder.client_id, PIPE_CAPTION)
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
    assert line_count(tls_relay, captioner, line) == 1


def test_interleaved_captioners_are_not_mixed_up(tls_relay, make_station, encoders):
    """Some encoders get one captioner, some two, some all three."""
    captioners = [make_station(tls_relay, Captioner, tls=number == 1) for number in range(3)]
    audiences = [encoders, encoders[::2], encoders[:10]]
    for captioner, audience in zip(captioners, audiences):
        connect(tls_relay, captioner, audience)
    sent = [[], [], []]
    for number in range(100):
        for index, captioner in enumerate(captioners):
            sent[index].append(arriving_image(captioner.caption(b"%d of %d~\\" % (number, index))))
    for encoder in encoders:
        # A fence of each captioner: their streams are separate.
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


def test_the_200000th_routed_message_is_reported(relay, make_station):
    """Messages on no route do not count."""
    captioner, last = make_station(relay, Captioner), make_station(relay, Captioner)
    encoders = [make_station(relay, Encoder) for _ in range(20)]
    connect(relay, captioner, encoders)
    connect(relay, last, encoders[:1])
    drains = [Drain(encoder) for encoder in encoders]
    report = "200000 tcp packets switched and sent, this packet switched from {} to {}"
    try:
        for start in range(0, 9999, 101):
            captioner.send_all([Caption(b"%d" % n) for n in range(start, start + 101)], 30)
        last.send_all([Caption(b"%d" % number) for number in range(19)])
        final = Opaque(9, b"the 199999th is through~", dest_id=encoders[0].client_id)
        for sender in (captioner, last, last):
            final.sender_id = sender.client_id
            sender.send(final)
            drains[0].wait_for_image(arriving_image(final), 60)
        assert line_count(relay, last, "tcp packets switched and sent") == 0
        last.caption(b"200000")
        relay.log.expect(report.format(last.client_id, encoders[0].client_id))
    finally:
        for drain in drains:
            drain.close()
