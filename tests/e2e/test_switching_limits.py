"""Limits in real time: clients that are silent, and clients that send too much."""

from __future__ import annotations

import contextlib
import re

import pytest
from switching_tools import got_before_fence, line_count

from lab.protocol import messages, wire
from lab.protocol.messages import Heartbeat, LostConnection, Opaque
from lab.stations.caption_stations import Captioner, Encoder, Station
from lab.support.channel import PeerClosed

LIMIT = 6_000_000
FAREWELL = b"Your client has been timed out by its relay\r\n"
OVER = "WARNING: input TCP count on client {} over limit : {} bytes in 3.0 seconds"


def test_silent_clients_are_dropped_and_logged(tls_relay, make_station):
    """Silence is 15 s without a whole message; a heartbeat ends it, as does a message that is
    ignored."""
    relay = tls_relay
    silent = [make_station(relay, Encoder, tls=tls, heartbeats=False) for tls in (False, True)]
    beating = make_station(relay, Captioner)
    torn = make_station(relay, Station, heartbeats=False)
    torn.send_raw(Heartbeat(sender_id=torn.client_id).frame()[:-1])
    for station in (*silent, torn):
        farewell = station.expect(messages.Chat, 40)
        assert (farewell.name, farewell.chat) == ("SERVER", FAREWELL)
        assert farewell.sender_id == relay.server.relay_id
        assert farewell.received_image == wire.make_image(
            messages.Chat.TYPE, relay.server.relay_id, 0, b"SERVER~" + FAREWELL + b"~~"
        )
        assert station.closed_by_peer()
        relay.server.record.wait_for_type(LostConnection, client_id=station.client_id)
        line = relay.log.expect(f"Dropping connect to client ID {station.client_id}, socket ")
        idle = re.search(r", 127\.0\.0\.1 - idle for (\d+) seconds$", line)
        # The first tick after 15 seconds of silence; one more if the machine slept through it.
        assert idle is not None and 16 <= int(idle.group(1)) <= 23
    assert got_before_fence(beating, beating) == []
    assert len(relay.server.record.messages_of(LostConnection)) == 3
    again = make_station(relay, Station, client_id=silent[0].client_id)
    relay.log.expect(f"Removed recently lost message on client {again.client_id}")


def frames_of_images(total, sender_id):
    """Frames whose images have `total` bytes; each length is odd. Only the last one goes anywhere:
    back to its sender."""
    lengths = [507] * (total // 507 - 2)
    rest = total - sum(lengths)
    last_ones = 3 if rest % 2 else 4
    lengths += [rest // last_ones | 1] * (last_ones - 1)
    lengths.append(total - sum(lengths))
    images = [wire.make_image(9, sender_id, 0, b"x" * (length - 9)) for length in lengths[:-1]]
    images.append(wire.make_image(9, sender_id, sender_id, b"x" * (lengths[-1] - 9)))
    assert sum(len(image) for image in images) == total
    return b"".join(wire.to_frame(image) for image in images)


def next_burst(station):
    """Waits for the relay's next heartbeat to its clients: a measuring period begins."""
    count = station.heartbeats_received
    station.show_heartbeats = True
    while station.heartbeats_received == count:
        station.expect(Heartbeat, 15)
    station.show_heartbeats = False


def all_counted(station):
    """Waits until the last message that the station sent comes back; heartbeats until then may be
    those of periods in which it was counted."""
    station.expect(Opaque, 30, dest_id=station.client_id)


@pytest.mark.parametrize("tls", [False, True], ids=["plain", "tls"])
def test_a_client_may_send_up_to_the_limit_between_two_heartbeats(tls_relay, make_station, tls):
    relay = tls_relay
    client = make_station(relay, Station, tls=tls, heartbeats=False)
    other = make_station(relay, Station)
    next_burst(client)
    for _ in range(2):
        client.send_raw(frames_of_images(LIMIT, client.client_id), within_secs=30)
        all_counted(client)
        next_burst(client)  # it is still served
    assert line_count(relay, other, "over limit") == 0

    over = frames_of_images(LIMIT + 1, client.client_id)
    line = OVER.format(client.client_id, LIMIT + 1)
    for _ in range(5):  # a slow machine may need more than one period to send it
        client.send_raw(over, within_secs=30)
        if client.closed_by_peer(8) or relay.log.count(line):
            break
    relay.log.expect(line)
    relay.log.expect(f"removing socket for client {client.client_id}, and notifying CS")
    relay.server.record.wait_for_type(LostConnection, client_id=client.client_id)
    assert client.closed_by_peer()
    assert got_before_fence(other, other) == []


def test_the_limit_also_holds_for_many_small_messages(relay, make_station):
    """The same limit holds for many small messages, ignored ones included."""
    client = make_station(relay, Station, heartbeats=False)
    frame = Opaque(9, b"x" * 90, sender_id=client.client_id + 1000000).frame()
    with contextlib.suppress(PeerClosed):  # the rest may find the connection closed
        client.send_raw(frame * (2 * LIMIT // len(frame) + 1000), within_secs=60)
    relay.log.expect(f"WARNING: input TCP count on client {client.client_id} over limit : ", 20)
    relay.server.record.wait_for_type(LostConnection, client_id=client.client_id)
