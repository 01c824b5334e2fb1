"""An archive that cannot be reached gets everything in order later; what it refuses is dropped."""

from __future__ import annotations

import time

import pytest
from archive_tools import archived, assert_archived, make_lines
from scripted_endpoint import PASS_SECS, Answer
from switching_tools import got_before_fence

from lab.protocol.messages import Caption
from lab.stations.caption_stations import Captioner
from lab.support.waiting import patient

RETRY = "Consecutive retry errors: {}"
ISSUE = "WARNING: Archive posting issue - "
REFUSALS = [Answer("close"), Answer("reset"), Answer("garbage"), 404, 302, 204, 201, 500]


@pytest.mark.threads
def test_a_closed_archive_is_retried_every_two_seconds_until_it_opens(
    make_endpoint, make_relay, make_station, route
):
    """Each payload keeps its number until it is delivered, although every attempt takes one."""
    endpoint = make_endpoint(start=False)
    relay = make_relay(
        archive_endpoint=f"{endpoint.url}?a=b", archive_interval_secs=1, archive_append_seq=True
    )
    lines = make_lines(relay, make_station, route, 3)
    for line in lines:
        line.send_all(10)
    relay.log.expect(RETRY.format(1), PASS_SECS)
    begun = time.monotonic()
    for line in lines:
        line.send()
    relay.log.expect_in_order(*map(RETRY.format, (2, 3, 4)), within_secs=20)
    assert 5.5 < time.monotonic() - begun < 6 + patient(3)
    relay.log.expect(ISSUE + "Can't connect to server", PASS_SECS)
    endpoint.open()
    posts = endpoint.wait_for(6)
    for line in lines:
        line.assert_never_delayed()
        assert assert_archived(posts, line) == 11
    order = [line.source for line in lines]
    assert [post.payload.feed_id for post in posts] == order * 2
    attempts = relay.log.count("Consecutive retry errors") + 1
    numbers = [2, *range(2 + attempts, 7 + attempts)]
    targets = [f"/archive?a=b&seq={number}" for number in numbers]
    assert [post.target for post in posts] == targets
    relay.log.expect(f"TRACE: URL set to http://{endpoint.address}:{endpoint.port}{targets[-1]}")
    assert relay.log.count("TRACE: URL set to http://") == 6
    assert relay.log.count("Won't retry") == 0


def test_a_long_absence_leaves_the_latest_twenty(make_endpoint, make_relay, make_station):
    """After ten failures; the oldest are dropped, all others are delivered in order."""
    endpoint = make_endpoint(start=False)
    relay = make_relay(archive_endpoint=endpoint.url, archive_interval_secs=1)
    captioners = [make_station(relay, Captioner) for _ in range(35)]
    for captioner in captioners:
        captioner.caption(b"%06d" % captioner.client_id)
        # The relay reads its clients in any order: each is read before the next one sends.
        assert got_before_fence(captioner, captioner) == []
    relay.log.expect_in_order(
        *map(RETRY.format, range(1, 10)),
        "Dropping data packets, max number of connsecutive errors exceeded",
        "Dropped 15 packets",
        "Dropped 0 packets",
        within_secs=PASS_SECS + 30,
    )
    endpoint.open()
    posts = endpoint.wait_for(20)
    captioners[0].caption(b"later")
    posts = endpoint.wait_for(21)
    expected = [captioner.client_id for captioner in [*captioners[15:], captioners[0]]]
    assert [post.payload.feed_id for post in posts] == expected
    for captioner in captioners[15:]:
        said = [caption for _, caption in archived(posts, captioner.client_id)]
        assert said == [b"%06d" % captioner.client_id]


def test_refused_posts_are_not_retried(make_endpoint, make_relay, make_station, route):
    """Any answer but 200, and none; the log says what the last one was, later posts continue."""
    endpoint = make_endpoint(*REFUSALS)
    relay = make_relay(archive_endpoint=endpoint.url, archive_interval_secs=1)
    (line,) = make_lines(relay, make_station, route, 1)
    sources = [make_station(relay, Captioner) for _ in REFUSALS]
    for source in sources:
        source.send(Caption(b"refused~"))
        # The relay reads its clients in any order: each is read before the next one sends.
        assert got_before_fence(source, source) == []
    posts = endpoint.wait_for(len(REFUSALS))
    assert [post.payload.feed_id for post in posts] == [one.client_id for one in sources]
    line.send_all(5)
    relay.log.expect(ISSUE + "HTTP 500", PASS_SECS)
    posts = endpoint.wait_for(len(REFUSALS) + 1)
    assert assert_archived(posts[len(REFUSALS) :], line) == 5
    assert relay.log.count("Won't retry") == len(REFUSALS)
    assert relay.log.count("ERROR: error sending POST (code ") == 3
    assert relay.log.count("Consecutive retry errors") == 0
    assert relay.log.count(ISSUE) == 1
