"""Which tickets register: their length, key, id and age, and how many of one id within a period.

Ages are exact to the second, so a result only counts when the second in which the ticket was
made had not passed when it came.
"""

from __future__ import annotations

import time

import pytest
from audio_tools import REFUSED, register

from lab.stations.audio_stations import AudioStation
from lab.support.waiting import wait_until

_ATTEMPTS = 30
_LOGINS = 9
_PERIOD_SECS = 10
_MISMATCH = "Client login ticket rejected for registration info mismatch"
_TOO_OLD = "Login ticket rejected with large time mismatch"
_LIMIT = "based on temporary connection limits for this ID!"


@pytest.fixture
def new_station(relay, make_station):
    """Clients with an audio socket; the limit is one per id."""

    def new(**options):
        station = make_station(relay, AudioStation, **options)
        station.open_audio(relay)
        return station

    return new


def _reasons(result):
    """The lines with the reason, without those of every refused registration."""
    usual = ("UDP registration messages", "udp registration ticket not accepted")
    return [line for line in result.lines if not line.startswith(usual)]


@pytest.mark.parametrize("length", [0, 1, 8, 15])
def test_too_short_a_ticket_is_refused(relay, server, new_station, length):
    station = new_station()
    ticket = server.ticket_for(station.client_id)[:length]
    result = register(relay, station, ticket)
    assert result.answers == [REFUSED]
    assert _reasons(result) == ["ticket rejected: improper length"]


@pytest.mark.parametrize("length", [17, 24, 63, 64, 65, 72, 128, 400])
def test_bytes_after_the_ticket_do_not_matter(relay, server, new_station, length):
    """Beyond 64 bytes it is not even kept."""
    station = new_station()
    ticket = server.ticket_for(station.client_id).ljust(length, b"\xa5")
    assert register(relay, station, ticket).taken


def test_a_ticket_of_random_bytes_is_refused(relay, new_station):
    station = new_station()
    for ticket in (b"\xff" * 16, b"\\" * 64, b"~" * 64, bytes(64), b"\xff" * 400):
        assert not register(relay, station, ticket).taken


def test_another_key_and_another_id_are_refused(relay, server, new_station):
    station = new_station()
    me = station.client_id
    other_key = server.ticket_for(me, des_key=bytes(range(1, 16, 2)))
    for ticket in (other_key, server.ticket_for(me + 1)):
        result = register(relay, station, ticket)
        assert result.answers == [REFUSED]
        assert f"{_MISMATCH} - plaintext/established info - id={me}, addr=" in _reasons(result)[0]


@pytest.mark.parametrize(
    ("age_secs", "reasons"),
    [(0, 0), (299, 0), (-299, 0), (300, []), (-300, []), (600, []), (601, [_TOO_OLD])],
)
def test_the_age_of_a_ticket_counts_to_the_second(relay, server, new_station, age_secs, reasons):
    for _ in range(_ATTEMPTS):
        station = new_station(heartbeats=False)
        second = int(time.time())
        ticket = server.ticket_for(station.client_id, issued_at=second - age_secs)
        result = register(relay, station, ticket)
        if int(time.time()) == second:
            break
        station.close()
    else:
        raise AssertionError("the clock never stood still for a whole registration")
    if reasons == 0:
        assert result.taken
    else:
        assert result.answers == [REFUSED]
        assert [reason.partition(" - ")[0] for reason in _reasons(result)] == reasons


def test_an_id_has_nine_tickets_in_a_period_log_in_included(relay, server, new_station):
    began = time.monotonic()
    station, other = new_station(), new_station()
    ticket = server.ticket_for(station.client_id)
    for _ in range(_LOGINS - 1):
        assert register(relay, station, ticket).taken
    result = register(relay, station, ticket)
    assert result.answers == [REFUSED]
    assert _reasons(result) == [f"Rejecting ticket for client {station.client_id} {_LIMIT}"]
    # Others are not affected, and in the next period it is accepted again.
    assert register(relay, other, server.ticket_for(other.client_id)).taken
    wait_until(lambda: register(relay, station, ticket).taken, 3 * _PERIOD_SECS, "a new period")
    assert time.monotonic() - began > _PERIOD_SECS - 1


def test_refused_registrations_use_up_nothing(relay, server, new_station):
    station = new_station()
    for _ in range(2 * _LOGINS):
        assert not register(relay, station, server.ticket_for(station.client_id, 400)).taken
    for _ in range(_LOGINS - 1):
        assert register(relay, station, server.ticket_for(station.client_id)).taken
