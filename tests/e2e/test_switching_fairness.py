"""A sender that floods does not starve others, and a receiver that does not read is dropped without
the others noticing."""

from __future__ import annotations

import pytest
from switching_tools import Drain, arriving_image, got_before_fence, in_threads

from lab.protocol.messages import PIPE_CAPTION, Caption, LostConnection
from lab.stations.caption_stations import Captioner, Encoder
from lab.support.stopwatch import Stopwatch
from lab.support.waiting import patient

#: The longest that a caption may take while the relay has much else to do. On an idle machine it is
#: well under a millisecond.
NOTICEABLE_SECS = 1.0
LARGE = b"x" * 490


def slowest_round_trip(relay, captioner, encoder, go_on, at_least):
    """Sends single captions while `go_on()`; the longest that one took."""
    slowest, number = 0.0, 0
    while number < at_least or go_on():
        watch = Stopwatch(relay.pid)
        sent = captioner.caption(b"%d" % number)
        assert encoder.receive_caption(20)[0] == sent.caption
        slowest = max(slowest, watch.secs())
        number += 1
    return slowest


@pytest.mark.parametrize("tls", [False, True], ids=["plain", "tls"])
def test_a_flooding_sender_does_not_starve_another(tls_relay, make_station, route, tls):
    relay = tls_relay
    flooder = make_station(relay, Captioner, tls=tls, heartbeats=False)
    flooded = make_station(relay, Encoder)
    captioner, encoder = make_station(relay, Captioner), make_station(relay, Encoder)
    route(relay, flooder, flooded, PIPE_CAPTION)
    route(relay, captioner, encoder, PIPE_CAPTION)
    # No more than a client may send in one measuring period.
    frame = Caption(b"\x41\x42", sender_id=flooder.client_id).frame()
    last = Caption(b"last", sender_id=flooder.client_id).frame()
    drain = Drain(flooded)
    try:
        busy = [True]

        def flood():
            for _ in range(150):
                flooder.send_raw(frame * 1000, within_secs=30)
            flooder.send_raw(last, within_secs=30)
            drain.wait_for_image(last[1:], 60)
            busy[0] = False

        slowest = in_threads(
            [flood, lambda: slowest_round_trip(relay, captioner, encoder, lambda: busy[0], 20)]
        )[1]
        assert slowest < patient(NOTICEABLE_SECS)
        assert drain.images() == [*[frame[1:]] * 150000, last[1:]]
    finally:
        drain.close()


@pytest.mark.parametrize("tls", [False, True], ids=["plain", "tls"])
def test_a_receiver_that_does_not_read_is_dropped_alone(tls_relay, make_station, route, tls):
    relay = tls_relay
    captioner = make_station(relay, Captioner)
    readers = [make_station(relay, Encoder) for _ in range(20)]
    stopped = make_station(relay, Encoder, tls=tls, receive_buffer=4096)
    for receiver in (*readers[:10], stopped, *readers[10:]):
        route(relay, captioner, receiver, PIPE_CAPTION)
    drains = [Drain(reader) for reader in readers]
    lost = f"removing socket for client {stopped.client_id}, and notifying CS"
    frames, slowest, length = [], 0.0, 0
    try:
        # Until the kernel's buffers are full; they hold some megabytes.
        while relay.log.count(lost) == 0 and length < 40_000_000:
            chunk = [Caption(b"%06d" % (len(frames) + n) + LARGE) for n in range(50)]
            watch = Stopwatch(relay.pid)
            captioner.send_all(chunk)
            frames += [arriving_image(message) for message in chunk]
            length += sum(len(image) + 1 for image in frames[-50:])
            for drain in drains:
                drain.wait_for_length(length, 20)
            slowest = max(slowest, watch.secs())
        assert relay.log.count(lost) == 1
        assert slowest < patient(NOTICEABLE_SECS)
        relay.log.expect("TCP message send failed in SwitchPacket - rc=")
        relay.server.record.wait_for_type(LostConnection, client_id=stopped.client_id)
        assert len(relay.server.record.messages_of(LostConnection)) == 1
        # The others continue, and got everything.
        last = arriving_image(captioner.caption(b"last"))
        for drain in drains:
            drain.wait_for_image(last, 20)
            assert drain.images() == [*frames, last]
    finally:
        for drain in drains:
            drain.close()
    stopped.close()
    again = make_station(relay, Encoder, client_id=stopped.client_id)
    captioner.caption(b"back")
    assert len(got_before_fence(captioner, again)) == 1
