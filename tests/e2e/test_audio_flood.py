"""A flood of unsolicited datagrams: the log stays small, captions and other audio continue, and the
relay does not grow."""

from __future__ import annotations

import pytest
from flood_tools import (
    DATAGRAMS,
    GROWTH_BYTES,
    OTHER_LINES,
    PROGRAM,
    dropped_by_kernel,
    flood,
    grown,
    make_everyday,
    resident_bytes,
    settle,
)

from lab.audio import audio_wire
from lab.stations.audio_stations import AudioStation
from lab.support.addresses import new_address

#: Discarded datagrams until one is reported, including that one.
PER_REPORT = 1002


@pytest.fixture
def everyday(relay, make_station, route):
    return make_everyday(relay, make_station, route)


@pytest.mark.parametrize("addresses", [1, 250])
def test_unregistered_datagrams(relay, make_station, everyday, addresses):
    station = make_station(relay, AudioStation)
    station.open_audio(relay, PROGRAM)
    noise = b"\x07noise\n" * 20
    kinds = [audio_wire.audio_datagram(marked, noise) for marked in (0, 77, 2**32 - 1)]
    hosts = [new_address() for _ in range(addresses)]
    flood(relay, kinds, hosts[:1])
    settle(relay, station)
    before = resident_bytes(relay), relay.open_descriptors()
    since, lost = relay.log.mark(), dropped_by_kernel(relay, PROGRAM)
    captions = everyday(lambda: flood(relay, kinds, hosts))
    settle(relay, station)
    lost = dropped_by_kernel(relay, PROGRAM) - lost
    reports = relay.log.count("UDP packets from un-registered source", since=since)
    assert abs(reports - (DATAGRAMS - lost) // PER_REPORT) <= 1
    assert relay.log.mark() - since < 4 * reports + OTHER_LINES
    assert captions > 20
    bytes_more, descriptors_more = grown(relay, before)
    assert bytes_more < GROWTH_BYTES
    assert descriptors_more == 0
