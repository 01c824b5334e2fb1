"""A station that floods the relay with captions: these are not archived, all others are."""

from __future__ import annotations

import pytest
from archive_tools import assert_archived, make_lines, private_bytes

from lab.protocol.messages import Caption, Heartbeat
from lab.stations.caption_stations import Captioner
from lab.support.waiting import Deadline

#: Once between heartbeats of the relay, which come every 4 seconds: it drops no client for that.
BURST, CHUNK = 60_000, 2_000
CANCELLED = "WARNING: Archive: Attempt to send 40001 data bytes collected from client {}, "
#: For 40001 captions, and for the buffers of a busy relay.
GROWTH_BYTES = 32 << 20
FURTHER_GROWTH_BYTES = 8 << 20


def flood(flooder, deadline):
    """One burst as fast as possible."""
    chunk = [Caption(b"flooding", sender_id=flooder.client_id) for _ in range(CHUNK)]
    frames = b"".join(caption.frame() for caption in chunk)
    for _ in range(BURST // CHUNK):
        flooder.send_raw(frames, deadline.left())
    flooder.expect(Heartbeat, deadline.left())


@pytest.mark.timeout(300)
def test_a_flood_of_captions_is_dropped_and_costs_no_memory(
    make_endpoint, make_relay, make_station, route
):
    endpoint = make_endpoint()
    relay = make_relay(archive_endpoint=endpoint.url, archive_interval_secs=1)
    lines = make_lines(relay, make_station, route, 2)
    flooder = make_station(relay, Captioner)
    flooder.show_heartbeats = True
    memory, deadline = [private_bytes(relay)], Deadline(90)
    for times in (1, 2, 3):
        while relay.log.count(CANCELLED.format(flooder.client_id)) < times:
            flood(flooder, deadline)
            for line in lines:
                line.send()
        memory.append(private_bytes(relay))
    cancelled = CANCELLED.format(flooder.client_id)
    assert relay.log.expect(cancelled).endswith(cancelled + "cancelling")
    posts = endpoint.wait_for(4)
    for line in lines:
        line.assert_never_delayed()
        assert assert_archived(posts, line) >= 4
    assert flooder.client_id not in {post.payload.feed_id for post in posts}
    assert memory[1] - memory[0] < GROWTH_BYTES
    assert memory[3] - memory[1] < FURTHER_GROWTH_BYTES
    assert relay.log.count("over limit") == 0
