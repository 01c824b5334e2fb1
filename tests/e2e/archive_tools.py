"""Captions on their way to the archive: sent by stations, found in posts."""

from __future__ import annotations

import re
import time
from collections.abc import Iterable
from pathlib import Path

from scripted_endpoint import Post

from lab.archive import posted_json
from lab.protocol.messages import PIPE_CAPTION
from lab.relay.relay import Relay
from lab.stations.caption_stations import Captioner, Encoder
from lab.support.stopwatch import Stopwatch
from lab.support.waiting import patient

#: The longest that a caption may take through a relay; on an idle machine it is under a
#: millisecond.
NOTICEABLE_SECS = 1.0

#: The precision of the archive's times.
TICK_SECS = 0.002

_PATIENCE_SECS = 20.0


class CaptionLine:
    """A captioner and an encoder that gets what it sends."""

    def __init__(self, relay: Relay, captioner: Captioner, encoder: Encoder) -> None:
        self.relay, self.captioner, self.encoder = relay, captioner, encoder
        #: When each caption was sent (wall clock), and its bytes.
        self.sent: list[tuple[float, bytes]] = []
        #: When each had arrived: the relay received it between these times.
        self.arrived: list[float] = []
        self.longest_trip = 0.0

    @property
    def source(self) -> int:
        return self.captioner.client_id

    def send(self, caption: bytes | None = None) -> bytes:
        """Sends one caption, unique by default, and waits until it has arrived."""
        caption = b"%06d" % len(self.sent) if caption is None else caption
        self.sent.append((time.time(), caption))
        watch = Stopwatch(self.relay.pid)
        self.captioner.caption(caption)
        assert self.encoder.receive_caption(_PATIENCE_SECS)[0] == caption
        self.arrived.append(time.time())
        self.longest_trip = max(self.longest_trip, watch.secs())
        return caption

    def send_all(self, count: int) -> None:
        for _ in range(count):
            self.send()

    def assert_never_delayed(self) -> None:
        assert self.longest_trip < patient(NOTICEABLE_SECS)


def make_lines(relay, make_station, route, count: int) -> list[CaptionLine]:
    """Lines through a relay."""
    lines = []
    for _ in range(count):
        line = CaptionLine(relay, make_station(relay, Captioner), make_station(relay, Encoder))
        route(relay, line.captioner, line.encoder, PIPE_CAPTION)
        lines.append(line)
    return lines


def archived(posts: Iterable[Post], source: int) -> list[tuple[float, bytes]]:
    """The captions of field 1 of a source in posts, as they were sent, with their times."""
    payloads = [posted_json.read(post.body) for post in posts]
    return [
        (record.time, bytes(byte & 0x7F for byte in record.data))
        for payload in payloads
        if payload.feed_id == source
        for record in payload.of_field(1)
    ]


def assert_archived(posts: Iterable[Post], line: CaptionLine, *, since: int = 0) -> int:
    """Asserts that what a line sent, from its caption number `since` on, is there once, in order,
    with its time; returns how much of it."""
    found, sent = archived(posts, line.source), line.sent[since:]
    assert [caption for _, caption in found] == [caption for _, caption in sent][: len(found)]
    for (at, _), (sent_at, _), arrived_at in zip(found, sent, line.arrived[since:]):
        assert sent_at - TICK_SECS <= at <= arrived_at + TICK_SECS
    return len(found)


def private_bytes(relay: Relay) -> int:
    """The private memory of a process; 0 under sanitizers, which keep what is freed."""
    if "san.so" in Path(f"/proc/{relay.pid}/maps").read_text():
        return 0
    status = Path(f"/proc/{relay.pid}/status").read_text()
    return int(re.search(r"RssAnon:\s*(\d+) kB", status)[1]) * 1024
