"""Registrations of every shape and length: which count as registrations, which as audio, and which
are ignored; nothing is read beyond the end of a datagram."""

from __future__ import annotations

import pytest
from audio_tools import REFUSED, fence, listening, on_air, outcome, register

from lab.audio import audio_wire
from lab.protocol.messages import PIPE_AUDIO, RelayConnect
from lab.stations.audio_stations import AudioStation

_REGISTRATION = RelayConnect.TYPE
_ARRIVED = "UDP registration messages from source"


@pytest.fixture
def station(relay, make_station):
    station = make_station(relay, AudioStation)
    station.open_audio(relay)
    return station


@pytest.fixture
def pair(relay, make_station, route):
    """A source and its receiver, on the air."""
    source, receiver = on_air(make_station, relay), listening(make_station, relay)
    route(relay, source, receiver, PIPE_AUDIO)
    return source, receiver


def test_without_a_terminator_it_is_audio(relay, server, station, pair):
    """Dropped silently from an unknown sender, passed on from a source."""
    ticket = server.ticket_for(station.client_id)
    result = register(relay, station, ticket, terminator=False, tail=b"x")
    assert result.taken
    assert result.lines == []
    source, receiver = pair
    ticket = server.ticket_for(source.client_id)
    sent = source.audio(0).register_raw(source.client_id, ticket, terminator=False, tail=b"x")
    receiver.audio(0).expect(sent)


def test_with_another_type_or_end_it_is_audio(pair):
    source, receiver = pair
    for payload in (b"\x13", b"\x13no end", b"~", b"~~", b"\x12~", b"\x93~", b"x\x13~", b"\x13~\0"):
        receiver.audio(0).expect(source.send_audio(payload))


def test_sixteen_bytes_are_empty_audio(relay, server, make_station, route):
    """Even when the id ends in the terminator, and a registration was in the same buffer before."""
    source = on_air(make_station, relay, client_id=0x7E000001)
    receiver = listening(make_station, relay)
    route(relay, source, receiver, PIPE_AUDIO)
    _, since = fence(relay, source.audio(0))
    for _ in range(3):
        empty = source.send_audio(b"")
        assert empty[-1:] == b"~"
        assert len(empty) == 16
        receiver.audio(0).expect(empty)
    until, _ = fence(relay, source.audio(0))
    assert not [line for line in relay.log.lines[since:until] if _ARRIVED in line]


def test_fifteen_bytes_are_ignored(relay, pair):
    """It is not audio, nor a discarded datagram, which would be counted and reported."""
    source, receiver = pair
    for length in (*range(16), 15):
        source.audio(0).send_raw((b"\0" * 12 + b"\x13~~~")[:15][:length])
    receiver.audio(0).expect(source.send_audio(b"sound"))
    for _ in range(1500):
        source.audio(0).send_raw(b"~" * 15)
    fence(relay, source.audio(0))
    assert relay.log.count("discarded") == 0


@pytest.mark.parametrize("length", range(1, 12))
def test_an_image_without_a_whole_header_is_refused(relay, station, length):
    """Not even its sender can be read: the marked id is used instead."""
    image = (bytes([_REGISTRATION]) + b"\xff" * 20)[:length] + b"~"
    datagram = audio_wire.audio_datagram(station.client_id, image)
    result = outcome(relay, station, lambda: station.audio(0).send_raw(datagram))
    assert not result.taken
    assert result.lines[0].startswith(_ARRIVED)


@pytest.mark.parametrize("tail", [400, 460, 461, 465, 466, 467, 500, 1000, 1900])
def test_more_fields_than_a_message_holds_do_no_harm(relay, server, make_station, tail):
    """What does not fit into a message is truncated; the relevant fields are at its beginning."""
    station = make_station(relay, AudioStation)
    station.open_audio(relay)
    ticket = server.ticket_for(station.client_id)
    result = register(relay, station, ticket, tail=b"~" + b"x" * tail)
    assert result.taken
    assert any("registered to rx audio program 0" in line for line in result.lines)


@pytest.mark.parametrize("total", [2048, 2049, 5000, 60000])
def test_up_to_2048_bytes_are_read(relay, server, station, total):
    """A longer one is truncated, and so it is ignored."""
    me, ticket = station.client_id, server.ticket_for(station.client_id)
    bare = len(audio_wire.registration(me, ticket, 1, tail=b"~"))
    tail = b"~" + b"x" * (total - bare)
    result = register(relay, station, ticket, tail=tail)
    assert bool(result.lines) == (total <= 2048)
    assert result.taken


def test_without_a_client_id_the_marked_one_is_used(relay, server, station):
    me = station.client_id
    result = register(relay, station, server.ticket_for(me), client_id=0, marked_id=me)
    assert result.taken
    assert result.lines[1] == "client ID in relay connect message came back as zero"
    host, port = station.audio(0).local_address
    assert result.lines[-1] == f"Client {me} registered to rx audio program 0 at {host}({port})"


def test_zero_in_both_places_is_no_client(relay, server, station):
    result = register(relay, station, server.ticket_for(0), client_id=0, marked_id=0)
    assert result.lines[-1] == (
        "UDP registration marked as from client 0, but that ID not found in TCP registration table"
    )


def test_some_without_an_id_are_logged(relay, server, station):
    """About one in ten: none in 200 would be extremely unlikely."""
    audio = station.audio(0)
    for _ in range(200):
        audio.register_raw(0, b"no ticket", marked_id=12)
        fence(relay, audio)
        if relay.log.count("full udp message contents:"):
            return
    raise AssertionError("never shown")


def test_the_refusal_goes_to_the_client_with_the_marked_id(relay, server, make_station, station):
    other = make_station(relay, AudioStation)
    other.open_audio(relay)
    result = outcome(
        relay,
        other,
        lambda: station.audio(0).register_raw(station.client_id, b"bad", marked_id=other.client_id),
        audio=station.audio(0),
    )
    assert result.answers == [REFUSED]
