"""The timers run by the wall clock: heartbeats every fourth second, to clients and to the server,
and the load report on the minute; a client that only sends heartbeats outlives them all."""

from __future__ import annotations

import re
import time

from switching_tools import got_before_fence

from lab import messages
from lab.stations import Station

_TICK_SECS = 4
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
    station = make_station(relay)
    station.show_heartbeats = True
    station.receive_until(_is_heartbeat, 2 * _TICK_SECS)
    since = relay.server.mark()
    began = time.monotonic()
    late = []
    for _ in range(3):
        [beat] = station.receive_until(_is_heartbeat, 2 * _TICK_SECS)
        late.append(_seconds_behind_a_tick())
    took = time.monotonic() - began
    assert beat.received_image == messages.Heartbeat(sender_id=relay.server.relay_id).image()
    # The second of the tick, and one more for a slow machine.
    assert max(late) < 2, late
    # Not more often; and no tick but one that a slow machine has slept through is missing.
    assert 3 * _TICK_SECS - 2 < took < 4 * _TICK_SECS + 2
    heard = relay.server.messages_of(messages.Heartbeat, since)
    assert 2 <= len(heard) <= 5


def test_the_load_is_reported_on_the_minute_and_a_client_that_beats_stays(relay, make_station):
    """The longest of all waits, so both share it."""
    beating = make_station(relay, Station)
    line = relay.log.expect(_REPORT, 65)
    shown = _REPORT_LINE.fullmatch(line)
    assert shown is not None, line
    assert int(shown.group(2)) <= 1, "written in the first second, or just behind it"
    assert got_before_fence(beating, beating) == []
    assert beating.end_seen is None
    assert relay.log.count(_REPORT) == 1
