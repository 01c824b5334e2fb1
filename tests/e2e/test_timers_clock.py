"""The timers follow the wall clock: heartbeats every fourth second, to clients and to the server,
and the load report on the minute. A client that only sends heartbeats is kept."""

from __future__ import annotations

import re
import time

import pytest
from switching_tools import got_before_fence

from lab.protocol import messages

pytestmark = pytest.mark.long

_TICK_SECS = 4
#: More of them than a silent client would see.
_TICKS = 6
_REPORT = "Load reporting: epoll descriptors active per loop : "
_REPORT_LINE = re.compile(
    r"\d\d:(\d\d):(\d\d) [AP]M - " + _REPORT + r"\d+ / \d+\.\d / \d+\.\d"
    r" \(1 loop / 1K avg / 1M avg\)"
)


def _is_heartbeat(message):
    return isinstance(message, messages.Heartbeat)


def _seconds_behind_a_tick():
    return time.time() % _TICK_SECS


def test_every_tick_brings_clients_and_server_a_heartbeat(relay, make_station):
    """And the heartbeats of the client are enough to keep it connected."""
    station = make_station(relay)
    station.show_heartbeats = True
    station.receive_until(_is_heartbeat, 2 * _TICK_SECS)
    since = relay.server.record.mark()
    began = time.monotonic()
    late = []
    for _ in range(_TICKS):
        [beat] = station.receive_until(_is_heartbeat, 2 * _TICK_SECS)
        late.append(_seconds_behind_a_tick())
    took = time.monotonic() - began
    assert beat.received_image == messages.Heartbeat(sender_id=relay.server.relay_id).image()
    # The second of the tick, and one more for a slow machine.
    assert max(late) < 2, late
    # Not more often; and only ticks that a slow machine slept through are missing.
    assert _TICKS * _TICK_SECS - 2 < took < (_TICKS + 1) * _TICK_SECS + 2
    heard = relay.server.record.messages_of(messages.Heartbeat, since)
    assert _TICKS - 1 <= len(heard) <= _TICKS + 2
    station.show_heartbeats = False
    assert got_before_fence(station, station) == []


def test_the_load_is_reported_on_the_minute(relay):
    line = relay.log.expect(_REPORT, 65)
    shown = _REPORT_LINE.fullmatch(line)
    assert shown is not None, line
    assert int(shown.group(2)) <= 1, "written in the first second, or just behind it"
    assert relay.log.count(_REPORT) == 1
