"""Video frames are sent whole or not at all to a viewer that reads slowly, until it reads again."""

from __future__ import annotations

import pytest
from switching_tools import got_before_fence, got_before_order_fence, line_count

from lab.protocol.messages import PIPE_VIDEO, LostConnection, VideoFeedback
from lab.stations.caption_stations import Encoder, Monitor
from lab.support.waiting import Deadline

THROTTLING = "INFO: throttling video frames to client {} due to its outstanding TCP buffer size"
PAGES = 60


def send_frame(camera, sequence):
    camera.send_video(bytes([65 + sequence % 26]) * 400 * PAGES, sequence)


def whole_frames(pages):
    """The sequence numbers of the frames; AssertionError unless each is there whole."""
    assert all(isinstance(page, VideoFeedback) for page in pages)
    assert len(pages) % PAGES == 0
    sequences = [pages[start].sequence for start in range(0, len(pages), PAGES)]
    expected = [(sequence, page + 1) for sequence in sequences for page in range(PAGES)]
    assert [(page.sequence, page.page) for page in pages] == expected
    return sequences


@pytest.mark.parametrize("tls", [False, True], ids=["plain", "tls"])
def test_a_slow_viewer_gets_whole_frames_and_is_not_dropped(tls_relay, make_station, route, tls):
    relay = tls_relay
    camera, quick = make_station(relay, Encoder), make_station(relay, Monitor)
    slow = make_station(relay, Monitor, tls=tls, receive_buffer=16384)
    for viewer in (slow, quick):
        route(relay, camera, viewer, PIPE_VIDEO)
        relay.server.orders.grant_video(camera.client_id, viewer.client_id)
    # Enlarges the buffers like the first message of a pair, which holds more than a frame.
    got_before_order_fence(relay.server, quick)
    received, sent = [], []

    def film(sequence):
        send_frame(camera, sequence)
        sent.append(sequence)
        # What the fast one gets shows that the relay is done with the frame.
        assert whole_frames(got_before_fence(camera, quick)) == [sequence]

    for first in (0, 1000):
        for sequence in range(first, first + 40):
            film(sequence)
        # The slow one reads again, and frames are sent again.
        deadline = Deadline(20)
        while not received or received[-1].sequence != sent[-1] or sent[-1] < first + 500:
            assert not deadline.passed()
            film(max(sent[-1] + 1, first + 500))
            received += got_before_fence(camera, slow, 20)
    got = whole_frames(received)
    assert got == sorted(set(got)) and got[0] == 0
    missing = [sequence not in got for sequence in sent]
    assert sum(missing[:40]) > 10
    # Logged once for each series of skipped frames, however many they are.
    rows = sum(now and not before for before, now in zip([False, *missing], missing))
    assert rows >= 2
    assert line_count(relay, quick, THROTTLING.format(slow.client_id)) == rows
    assert line_count(relay, quick, THROTTLING.format(quick.client_id)) == 0
    assert relay.server.record.messages_of(LostConnection) == []
