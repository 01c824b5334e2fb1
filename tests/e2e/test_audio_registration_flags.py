"""What a registration asks for: to receive (1), to be called back (2), to send (4), in all eight
combinations; any other flags are refused however good the ticket is.

A client that sends and receives program 0 counts as a relay, so another program is used here.
"""

from __future__ import annotations

import pytest
from audio_tools import REFUSED, listening, on_air, register

from lab.protocol.messages import PIPE_AUDIO, TicketRequest
from lab.stations.audio_stations import AudioStation

RECEIVE, CALL_BACK, SEND = 1, 2, 4
PROGRAM = 3


@pytest.fixture
def station(relay, make_station):
    """A client with an audio socket that has sent nothing yet."""
    station = make_station(relay, AudioStation)
    station.open_audio(relay, PROGRAM)
    return station


@pytest.fixture
def neighbours(relay, make_station, route, station):
    """A source that is routed to the station, and a receiver that the station is routed to."""
    source = on_air(make_station, relay, [PROGRAM])
    receiver = listening(make_station, relay, [PROGRAM])
    route(relay, source, station, PIPE_AUDIO)
    route(relay, source, receiver, PIPE_AUDIO)
    route(relay, station, receiver, PIPE_AUDIO)
    return source, receiver


@pytest.mark.parametrize("flags", range(8))
def test_each_flag_has_its_own_effect_only(relay, server, station, neighbours, flags):
    source, receiver = neighbours
    me, audio = station.client_id, station.audio(PROGRAM)
    host, port = audio.local_address
    result = register(relay, station, server.ticket_for(me), flags, program=PROGRAM)
    assert result.taken
    expected = [f"UDP registration messages from source {me}, program_idx {PROGRAM}, addr {host}"]
    if flags & RECEIVE:
        expected.append(f"Client {me} registered to rx audio program {PROGRAM} at {host}({port})")
    if flags & SEND:
        expected.append(f"Client {me} registered to send audio program {PROGRAM} at {host}({port})")
    if flags & CALL_BACK:
        expected.append(f"debug: performing udp registration callback to client {me}")
    assert result.lines[: len(expected)] == expected
    if not flags & CALL_BACK:
        assert result.lines == expected
        # To receive: what the source sends arrives, or only what it sends later to another.
        word = source.send_audio(b"word", PROGRAM)
        receiver.audio(PROGRAM).expect(word)
        if flags & RECEIVE:
            audio.expect(word)
        # To send: it is passed on, or the next datagram is the source's.
        sent = audio.send(b"mine")
        last = source.send_audio(b"last", PROGRAM)
        if flags & SEND:
            receiver.audio(PROGRAM).expect(sent)
        receiver.audio(PROGRAM).expect(last)
        if flags & RECEIVE:
            audio.expect(last)
        assert audio.receives_nothing(0.05)


def test_a_call_back_asks_the_server_for_a_ticket(relay, server, station):
    register(relay, station, server.ticket_for(station.client_id), CALL_BACK, program=PROGRAM)
    server.record.wait_for_type(TicketRequest, requested_id=station.client_id, request="UDP_REG")
    # A refused one asks for nothing.
    other = server.new_client_id()
    since = relay.log.mark()
    result = register(relay, station, server.ticket_for(other), CALL_BACK, program=PROGRAM)
    assert result.answers == [REFUSED]
    assert relay.log.count("callback", since=since) == 0


@pytest.mark.parametrize("flags", [8, 9, 15, 255, 256, 2**31, 2**32 - 1])
def test_flags_of_eight_or_more_are_refused(relay, server, station, flags):
    me = station.client_id
    result = register(relay, station, server.ticket_for(me), flags, program=PROGRAM)
    host, port = station.audio(PROGRAM).local_address
    assert result.lines == [
        f"UDP registration messages from source {me}, program_idx {PROGRAM}, addr {host}",
        f"ticket rejected for ill-formed flags - {flags}. Listed client ID was {me}",
        f"udp registration ticket not accepted from ID {me}, addr {host}({port})",
    ]
    assert result.answers == [REFUSED]
    # That did not use up a ticket, and had no lasting effect.
    for _ in range(8):
        assert register(relay, station, server.ticket_for(me), program=PROGRAM).taken


@pytest.mark.parametrize("program", range(6))
def test_a_registration_counts_for_the_program_it_came_to_only(
    relay, server, make_station, route, program
):
    source = on_air(make_station, relay, range(6))
    receiver = listening(make_station, relay, [program])
    route(relay, source, receiver, PIPE_AUDIO)
    sent = [source.send_audio(b"program %d" % one, one) for one in range(6)]
    receiver.audio(program).expect(sent[program])
    # Each socket of the relay keeps its own order, and all are served in turn.
    for _ in range(2):
        for one in range(6):
            again = source.send_audio(b"program %d" % one, one)
            if one == program:
                receiver.audio(program).expect(again)
    assert receiver.audio(program).receives_nothing(0.05)
