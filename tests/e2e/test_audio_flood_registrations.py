"""A flood of registrations that are refused: at most 200 a second are logged, captions and other
audio continue, the relay does not grow, and a good registration gets through."""

from __future__ import annotations

import time

import pytest
from audio_tools import on_air
from flood_tools import (
    GROWTH_BYTES,
    OTHER_LINES,
    PROGRAM,
    flood,
    grown,
    make_everyday,
    resident_bytes,
    settle,
)

from lab.audio import audio_wire
from lab.protocol.messages import PIPE_AUDIO
from lab.stations.audio_stations import AudioStation
from lab.support.addresses import new_address

TOLD_PER_SEC = 200


@pytest.fixture
def everyday(relay, make_station, route):
    return make_everyday(relay, make_station, route)


def test_refused_registrations(relay, server, make_station, everyday):
    """Under the id of a connected client, with tickets of another key."""
    victim = make_station(relay, AudioStation)
    victim.open_audio(relay, PROGRAM)
    ticket = server.ticket_for(victim.client_id, des_key=bytes(range(1, 16, 2)))
    datagrams = [
        audio_wire.registration(victim.client_id, bad, flags)
        for bad, flags in ((ticket, 1), (b"", 5), (b"\xff" * 400, 7), (ticket, 8), (ticket, 2**31))
    ]
    hosts = [new_address() for _ in range(50)]
    flood(relay, datagrams, hosts[:1])
    settle(relay, victim)
    before = resident_bytes(relay), relay.open_descriptors()
    since, began = relay.log.mark(), time.time()
    captions = everyday(lambda: flood(relay, datagrams, hosts))
    answers, looks = settle(relay, victim)
    seconds = int(time.time()) - int(began) + 1
    told = relay.log.count("udp registration ticket not accepted", since=since)
    assert 0 < told <= TOLD_PER_SEC * seconds
    assert len(answers) == told
    assert {one.return_code for one in answers} == {"UDP UNAUTHORIZED"}
    summaries = relay.log.count("more UDP registrations were refused within", since=since)
    assert 1 <= summaries <= seconds
    assert relay.log.mark() - since < 3 * told + seconds + looks + OTHER_LINES
    assert captions > 20
    bytes_more, descriptors_more = grown(relay, before)
    assert bytes_more < GROWTH_BYTES
    assert descriptors_more == 0


def test_a_good_registration_gets_through_a_flood_of_bad_ones(relay, server, make_station, route):
    """It is accepted and logged, however many were refused within the same second."""
    victim, source = make_station(relay, AudioStation), on_air(make_station, relay, [PROGRAM])
    station = make_station(relay, AudioStation)
    audio = station.open_audio(relay, PROGRAM)
    route(relay, source, station, PIPE_AUDIO)
    bad = audio_wire.registration(victim.client_id, b"bad", 1)
    with relay.stopped():
        for _ in range(400):
            audio.send_raw(bad)
        audio.register(station.client_id, server.ticket_for(station.client_id))
    relay.log.expect(f"Client {station.client_id} registered to rx audio program {PROGRAM} at ")
    audio.expect(source.send_audio(b"word", PROGRAM))
