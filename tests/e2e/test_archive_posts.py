"""What stations caption arrives at the archive: whole, in order, once, in exactly this form."""

from __future__ import annotations

import re
import time

import pytest
from archive_tools import TICK_SECS, archived, assert_archived, make_lines
from switching_tools import line_count

from lab.protocol.messages import Caption

pytestmark = pytest.mark.threads

#: Captions, and what the fields of the archive have to hold of each: hexadecimal pairs with parity.
SAMPLES = [
    (b"\x14\x20\x14\x2c", "9420 942c", ""),
    (b"\x14\x2c\x14\x2c\x41\x42", "c1c2", ""),  # that field is erased already
    (b"\x94\xac\xc8\xe9", "", "94ac c8e9"),
    (b"\x15\x2c", "152c", ""),
    (b"\x48\x69\x95\xac\x94\xac\x31\x32", "c8e9 3132", "95ac"),  # so is the second one
    (b"\x41\x42\x43", "c1c2", ""),  # half a pair is not kept
    (b"\x41\xc2", "c180", "c280"),  # each byte goes to its own field
    (b"\x81\x80\x00\x00", "8080", "8180"),
    (b"\x01\x02\x7f\x7e", "0102 7ffe", ""),
]


def form(source: int, fields: list[list[str]]) -> re.Pattern[str]:
    """What a post has to be, with any times."""
    texts = ["".join(rf"([0-9]+\.[0-9]{{3}})\t{one}\r\n\r\n" for one in field) for field in fields]
    return re.compile(
        r'\{"time" : ([0-9]+),"dur" : ([0-9]+),"feedID" : "%u","CaptionData" : '
        r'\{"format" : "SCCP","S1data" : "%s","S2data" : "%s"\}\}' % (source, *texts)
    )


def test_a_post_has_exactly_the_agreed_format(make_endpoint, make_relay, make_station, route):
    """Byte for byte: raw CR LF, both fields, erasures once, parity; times within a second."""
    endpoint = make_endpoint()
    relay = make_relay(archive_endpoint=endpoint.url, archive_interval_secs=3)
    (line,) = make_lines(relay, make_station, route, 1)
    begun = time.time()
    for caption, _, _ in SAMPLES:
        line.send(caption)
    line.send(b"")
    line.send(b"A")
    (post,) = endpoint.wait_for(1)
    ended = time.time()
    newly = f"Newly collecting caption feedback from source {line.source} for archive"
    assert line_count(relay, line.captioner, newly) == 1
    assert (post.method, post.target) == ("POST", "/archive")
    assert post.headers["content-type"] == "text/json; charset=utf-8"
    assert int(post.headers["content-length"]) == len(post.body)
    kept = [[sample for sample in SAMPLES if sample[field]] for field in (1, 2)]
    texts = [[sample[field] for sample in kept[field - 1]] for field in (1, 2)]
    match = form(line.source, texts).fullmatch(post.body.decode("ascii"))
    assert match, post.body
    posted_at, duration, *times = match.groups()
    assert begun - 1 < int(posted_at) <= ended
    assert 3 <= int(duration) + 1 <= ended - begun + 2
    spans = {caption: (at, arrived) for (at, caption), arrived in zip(line.sent, line.arrived)}
    for at, (caption, _, _) in zip(times, [*kept[0], *kept[1]], strict=True):
        sent_at, arrived_at = spans[caption]
        assert sent_at - TICK_SECS <= float(at) <= arrived_at + TICK_SECS


def test_sources_are_archived_separately_in_every_interval(
    make_endpoint, make_relay, make_station, route
):
    """One post for each source and interval; nothing is lost or posted twice between them."""
    endpoint = make_endpoint()
    relay = make_relay(archive_endpoint=endpoint.url, archive_interval_secs=1)
    lines = make_lines(relay, make_station, route, 4)
    unheard = make_station(relay)
    unheard.send(Caption(b"nobody listens"))
    while not endpoint.has(2 * len(lines) + 1, 0.05):
        for line in lines:
            line.send()
    posts = endpoint.posts
    for line in lines:
        line.assert_never_delayed()
        own = [post.payload for post in posts if post.payload.feed_id == line.source]
        count = assert_archived(posts, line)
        assert all(arrived_at >= own[-1].time for arrived_at in line.arrived[count:])
        assert len(own) == 2
        assert 14 <= own[1].time - own[0].time
        assert abs(own[1].duration - (own[1].time - own[0].time)) <= 1
    assert [one for _, one in archived(posts, unheard.client_id)] == [b"nobody listens"]
    relay.log.expect(f"Newly collecting caption feedback from source {unheard.client_id} ")
