"""Video after a burst of captions: what the burst left waiting at a viewer counts when it is
decided whether a frame may start."""

from __future__ import annotations

import pytest
from switching_tools import got_before_fence, got_before_order_fence, images, line_count

from lab.protocol.messages import PIPE_CAPTION, PIPE_VIDEO, Caption
from lab.stations.caption_stations import Encoder, Monitor, video_pages

THROTTLING = "INFO: throttling video frames to client {} due to its outstanding TCP buffer size"
#: Half as much again as may be waiting for a frame to start.
CAPTIONS, CAPTION_LEN = 600, 490
PAGES = 10


def video(sequence, camera):
    return video_pages(b"v" * 400 * PAGES, sequence, sender_id=camera.client_id)


def sequences(messages):
    return [message.sequence for message in messages]


@pytest.mark.parametrize("tls", [False, True], ids=["plain", "tls"])
def test_a_frame_after_a_burst_delays_no_other_viewer(tls_relay, make_station, route, tls):
    relay = tls_relay
    camera, quick = make_station(relay, Encoder), make_station(relay, Monitor)
    slow = make_station(relay, Monitor, tls=tls, receive_buffer=4096)
    route(relay, camera, slow, PIPE_CAPTION)
    for viewer in (slow, quick):
        route(relay, camera, viewer, PIPE_VIDEO)
        relay.server.orders.grant_video(camera.client_id, viewer.client_id)
    got_before_order_fence(relay.server, quick)
    captions = [Caption(b"%04d" % n + b"x" * (CAPTION_LEN - 4)) for n in range(CAPTIONS)]
    camera.send_all([*video(1, camera), *captions, *video(2, camera)], within_secs=20)
    # What the fast one gets shows that the relay is done with everything.
    assert sequences(got_before_fence(camera, quick)) == [1] * PAGES + [2] * PAGES
    got = got_before_fence(camera, slow, 20)
    assert sequences(got[:PAGES]) == [1] * PAGES
    assert images(got[PAGES:]) == [caption.frame()[1:] for caption in captions]
    assert line_count(relay, quick, THROTTLING.format(slow.client_id)) == 1
    # With nothing waiting, frames are sent again.
    camera.send_all([*video(3, camera), *captions[:10]])
    got = got_before_fence(camera, slow)
    assert sequences(got[:PAGES]) == [3] * PAGES
    assert len(got) == PAGES + 10
    assert line_count(relay, quick, THROTTLING.format(slow.client_id)) == 1
