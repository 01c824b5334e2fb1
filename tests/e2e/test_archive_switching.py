"""Whatever the archive endpoint does, captions go to their destinations at once and unchanged."""

from __future__ import annotations

import time

import pytest
from archive_tools import archived, assert_archived, make_lines, private_bytes
from scripted_endpoint import Answer

from lab.protocol.messages import Caption
from lab.stations.caption_stations import Captioner
from lab.support.tracer import LoopTracer

#: How much memory may grow while bodies of hundreds of megabytes arrive.
GROWTH_BYTES = 24 << 20
PAUSE_SECS = 0.01
#: Captions in one write, and calls that may send something else meanwhile.
BURST, OTHER_CALLS = 200, 8
DELAY_SECS = 2
#: After this long following a post the relay has checked its archive again.
NEXT_PASS_SECS = 17


def test_a_post_that_never_ends_delays_no_captions(make_endpoint, make_relay, make_station, route):
    """Not even when there is more to post meanwhile; and the body is not kept."""
    endpoint = make_endpoint(Answer("endless"))
    relay = make_relay(archive_endpoint=endpoint.url, archive_interval_secs=1)
    lines = make_lines(relay, make_station, route, 3)
    before = private_bytes(relay)
    while not endpoint.has(1, PAUSE_SECS):
        for line in lines:
            line.send()
    end = endpoint.posts[0].at + NEXT_PASS_SECS
    while time.monotonic() < end:
        for line in lines:
            line.send()
        assert not endpoint.has(2, PAUSE_SECS)
    for line in lines:
        line.assert_never_delayed()
    assert private_bytes(relay) - before < GROWTH_BYTES


def test_a_slow_archive_delays_no_captions(make_endpoint, make_relay, make_station, route):
    """It only gets what there is later, in order."""
    endpoint = make_endpoint(*[Answer(delay_secs=DELAY_SECS)] * 6)
    relay = make_relay(archive_endpoint=endpoint.url, archive_interval_secs=1)
    lines = make_lines(relay, make_station, route, 3)
    while not endpoint.has(6, PAUSE_SECS):
        for line in lines:
            line.send()
    posts = endpoint.posts
    for line in lines:
        line.assert_never_delayed()
        assert assert_archived(posts, line) > 1
    assert [post.payload.feed_id for post in posts] == [line.source for line in lines] * 2
    gaps = [later.at - post.at for post, later in zip(posts[:2], posts[1:3], strict=True)]
    assert all(gap >= DELAY_SECS for gap in gaps)


def test_a_dead_archive_delays_no_captions(make_endpoint, make_relay, make_station, route):
    endpoint = make_endpoint(start=False)
    relay = make_relay(archive_endpoint=endpoint.url, archive_interval_secs=1)
    lines = make_lines(relay, make_station, route, 3)
    while relay.log.count("Consecutive retry errors") < 3:
        for line in lines:
            line.send()
        endpoint.has(1, PAUSE_SECS)
    for line in lines:
        line.assert_never_delayed()


@pytest.mark.skipif(not LoopTracer.supported(), reason="unknown kind of processor")
@pytest.mark.parametrize("routed", [True, False], ids=["to an encoder", "without a route"])
def test_captions_that_come_together_are_archived_one_by_one(
    make_endpoint, make_relay, make_station, route, routed
):
    """They leave together all the same, and the faster they are handled the more it takes to give
    each a separate time, without which it would be lost."""
    endpoint = make_endpoint()
    relay = make_relay(archive_endpoint=endpoint.url, archive_interval_secs=1)
    (line,) = make_lines(relay, make_station, route, 1)
    captioner = line.captioner if routed else make_station(relay, Captioner)
    line.send()
    captions = [b"%06d" % number for number in range(BURST)]
    with LoopTracer(relay.pid) as tracer:
        captioner.send_all(Caption(caption) for caption in captions)
        calls = []
        while "read" not in calls:
            calls += tracer.system_calls()
    assert calls.count("sendto") <= OTHER_CALLS
    if routed:
        assert [one.caption for one in line.encoder.receive_count(BURST)] == captions
    posts = endpoint.wait_for(1 if routed else 2)
    assert [caption for _, caption in archived(posts, captioner.client_id)][-BURST:] == captions
